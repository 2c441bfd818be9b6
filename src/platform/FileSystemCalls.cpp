#include "FileSystemCalls.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

namespace qn {
namespace {

// Containers whose seccomp policy predates statx answer ENOSYS; remember that and use stat.
std::atomic<bool> statxUnavailable{false};

struct timespec fromStatx(const struct statx_timestamp& time) {
    struct timespec result {};
    result.tv_sec = time.tv_sec;
    result.tv_nsec = time.tv_nsec;
    return result;
}

int statusWithStatx(const std::string& path, bool followFinalLink, ItemStatus* status) {
    struct statx info {};
    const int flags = AT_STATX_SYNC_AS_STAT | (followFinalLink ? 0 : AT_SYMLINK_NOFOLLOW);
    if (::statx(AT_FDCWD, path.c_str(), flags, STATX_BASIC_STATS | STATX_BTIME, &info) != 0) {
        return errno;
    }
    status->mode = info.stx_mode;
    status->size = info.stx_size;
    status->accessed = fromStatx(info.stx_atime);
    status->modified = fromStatx(info.stx_mtime);
    status->created.reset();
    if ((info.stx_mask & STATX_BTIME) != 0) {
        status->created = fromStatx(info.stx_btime);
    }
    status->owner = info.stx_uid;
    status->group = info.stx_gid;
    status->linkCount = info.stx_nlink;
    status->device = makedev(info.stx_dev_major, info.stx_dev_minor);
    status->inode = info.stx_ino;
    status->specialDevice = makedev(info.stx_rdev_major, info.stx_rdev_minor);
    return 0;
}

int statusWithStat(const std::string& path, bool followFinalLink, ItemStatus* status) {
    struct stat info {};
    const int result = followFinalLink ? ::stat(path.c_str(), &info) : ::lstat(path.c_str(), &info);
    if (result != 0) {
        return errno;
    }
    status->mode = info.st_mode;
    status->size = static_cast<std::uint64_t>(info.st_size);
    status->accessed = info.st_atim;
    status->modified = info.st_mtim;
    status->created.reset();
    status->owner = info.st_uid;
    status->group = info.st_gid;
    status->linkCount = info.st_nlink;
    status->device = info.st_dev;
    status->inode = info.st_ino;
    status->specialDevice = info.st_rdev;
    return 0;
}

// Errors after which the next, more basic way of copying may still work.
bool tryAnotherWay(int errnoValue) {
    return errnoValue == EXDEV || errnoValue == EINVAL || errnoValue == ENOSYS ||
           errnoValue == EOPNOTSUPP || errnoValue == EBADF || errnoValue == EPERM;
}

}  // namespace

bool ItemStatus::isDirectory() const {
    return S_ISDIR(mode);
}
bool ItemStatus::isRegularFile() const {
    return S_ISREG(mode);
}
bool ItemStatus::isSymbolicLink() const {
    return S_ISLNK(mode);
}

int statusOfItem(const std::string& path, bool followFinalLink, ItemStatus* status) {
    if (!statxUnavailable.load(std::memory_order_relaxed)) {
        const int result = statusWithStatx(path, followFinalLink, status);
        if (result != ENOSYS) {
            return result;
        }
        statxUnavailable.store(true, std::memory_order_relaxed);
    }
    return statusWithStat(path, followFinalLink, status);
}

int listDirectory(const std::string& path, bool followFinalLink, std::vector<std::string>* names) {
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followFinalLink ? 0 : O_NOFOLLOW);
    int fd;
    do {
        fd = ::open(path.c_str(), flags);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return errno;
    }
    DIR* directory = ::fdopendir(fd);
    if (directory == nullptr) {
        const int result = errno;
        ::close(fd);
        return result;
    }
    names->clear();
    int result = 0;
    for (;;) {
        errno = 0;
        const struct dirent* entry = ::readdir(directory);
        if (entry == nullptr) {
            result = errno;
            break;
        }
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names->emplace_back(name);
        }
    }
    ::closedir(directory);
    // std::string compares through char_traits<char>, which orders bytes as unsigned char.
    std::sort(names->begin(), names->end());
    return result;
}

int readLinkTarget(const std::string& path, std::string* target) {
    std::string buffer(256, '\0');
    for (;;) {
        const ssize_t length = ::readlink(path.c_str(), buffer.data(), buffer.size());
        if (length < 0) {
            return errno;
        }
        if (static_cast<std::size_t>(length) < buffer.size()) {
            buffer.resize(static_cast<std::size_t>(length));
            *target = std::move(buffer);
            return 0;
        }
        buffer.resize(buffer.size() * 2);  // Possibly truncated: try again with more room.
    }
}

int writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

int copyFileData(int from, int to) {
    constexpr std::size_t kChunk = std::size_t{1} << 30;
    bool copied = false;  // Once bytes moved, offsets are shared state: no switching methods.
    bool useCopyRange = true;
    while (useCopyRange) {
        const ssize_t count = ::copy_file_range(from, nullptr, to, nullptr, kChunk, 0);
        if (count > 0) {
            copied = true;
        } else if (count == 0) {
            // End of file, or a file system (procfs and the like) that reports none: the plain
            // ways below find out which.
            if (copied) {
                return 0;
            }
            useCopyRange = false;
        } else if (errno != EINTR) {
            if (copied || !tryAnotherWay(errno)) {
                return errno;
            }
            useCopyRange = false;
        }
    }
    bool useSendfile = true;
    while (useSendfile) {
        const ssize_t count = ::sendfile(to, from, nullptr, kChunk);
        if (count > 0) {
            copied = true;
        } else if (count == 0) {
            if (copied) {
                return 0;
            }
            useSendfile = false;
        } else if (errno != EINTR) {
            if (copied || !tryAnotherWay(errno)) {
                return errno;
            }
            useSendfile = false;
        }
    }
    std::string buffer(std::size_t{1} << 16, '\0');
    for (;;) {
        const ssize_t count = ::read(from, buffer.data(), buffer.size());
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        if (count == 0) {
            return 0;
        }
        if (const int result =
                writeAll(to, std::string_view(buffer.data(), static_cast<std::size_t>(count)));
            result != 0) {
            return result;
        }
    }
}

std::string joinPath(std::string_view path, std::string_view name) {
    std::string result(path);
    if (!result.empty() && result.back() != '/') {
        result += '/';
    }
    result += name;
    return result;
}

std::string parentPath(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') {
        path.remove_suffix(1);
    }
    const std::size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        return ".";
    }
    const std::size_t end = path.find_last_not_of('/', slash);
    if (end == std::string_view::npos) {
        return "/";
    }
    return std::string(path.substr(0, end + 1));
}

}  // namespace qn
