#pragma once

// A real directory for the duration of a test: created under /tmp with mkdtemp, removed with
// everything in it when the object goes away (also after a failed assertion). Helpers create
// and read items by paths relative to it, through std::filesystem and plain POSIX calls, so that
// a test can set up and check the disk independently of the file manager it tests.
// Use it on one thread; the directory itself may be used from any.

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include "qn/URL.h"

namespace qn::test {

/// The contents of the file at `path` ("" when it cannot be read).
inline std::string readFile(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

class TemporaryDirectory {
public:
    /// `parent` must exist; /dev/shm gives a directory on another file system than /tmp.
    explicit TemporaryDirectory(const std::string& parent = "/tmp") {
        std::string pattern = parent + "/qn-test-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "mkdtemp in " + parent);
        }
        path_ = std::move(pattern);
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    /// The directory's absolute path, without a trailing "/".
    const std::string& path() const { return path_; }
    /// The directory as a directory URL.
    URL url() const { return URL::fileURLWithPath(path_, true); }

    /// The absolute path of `relative` ("" for the directory itself).
    std::string pathOf(std::string_view relative) const {
        return relative.empty() ? path_ : path_ + "/" + std::string(relative);
    }
    URL urlOf(std::string_view relative, bool isDirectory = false) const {
        return URL::fileURLWithPath(pathOf(relative), isDirectory);
    }

    /// Creates or replaces the file `relative` with `contents`, creating missing directories.
    std::string write(std::string_view relative, std::string_view contents) const {
        const std::string file = pathOf(relative);
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
        std::ofstream stream(file, std::ios::binary | std::ios::trunc);
        stream.write(contents.data(), static_cast<std::streamsize>(contents.size()));
        if (!stream.flush()) {
            throw std::runtime_error("cannot write " + file);
        }
        return file;
    }
    /// Creates the directory `relative` and any missing above it.
    std::string mkdir(std::string_view relative) const {
        const std::string directory = pathOf(relative);
        std::filesystem::create_directories(directory);
        return directory;
    }
    /// Creates the symbolic link `relative` holding `target`.
    std::string symlink(std::string_view relative, const std::string& target) const {
        const std::string link = pathOf(relative);
        std::filesystem::create_symlink(target, link);
        return link;
    }
    /// The contents of the file `relative` ("" when it cannot be read).
    std::string read(std::string_view relative) const { return readFile(pathOf(relative)); }
    /// Whether something (also a dangling link) is at `relative`.
    bool exists(std::string_view relative) const {
        struct stat status {};
        return ::lstat(pathOf(relative).c_str(), &status) == 0;
    }
    /// lstat of `relative`; throws when there is nothing.
    struct stat status(std::string_view relative) const {
        struct stat status {};
        if (::lstat(pathOf(relative).c_str(), &status) != 0) {
            throw std::system_error(errno, std::generic_category(), pathOf(relative));
        }
        return status;
    }

private:
    std::string path_;
};

}  // namespace qn::test
