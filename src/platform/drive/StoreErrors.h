#pragma once

// The errors and checks both drive stores share, so that a device sees the same codes and texts
// whichever store it syncs with: each change is judged on the account's index, brought up to
// date under the account's lock. Private to the drive; any thread (the index is the caller's).

#include <optional>
#include <string>
#include <string_view>
#include <vector>

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

/// Why the file `path` may not be written on `condition`: a mismatch, a folder in the way, or a
/// parent that is not a folder.
std::optional<Error> uploadRefusal(const StoreIndex& index, std::string_view path,
                                   const DriveStore::Condition& condition);
/// Why the folder `path` may not be made on `condition`. A folder already there (unless a
/// revision is asked for) is no refusal: `existing` then holds it.
std::optional<Error> folderRefusal(const StoreIndex& index, std::string_view path,
                                   const DriveStore::Condition& condition,
                                   std::optional<DriveStore::Item>* existing);
/// Why `path` may not be removed on `condition`: no item, a mismatch, a folder not empty.
std::optional<Error> removalRefusal(const StoreIndex& index, std::string_view path,
                                    const DriveStore::Condition& condition);
/// Why `from` may not move to `to` on `condition`.
std::optional<Error> moveRefusal(const StoreIndex& index, std::string_view from,
                                 std::string_view to, const DriveStore::Condition& condition);
/// Whether the item has the version `identifier`.
bool hasVersion(const StoreIndex::Entry* entry, std::string_view identifier);
/// The item's versions, oldest first; nullopt with the error when there is no item.
std::optional<std::vector<DriveStore::Version>> versionsIn(const StoreIndex& index,
                                                           std::string_view path, Error* error);
/// What changed after `token` (an end offset of the index, as text), or everything with
/// `reset` when the token is not one; the new token is the index's end.
DriveStore::Changes changesAfter(const StoreIndex& index, std::string_view token);

/// An account's folder name: bytes other than letters, digits and "._@+-" as %XX, and a name
/// made only of dots written out, so that any account name is one safe folder name.
std::string folderName(std::string_view account);
/// 16 random hex digits, for names nobody else picks.
std::string randomName();

}  // namespace qn::drive
