#include "LocalCopies.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

#include "../FileSystemCalls.h"
#include "qn/PathString.h"

namespace qn::simulated {
namespace {

int writeFile(const std::string& path, std::string_view contents) {
    int fd = -1;
    do {
        fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return errno;
    }
    const int written = writeAll(fd, contents);
    const int closed = ::close(fd) == 0 ? 0 : errno;
    return written != 0 ? written : closed;
}

}  // namespace

int createParentDirectories(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
    return error.value();
}

int writeLocalCopy(const std::string& path, bool isDirectory, std::string_view contents,
                   Date modificationDate) {
    if (const int result = createParentDirectories(path); result != 0) {
        return result;
    }
    if (isDirectory) {
        if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
            return errno;
        }
    } else if (const int result = writeFile(path, contents); result != 0) {
        return result;
    }
    const struct timespec times[2] = {{0, UTIME_OMIT}, modificationDate.toTimespec()};
    return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0 ? 0 : errno;
}

int removeLocalCopy(const std::string& path) {
    std::error_code error;
    std::filesystem::remove_all(path, error);
    return error.value() == ENOENT ? 0 : error.value();
}

int readLocalCopy(const std::string& path, LocalItem* item) {
    ItemStatus status;
    if (const int result = statusOfItem(path, true, &status); result != 0) {
        return result;
    }
    item->isDirectory = status.isDirectory();
    item->modificationDate = Date::fromTimespec(status.modified);
    item->contents.clear();
    if (item->isDirectory) {
        return 0;
    }
    int fd = -1;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return errno;
    }
    char buffer[64 * 1024];
    int result = 0;
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            result = count < 0 ? errno : 0;
            break;
        }
        item->contents.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(fd);
    return result;
}

std::string resolveExistingBeginning(std::string_view path) {
    std::string beginning(path);
    std::string rest;
    while (!beginning.empty() && beginning != "/") {
        const std::unique_ptr<char, decltype(&std::free)> resolved(
            ::realpath(beginning.c_str(), nullptr), &std::free);
        if (resolved) {
            return rest.empty() ? std::string(resolved.get())
                                : stringByAppendingPathComponent(resolved.get(), rest);
        }
        const std::string last = lastPathComponent(beginning);
        rest = rest.empty() ? last : last + "/" + rest;
        beginning = stringByDeletingLastPathComponent(beginning);
    }
    return std::string(path);
}

std::string makeTemporaryDirectory(std::string_view prefix, int* result) {
    std::error_code error;
    std::string pattern = std::filesystem::temp_directory_path(error).string();
    if (error) {
        pattern = "/tmp";
    }
    pattern = stringByAppendingPathComponent(pattern, std::string(prefix) + "XXXXXX");
    if (::mkdtemp(pattern.data()) == nullptr) {
        *result = errno;
        return {};
    }
    *result = 0;
    return pattern;
}

}  // namespace qn::simulated
