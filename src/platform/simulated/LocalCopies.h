#pragma once

// The disk work of the simulated cloud: writing and removing items' local copies, reading a
// local item the daemon picks up, and the directory that holds version contents. Each call
// returns 0 or the errno of the step that failed. Private to the simulated cloud; any thread.

#include <string>
#include <string_view>

#include "qn/Date.h"

namespace qn::simulated {

/// Writes a directory (`isDirectory`) or a file holding `contents` at `path`, creating missing
/// directories above it, and gives it `modificationDate`.
int writeLocalCopy(const std::string& path, bool isDirectory, std::string_view contents,
                   Date modificationDate);

/// Removes whatever is at `path`, a directory with everything in it; nothing there is success.
int removeLocalCopy(const std::string& path);

/// Creates the missing directories above `path`, as a sync daemon keeps the folders of every
/// item on the disk, downloaded or not.
int createParentDirectories(const std::string& path);

struct LocalItem {
    bool isDirectory = false;
    std::string contents;
    Date modificationDate;
};

/// Reads the item at `path` (following a final symbolic link); a directory has no contents.
int readLocalCopy(const std::string& path, LocalItem* item);

/// `path` with the symbolic links of its longest existing beginning resolved; the rest is
/// appended as written. `path` itself when nothing of it can be resolved.
std::string resolveExistingBeginning(std::string_view path);

/// Creates a new private directory "<system temporary directory>/<prefix>XXXXXX"; "" with errno
/// in `*result` on failure.
std::string makeTemporaryDirectory(std::string_view prefix, int* result);

}  // namespace qn::simulated
