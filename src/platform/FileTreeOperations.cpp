#include "FileTreeOperations.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>
#include <vector>

#include "FileErrors.h"
#include "FileSystemCalls.h"

namespace qn {
namespace {

constexpr std::size_t kNoParent = std::numeric_limits<std::size_t>::max();

// Closes on every path out of a function.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    /// Closes now, reporting the error that close may be the first to see (NFS, quotas).
    int close() {
        const int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0 || errno == EINTR ? 0 : errno;
    }

private:
    int fd_;
};

int openRetrying(const std::string& path, int flags, mode_t mode = 0) {
    int fd;
    do {
        fd = ::open(path.c_str(), flags, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

std::string realPath(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                               &std::free);
    return resolved ? std::string(resolved.get()) : std::string();
}

// A directory copied into itself would find its own copy among its contents, again and again.
bool isInside(const std::string& destination, const std::string& sourceDirectory) {
    const std::string source = realPath(sourceDirectory);
    const std::string parent = realPath(parentPath(destination));
    if (source.empty() || parent.empty()) {
        return false;
    }
    std::string_view name = destination;
    while (name.size() > 1 && name.back() == '/') {
        name.remove_suffix(1);
    }
    name.remove_prefix(name.rfind('/') + 1);  // npos + 1 == 0: a bare name stays whole.
    const std::string resolved = joinPath(parent, name);
    return resolved == source || resolved.starts_with(joinPath(source, ""));
}

std::string pathBelow(const std::string& root, const std::string& relativePath) {
    return relativePath.empty() ? root : joinPath(root, relativePath);
}

// Whether the item now at a source path is the one copied from there: a writer may have replaced
// it (a new file renamed over it) or written to it since. A directory's own changes are its
// entries, which rmdir checks.
bool stillAsCopied(const ItemStatus& now, const ItemStatus& copied) {
    if (now.device != copied.device || now.inode != copied.inode ||
        (now.mode & S_IFMT) != (copied.mode & S_IFMT)) {
        return false;
    }
    return now.isDirectory() ||
           (now.size == copied.size && now.modified.tv_sec == copied.modified.tv_sec &&
            now.modified.tv_nsec == copied.modified.tv_nsec);
}

class TreeCopier {
public:
    TreeCopier(FileManagerDelegate* delegate, Error* error, std::vector<CopiedItem>* copied)
        : delegate_(delegate), error_(error), copied_(copied) {}

    // False on failure, with the error set. `relativePath` is the item's place below the top.
    bool copy(const std::string& source, const std::string& destination,
              const std::string& relativePath, const ItemStatus& status) {
        if (delegate_ != nullptr && !delegate_->shouldCopyItemAtURL(
                                        URL::fileURLWithPath(source, status.isDirectory()),
                                        URL::fileURLWithPath(destination, status.isDirectory()))) {
            return true;
        }
        current_ = {relativePath, status};
        if (status.isDirectory()) {
            return copyDirectory(source, destination, status);
        }
        if (status.isRegularFile()) {
            return copyFile(source, destination, status);
        }
        if (status.isSymbolicLink()) {
            return copyLink(source, destination, status);
        }
        if (::mknod(destination.c_str(), status.mode, status.specialDevice) != 0) {
            return fail(errno, FileAccess::Writing, destination);
        }
        created();
        return keepDates(destination, status, 0);
    }

private:
    // The item being copied now exists at its destination.
    void created() { copied_->push_back(std::move(current_)); }

    bool fail(int errnoValue, FileAccess access, const std::string& path) {
        setError(error_, fileError(errnoValue, access, path));
        return false;
    }

    bool keepDates(const std::string& destination, const ItemStatus& status, int flags) {
        const struct timespec times[2] = {status.accessed, status.modified};
        if (::utimensat(AT_FDCWD, destination.c_str(), times, flags) != 0) {
            return fail(errno, FileAccess::Writing, destination);
        }
        return true;
    }

    bool copyDirectory(const std::string& source, const std::string& destination,
                       const ItemStatus& status) {
        std::vector<std::string> names;
        if (const int result = listDirectory(source, false, &names); result != 0) {
            return fail(result, FileAccess::Reading, source);
        }
        // Owner-only until the contents are in, so that a read-only source directory can still
        // be filled, and nobody sees it half-copied with its final permissions.
        if (::mkdir(destination.c_str(), 0700) != 0) {
            return fail(errno, FileAccess::Writing, destination);
        }
        const std::string relativePath = current_.relativePath;
        created();
        for (const std::string& name : names) {
            const std::string child = joinPath(source, name);
            ItemStatus childStatus;
            if (const int result = statusOfItem(child, false, &childStatus); result != 0) {
                if (result == ENOENT) {
                    continue;  // Removed since the listing.
                }
                return fail(result, FileAccess::Reading, child);
            }
            if (!copy(child, joinPath(destination, name), joinPath(relativePath, name),
                      childStatus)) {
                return false;
            }
        }
        if (::chmod(destination.c_str(), status.mode & 07777) != 0) {
            return fail(errno, FileAccess::Writing, destination);
        }
        return keepDates(destination, status, 0);  // Last: adding the contents changed them.
    }

    bool copyFile(const std::string& source, const std::string& destination,
                  const ItemStatus& status) {
        FileDescriptor in(openRetrying(source, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        if (!in.valid()) {
            return fail(errno, FileAccess::Reading, source);
        }
        FileDescriptor out(
            openRetrying(destination, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!out.valid()) {
            return fail(errno, FileAccess::Writing, destination);
        }
        created();
        // A failure here cannot be told apart by side; the usual causes (space, quota) are the
        // destination's.
        if (const int result = copyFileData(in.get(), out.get()); result != 0) {
            return fail(result, FileAccess::Writing, destination);
        }
        const struct timespec times[2] = {status.accessed, status.modified};
        if (::fchmod(out.get(), status.mode & 07777) != 0 || ::futimens(out.get(), times) != 0) {
            return fail(errno, FileAccess::Writing, destination);
        }
        if (const int result = out.close(); result != 0) {
            return fail(result, FileAccess::Writing, destination);
        }
        return true;
    }

    bool copyLink(const std::string& source, const std::string& destination,
                  const ItemStatus& status) {
        std::string target;
        if (const int result = readLinkTarget(source, &target); result != 0) {
            return fail(result, FileAccess::Reading, source);
        }
        if (::symlink(target.c_str(), destination.c_str()) != 0) {
            return fail(errno, FileAccess::Writing, destination);
        }
        created();
        // Not every file system keeps dates on links; the link itself is what matters.
        const struct timespec times[2] = {status.accessed, status.modified};
        ::utimensat(AT_FDCWD, destination.c_str(), times, AT_SYMLINK_NOFOLLOW);
        return true;
    }

    FileManagerDelegate* delegate_;
    Error* error_;
    std::vector<CopiedItem>* copied_;
    CopiedItem current_;
};

struct RemovalEntry {
    std::string path;
    bool isDirectory;
    std::size_t parent;
    bool keep = false;  // A directory holding a declined item.
};

class TreeRemover {
public:
    TreeRemover(FileManagerDelegate* delegate, Error* error) : delegate_(delegate), error_(error) {}

    // Asks about the item and everything below it, recording what to remove, in pre-order.
    bool collect(const std::string& path, bool isDirectory, std::size_t parent) {
        if (delegate_ != nullptr &&
            !delegate_->shouldRemoveItemAtURL(URL::fileURLWithPath(path, isDirectory))) {
            for (std::size_t at = parent; at != kNoParent && !entries_[at].keep;
                 at = entries_[at].parent) {
                entries_[at].keep = true;
            }
            return true;
        }
        const std::size_t index = entries_.size();
        entries_.push_back({path, isDirectory, parent});
        if (!isDirectory) {
            return true;
        }
        std::vector<std::string> names;
        if (const int result = listDirectory(path, false, &names); result != 0) {
            return fail(result, path);
        }
        for (const std::string& name : names) {
            const std::string child = joinPath(path, name);
            ItemStatus status;
            if (const int result = statusOfItem(child, false, &status); result != 0) {
                if (result == ENOENT) {
                    continue;
                }
                return fail(result, child);
            }
            if (!collect(child, status.isDirectory(), index)) {
                return false;
            }
        }
        return true;
    }

    // Reverse pre-order: every item goes before the directory holding it.
    bool remove() {
        for (auto entry = entries_.rbegin(); entry != entries_.rend(); ++entry) {
            if (entry->keep) {
                continue;
            }
            const int result =
                entry->isDirectory ? ::rmdir(entry->path.c_str()) : ::unlink(entry->path.c_str());
            if (result != 0 && errno != ENOENT) {
                return fail(errno, entry->path);
            }
        }
        return true;
    }

private:
    bool fail(int errnoValue, const std::string& path) {
        setError(error_, fileError(errnoValue, FileAccess::Writing, path));
        return false;
    }

    FileManagerDelegate* delegate_;
    Error* error_;
    std::vector<RemovalEntry> entries_;
};

bool sameFileContents(const std::string& path, const std::string& otherPath) {
    FileDescriptor file(openRetrying(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    FileDescriptor other(openRetrying(otherPath, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file.valid() || !other.valid()) {
        return false;
    }
    constexpr std::size_t kBlock = std::size_t{1} << 16;
    std::vector<char> block(kBlock);
    std::vector<char> otherBlock(kBlock);
    // Fills the buffer unless the file ends first; -1 on a read error.
    auto fill = [](int fd, std::vector<char>& buffer) -> ssize_t {
        std::size_t filled = 0;
        while (filled < buffer.size()) {
            const ssize_t count = ::read(fd, buffer.data() + filled, buffer.size() - filled);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count < 0) {
                return -1;
            }
            if (count == 0) {
                break;
            }
            filled += static_cast<std::size_t>(count);
        }
        return static_cast<ssize_t>(filled);
    };
    for (;;) {
        const ssize_t count = fill(file.get(), block);
        const ssize_t otherCount = fill(other.get(), otherBlock);
        if (count < 0 || count != otherCount) {
            return false;
        }
        if (count == 0) {
            return true;
        }
        if (std::memcmp(block.data(), otherBlock.data(), static_cast<std::size_t>(count)) != 0) {
            return false;
        }
    }
}

}  // namespace

bool copyItemTree(const URL& source, const URL& destination, FileManagerDelegate* delegate,
                  Error* error, std::vector<CopiedItem>* copied) {
    ItemStatus status;
    if (const int result = statusOfItem(source.path(), false, &status); result != 0) {
        setError(error, fileError(result, FileAccess::Reading, source.path(), &source));
        return false;
    }
    ItemStatus existing;
    if (statusOfItem(destination.path(), false, &existing) == 0) {
        setError(error, fileError(EEXIST, FileAccess::Writing, destination.path(), &destination));
        return false;
    }
    if (status.isDirectory() && isInside(destination.path(), source.path())) {
        setError(error, fileError(EINVAL, FileAccess::Writing, destination.path(), &destination));
        return false;
    }
    std::vector<CopiedItem> ownRecord;
    std::vector<CopiedItem>* record = copied != nullptr ? copied : &ownRecord;
    record->clear();
    TreeCopier copier(delegate, error, record);
    if (!copier.copy(source.path(), destination.path(), "", status)) {
        removeCopiedItems(destination.path(), *record, CopySide::Copy, nullptr);
        record->clear();
        return false;
    }
    return true;
}

bool removeCopiedItems(const std::string& root, const std::vector<CopiedItem>& copied,
                       CopySide side, Error* error) {
    if (side == CopySide::Copy) {
        // Only what the copy created and still a directory (chmod would follow a link).
        for (const CopiedItem& item : copied) {
            const std::string path = pathBelow(root, item.relativePath);
            ItemStatus status;
            if (item.source.isDirectory() && statusOfItem(path, false, &status) == 0 &&
                status.isDirectory()) {
                ::chmod(path.c_str(), 0700);
            }
        }
    }
    int firstFailure = 0;
    auto failed = [&](int errnoValue, const std::string& path) {
        if (firstFailure == 0) {
            firstFailure = errnoValue;
            setError(error, fileError(errnoValue, FileAccess::Writing, path));
        }
    };
    for (auto item = copied.rbegin(); item != copied.rend(); ++item) {
        const std::string path = pathBelow(root, item->relativePath);
        const bool isDirectory = item->source.isDirectory();
        if (side == CopySide::Source) {
            ItemStatus now;
            if (const int result = statusOfItem(path, false, &now); result != 0) {
                if (result != ENOENT) {
                    failed(result, path);
                }
                continue;
            }
            if (!stillAsCopied(now, item->source)) {
                failed(EBUSY, path);
                continue;
            }
        }
        if ((isDirectory ? ::rmdir(path.c_str()) : ::unlink(path.c_str())) != 0 &&
            errno != ENOENT) {
            failed(errno, path);
        }
    }
    return firstFailure == 0;
}

bool removeItemTree(const URL& item, FileManagerDelegate* delegate, Error* error) {
    ItemStatus status;
    if (const int result = statusOfItem(item.path(), false, &status); result != 0) {
        setError(error, fileError(result, FileAccess::Writing, item.path(), &item));
        return false;
    }
    TreeRemover remover(delegate, error);
    return remover.collect(item.path(), status.isDirectory(), kNoParent) && remover.remove();
}

bool itemTreesEqual(const std::string& path, const std::string& otherPath) {
    ItemStatus status;
    ItemStatus otherStatus;
    if (statusOfItem(path, false, &status) != 0 ||
        statusOfItem(otherPath, false, &otherStatus) != 0) {
        return false;
    }
    if (status.device == otherStatus.device && status.inode == otherStatus.inode) {
        return true;
    }
    if ((status.mode & S_IFMT) != (otherStatus.mode & S_IFMT)) {
        return false;
    }
    if (status.isRegularFile()) {
        return status.size == otherStatus.size && sameFileContents(path, otherPath);
    }
    if (status.isSymbolicLink()) {
        std::string target;
        std::string otherTarget;
        return readLinkTarget(path, &target) == 0 && readLinkTarget(otherPath, &otherTarget) == 0 &&
               target == otherTarget;
    }
    if (status.isDirectory()) {
        std::vector<std::string> names;
        std::vector<std::string> otherNames;
        if (listDirectory(path, false, &names) != 0 ||
            listDirectory(otherPath, false, &otherNames) != 0 || names != otherNames) {
            return false;
        }
        for (const std::string& name : names) {
            if (!itemTreesEqual(joinPath(path, name), joinPath(otherPath, name))) {
                return false;
            }
        }
        return true;
    }
    if (S_ISCHR(status.mode) || S_ISBLK(status.mode)) {
        return status.specialDevice == otherStatus.specialDevice;
    }
    return true;  // FIFOs and sockets have no contents to differ in.
}

}  // namespace qn
