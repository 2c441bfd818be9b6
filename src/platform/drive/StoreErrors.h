#pragma once

// The errors and checks both drive stores share, so that a device sees the same codes and texts
// whichever store it syncs with. Private to the drive; any thread.

#include <optional>
#include <string>
#include <string_view>

#include "StoreIndex.h"
#include "qn/DriveStore.h"

namespace qn::drive {

/// An error in QNDriveStoreErrorDomain; `path` under NSFilePathErrorKey when not empty, and a
/// POSIX error under NSUnderlyingErrorKey when `errnoValue` is not 0.
Error storeError(DriveStoreError code, std::string description, std::string_view path,
                 int errnoValue = 0);
Error noItem(std::string_view path);
Error noRevision(std::string_view path, std::string_view revision);
Error noVersion(std::string_view path, std::string_view identifier);
Error notAFolder(std::string_view path, std::string_view what);
/// Sets `error` (when asked for) to `made` and answers false.
bool fail(Error* error, Error made);
const char* kindName(bool isDirectory);

/// Whether `entry` (null: no item) meets `condition`; otherwise the mismatch that says why, with
/// the store's current revision.
std::optional<Error> unmet(const StoreIndex::Entry* entry, const DriveStore::Condition& condition,
                           std::string_view path);

/// An account's folder name: bytes other than letters, digits and "._@+-" as %XX, and a name
/// made only of dots written out, so that any account name is one safe folder name.
std::string folderName(std::string_view account);
/// 16 random hex digits, for names nobody else picks.
std::string randomName();

}  // namespace qn::drive
