#pragma once

// Thin wrappers over the POSIX calls the file manager is built from. Each returns 0 on success or
// the errno of the call that failed, retries EINTR, and closes what it opened. Private to the
// platform layer; any thread.

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qn {

/// The start of the hidden names under which the file manager stages an item on its way in or
/// out of a folder (written whole, then renamed). Whatever watches folders (the drive) leaves
/// such names alone: they are gone, or renamed, a moment later.
inline constexpr std::string_view kStagingNamePrefix = ".qn-";

/// What the file manager needs to know of an item: a `struct stat` plus the birth time, which
/// only statx reports (and only on file systems that record it).
struct ItemStatus {
    mode_t mode = 0;
    std::uint64_t size = 0;
    struct timespec accessed {};
    struct timespec modified {};
    std::optional<struct timespec> created;
    uid_t owner = 0;
    gid_t group = 0;
    std::uint64_t linkCount = 0;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    dev_t specialDevice = 0;  // st_rdev, for device files

    bool isDirectory() const;
    bool isRegularFile() const;
    bool isSymbolicLink() const;
};

/// Status of the item at `path`; `followFinalLink` chooses between stat and lstat.
int statusOfItem(const std::string& path, bool followFinalLink, ItemStatus* status);

/// The names in the directory at `path`, without "." and "..", sorted bytewise. With
/// `followFinalLink` false a symbolic link at `path` is refused rather than listed.
int listDirectory(const std::string& path, bool followFinalLink, std::vector<std::string>* names);

/// The text a symbolic link holds.
int readLinkTarget(const std::string& path, std::string* target);

/// Writes all of `bytes` to `fd`.
int writeAll(int fd, std::string_view bytes);

/// Copies everything from the current offset of `from` to the end into `to`, with the cheapest
/// call the two file systems support (copy_file_range, then sendfile, then read/write).
int copyFileData(int from, int to);

/// `path` and `name` joined with one separator.
std::string joinPath(std::string_view path, std::string_view name);

/// The directory part of `path` ("." for a bare name, "/" for an item in the root).
std::string parentPath(std::string_view path);

}  // namespace qn
