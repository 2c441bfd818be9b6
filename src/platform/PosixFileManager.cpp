#include "qn/PosixFileManager.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "FileErrors.h"
#include "FileSystemCalls.h"
#include "FileTreeOperations.h"
#include "ItemAttributes.h"
#include "PosixDirectoryEnumerator.h"
#include "qn/Logger.h"
#include "qn/UbiquityService.h"

namespace qn {
namespace {

// Flags of renameat2 that a file system may not support; the callers then take a slower way.
bool renameFlagUnsupported(int errnoValue) {
    return errnoValue == EINVAL || errnoValue == ENOSYS || errnoValue == EOPNOTSUPP;
}

// Renames unless something already exists at `to`; 0 or errno (EEXIST when something does).
int renameWithoutReplacing(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (!renameFlagUnsupported(errno)) {
        return errno;
    }
    // The file system cannot check atomically; a creator racing us between the two calls loses
    // its item, which is the best a plain rename allows.
    ItemStatus existing;
    if (statusOfItem(to, false, &existing) == 0) {
        return EEXIST;
    }
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

// A hidden name in `directory` that nothing uses yet, for an item on its way in or out, into
// `path`. It leaves out the item's own name, which may already be as long as a name can be.
// 0 or errno: only a name known to be free will do.
int temporarySibling(const std::string& directory, std::string* path) {
    static std::atomic<unsigned> counter{0};
    for (;;) {
        struct timespec now {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        *path = joinPath(directory, fmt::format("{}{}-{}-{}", kStagingNamePrefix, ::getpid(),
                                                counter.fetch_add(1), now.tv_nsec));
        ItemStatus existing;
        if (const int result = statusOfItem(*path, false, &existing); result != 0) {
            return result == ENOENT ? 0 : result;
        }
    }
}

std::string lastComponent(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') {
        path.remove_suffix(1);
    }
    const std::size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

// A directory listing failed with `errnoValue`: tell a missing directory from an item that is
// not one.
Error listingError(int errnoValue, const std::string& path) {
    ItemStatus status;
    if (errnoValue == ENOTDIR && statusOfItem(path, true, &status) == 0 && !status.isDirectory()) {
        return notADirectoryError(FileAccess::Reading, path);
    }
    return fileError(errnoValue, FileAccess::Reading, path);
}

// mkdir -p: creates `path` and the missing directories above it, recording each one created,
// parents first. 0 or errno, with the path that failed in `failedPath`.
int makeDirectories(const std::string& path, std::vector<std::string>* created,
                    std::string* failedPath) {
    for (int attempt = 0;; ++attempt) {
        if (::mkdir(path.c_str(), 0777) == 0) {
            created->push_back(path);
            return 0;
        }
        const int result = errno;
        if (result == EEXIST) {
            ItemStatus status;  // Following links, as mkdir -p does.
            if (statusOfItem(path, true, &status) == 0 && status.isDirectory()) {
                return 0;
            }
        }
        const std::string parent = parentPath(path);
        if (result != ENOENT || attempt > 0 || parent == path || parent == ".") {
            *failedPath = path;
            return result;
        }
        if (const int parentResult = makeDirectories(parent, created, failedPath);
            parentResult != 0) {
            return parentResult;
        }
    }
}

}  // namespace

std::shared_ptr<FileManager> PosixFileManager::makePrivateManager() {
    return std::make_shared<PosixFileManager>();
}

void PosixFileManager::setDelegate(std::shared_ptr<FileManagerDelegate> delegate) {
    std::lock_guard lock(delegateMutex_);
    delegate_ = std::move(delegate);
}

std::shared_ptr<FileManagerDelegate> PosixFileManager::delegate() const {
    std::lock_guard lock(delegateMutex_);
    return delegate_;
}

bool PosixFileManager::fileExistsAtPath(std::string_view path, bool* isDirectory) {
    ItemStatus status;
    const bool exists = statusOfItem(std::string(path), true, &status) == 0;
    if (isDirectory != nullptr) {
        *isDirectory = exists && status.isDirectory();
    }
    return exists;
}

std::optional<Dictionary> PosixFileManager::attributesOfItemAtPath(std::string_view path,
                                                                   Error* error) {
    ItemStatus status;
    if (const int result = statusOfItem(std::string(path), false, &status); result != 0) {
        setError(error, [&] { return fileError(result, FileAccess::Reading, path); });
        return std::nullopt;
    }
    return attributesFromStatus(status);
}

bool PosixFileManager::setAttributes(const Dictionary& attributes, std::string_view ofItemAtPath,
                                     Error* error) {
    std::string problem;
    const std::optional<AttributeChanges> changes = AttributeChanges::parse(attributes, &problem);
    if (!changes) {
        setError(error, invalidRequestError(FileAccess::Writing, ofItemAtPath, problem));
        return false;
    }
    const std::string path(ofItemAtPath);
    ItemStatus status;  // With nothing to apply, a missing item must still be reported.
    const int result =
        changes->empty() ? statusOfItem(path, true, &status) : changes->applyTo(path);
    if (result != 0) {
        setError(error, fileError(result, FileAccess::Writing, ofItemAtPath));
        return false;
    }
    return true;
}

bool PosixFileManager::loadAttributesOfItemAtPath(std::string_view path, Dictionary* attributes,
                                                  Dictionary* linkDestinationAttributes,
                                                  Error* error) {
    if (linkDestinationAttributes != nullptr) {
        *linkDestinationAttributes = Dictionary();
    }
    if (attributes == nullptr) {
        setError(error, invalidRequestError(FileAccess::Reading, path,
                                            "No dictionary was given for the attributes."));
        return false;
    }
    *attributes = Dictionary();
    const std::string itemPath(path);
    ItemStatus status;
    if (const int result = statusOfItem(itemPath, false, &status); result != 0) {
        setError(error, fileError(result, FileAccess::Reading, path));
        return false;
    }
    *attributes = attributesFromStatus(status);
    if (linkDestinationAttributes != nullptr && status.isSymbolicLink()) {
        ItemStatus destination;
        if (statusOfItem(itemPath, true, &destination) == 0) {
            *linkDestinationAttributes = attributesFromStatus(destination);
        }
    }
    return true;
}

std::optional<Value> PosixFileManager::resourceValue(const URL& url, std::string_view key,
                                                     Error* error) {
    if (key.starts_with("NSURLUbiquitousItem")) {
        // Known to the cloud, whether or not the item is on the local disk.
        return UbiquityService::current()->resourceValue(url, key, error);
    }
    ItemStatus status;
    if (const int result = statusOfItem(url.path(), false, &status); result != 0) {
        // Built only when asked for: callers probing many missing items pass no error.
        if (error != nullptr) {
            *error = fileError(result, FileAccess::Reading, url.path(), &url);
        }
        return std::nullopt;
    }
    if (key == NSURLFileSizeKey) {
        if (!status.isRegularFile()) {
            return std::nullopt;
        }
        return Value(status.size);
    }
    if (key == NSURLContentModificationDateKey) {
        return Value(Date::fromTimespec(status.modified));
    }
    if (key == NSURLIsDirectoryKey) {
        return Value(status.isDirectory());
    }
    if (key == NSURLIsRegularFileKey) {
        return Value(status.isRegularFile());
    }
    return std::nullopt;
}

bool PosixFileManager::contentsEqualAtPath(std::string_view path, std::string_view andPath) {
    return itemTreesEqual(std::string(path), std::string(andPath));
}

bool PosixFileManager::createDirectoryAtURL(const URL& url, bool withIntermediateDirectories,
                                            const Dictionary* attributes, Error* error) {
    AttributeChanges changes;
    if (attributes != nullptr) {
        std::string problem;
        auto parsed = AttributeChanges::parse(*attributes, &problem);
        if (!parsed) {
            setError(error, invalidRequestError(FileAccess::Writing, url.path(), problem));
            return false;
        }
        changes = *parsed;
    }
    std::vector<std::string> created;
    if (withIntermediateDirectories) {
        std::string failedPath;
        if (const int result = makeDirectories(url.path(), &created, &failedPath); result != 0) {
            setError(error, fileError(result, FileAccess::Writing, failedPath,
                                      failedPath == url.path() ? &url : nullptr));
            return false;
        }
    } else {
        if (::mkdir(url.path().c_str(), 0777) != 0) {
            setError(error, fileError(errno, FileAccess::Writing, url.path(), &url));
            return false;
        }
        created.push_back(url.path());
    }
    // Deepest first, so that restrictive permissions on a parent cannot lock us out of its child.
    for (auto path = created.rbegin(); path != created.rend(); ++path) {
        if (const int result = changes.applyTo(*path); result != 0) {
            setError(error, fileError(result, FileAccess::Writing, *path,
                                      *path == url.path() ? &url : nullptr));
            return false;
        }
    }
    return true;
}

bool PosixFileManager::createFileAtPath(std::string_view path, std::string_view contents,
                                        const Dictionary* attributes) {
    AttributeChanges changes;
    if (attributes != nullptr) {
        std::string problem;
        auto parsed = AttributeChanges::parse(*attributes, &problem);
        if (!parsed) {
            return false;
        }
        changes = *parsed;
    }
    std::string filePath(path);
    ItemStatus existing;
    int result = statusOfItem(filePath, false, &existing);
    if (result == 0 && existing.isSymbolicLink()) {
        // The file a link leads to is the one replaced; the link stays. A dangling one fails.
        const std::unique_ptr<char, decltype(&std::free)> resolved(
            ::realpath(filePath.c_str(), nullptr), &std::free);
        if (!resolved) {
            return false;
        }
        filePath = resolved.get();
        result = statusOfItem(filePath, false, &existing);
    }
    const bool replacing = result == 0;
    if ((!replacing && result != ENOENT) || (replacing && existing.isDirectory())) {
        return false;
    }
    // The new contents go to a file of their own, renamed over the old one only once complete:
    // running out of space or quota halfway must not cost the old contents.
    std::string temporaryPath;
    int fd = -1;
    do {
        if (temporarySibling(parentPath(filePath), &temporaryPath) != 0) {
            return false;
        }
        fd = ::open(temporaryPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EEXIST);
    if (fd < 0) {
        return false;
    }
    result = writeAll(fd, contents);
    if (result == 0 && replacing) {
        // What the old file had: its owner and group where we may give them (EPERM: the file
        // becomes ours), then its permissions, since a change of owner clears set-ID bits.
        if (::fchown(fd, existing.owner, existing.group) != 0 && errno != EPERM) {
            result = errno;
        } else if (::fchmod(fd, existing.mode & 07777) != 0) {
            result = errno;
        }
    }
    if (result == 0 && ::fdatasync(fd) != 0) {
        result = errno;  // Renamed unsynced, a crash could leave an empty file in its place.
    }
    if (::close(fd) != 0 && result == 0 && errno != EINTR) {
        result = errno;
    }
    if (result == 0) {
        result = changes.applyTo(temporaryPath);
    }
    if (result == 0 && ::rename(temporaryPath.c_str(), filePath.c_str()) != 0) {
        result = errno;
    }
    if (result != 0) {
        ::unlink(temporaryPath.c_str());
    }
    return result == 0;
}

bool PosixFileManager::moveItemAtURL(const URL& url, const URL& toURL, Error* error) {
    ItemStatus status;
    if (const int result = statusOfItem(url.path(), false, &status); result != 0) {
        setError(error, fileError(result, FileAccess::Writing, url.path(), &url));
        return false;
    }
    const int result = renameWithoutReplacing(url.path(), toURL.path());
    if (result == 0) {
        return true;
    }
    if (result != EXDEV) {
        // The source was just there, so the destination side is the likelier culprit.
        setError(error, fileError(result, FileAccess::Writing, toURL.path(), &toURL));
        return false;
    }
    std::vector<CopiedItem> copied;
    if (!copyItemTree(url, toURL, nullptr, error, &copied)) {
        return false;
    }
    // Only what was copied: what a writer added to the source or changed in it meanwhile stays
    // there, with the directories holding it, and the move fails.
    return removeCopiedItems(url.path(), copied, CopySide::Source, error);
}

bool PosixFileManager::copyItemAtURL(const URL& url, const URL& toURL, Error* error) {
    const std::shared_ptr<FileManagerDelegate> delegate = this->delegate();
    return copyItemTree(url, toURL, delegate.get(), error);
}

bool PosixFileManager::removeItemAtURL(const URL& url, Error* error) {
    const std::shared_ptr<FileManagerDelegate> delegate = this->delegate();
    return removeItemTree(url, delegate.get(), error);
}

bool PosixFileManager::replaceItemAtURL(const URL& originalItemURL, const URL& withItemAtURL,
                                        std::string_view backupItemName,
                                        ItemReplacementOptions options, URL* resultingItemURL,
                                        Error* error) {
    const std::string& originalPath = originalItemURL.path();
    const std::string& replacementPath = withItemAtURL.path();
    ItemStatus replacement;
    if (const int result = statusOfItem(replacementPath, false, &replacement); result != 0) {
        setError(error, fileError(result, FileAccess::Writing, replacementPath, &withItemAtURL));
        return false;
    }
    ItemStatus original;
    if (const int result = statusOfItem(originalPath, false, &original); result != 0) {
        if (result != ENOENT) {
            setError(error, fileError(result, FileAccess::Writing, originalPath, &originalItemURL));
            return false;
        }
        if (!moveItemAtURL(withItemAtURL, originalItemURL, error)) {
            return false;
        }
        if (resultingItemURL != nullptr) {
            *resultingItemURL = originalItemURL;
        }
        return true;
    }
    if (original.device == replacement.device && original.inode == replacement.inode) {
        // Swapping an item with itself and then deleting "the replacement" would lose it.
        setError(error, fileError(EINVAL, FileAccess::Writing, replacementPath, &withItemAtURL));
        return false;
    }

    const std::string directory = parentPath(originalPath);
    const bool keepBackup =
        (options & NSFileManagerItemReplacementWithoutDeletingBackupItem) != 0 &&
        !backupItemName.empty();
    std::string backupPath;
    if (keepBackup) {
        if (backupItemName.find('/') != std::string_view::npos || backupItemName == "." ||
            backupItemName == ".." || backupItemName == lastComponent(originalPath)) {
            setError(error,
                     invalidRequestError(FileAccess::Writing, originalPath,
                                         fmt::format("\"{}\" cannot name the backup of \"{}\".",
                                                     backupItemName, originalPath)));
            return false;
        }
        backupPath = joinPath(directory, backupItemName);
        ItemStatus existing;
        if (backupPath != replacementPath && statusOfItem(backupPath, false, &existing) == 0 &&
            !removeItemTree(URL::fileURLWithPath(backupPath, existing.isDirectory()), nullptr,
                            error)) {
            return false;
        }
    }

    // An atomic swap needs both items on one file system: when they are not, the replacement is
    // first copied next to the original ("staged").
    ItemStatus directoryStatus;
    bool staging = statusOfItem(directory, true, &directoryStatus) == 0 &&
                   directoryStatus.device != replacement.device;
    std::string stagedPath = replacementPath;
    std::vector<CopiedItem> staged;  // What staging copied.
    std::string previousPath;        // Where the original ends up once the replacement is in place.
    auto failed = [&](int result) {
        setError(error, fileError(result, FileAccess::Writing, originalPath, &originalItemURL));
        return false;
    };
    for (;;) {
        if (staging && stagedPath == replacementPath) {
            if (const int result = temporarySibling(directory, &stagedPath); result != 0) {
                return failed(result);
            }
            if (!copyItemTree(withItemAtURL, URL::fileURLWithPath(stagedPath, false), nullptr,
                              error, &staged)) {
                return false;
            }
        }
        int result = 0;
        if (::renameat2(AT_FDCWD, stagedPath.c_str(), AT_FDCWD, originalPath.c_str(),
                        RENAME_EXCHANGE) == 0) {
            previousPath = stagedPath;
        } else if (renameFlagUnsupported(errno)) {
            // No atomic swap here: for a moment nothing is at the original's place.
            if (keepBackup && backupPath != replacementPath) {
                previousPath = backupPath;
            } else {
                result = temporarySibling(directory, &previousPath);
            }
            if (result == 0 && ::rename(originalPath.c_str(), previousPath.c_str()) != 0) {
                result = errno;
            } else if (result == 0 && ::rename(stagedPath.c_str(), originalPath.c_str()) != 0) {
                result = errno;
                ::rename(previousPath.c_str(), originalPath.c_str());
            }
        } else {
            result = errno;
        }
        if (result == 0) {
            break;
        }
        if (stagedPath != replacementPath) {
            removeCopiedItems(stagedPath, staged, CopySide::Copy, nullptr);
        } else if (result == EXDEV) {
            staging = true;  // Same device number, different mounts.
            continue;
        }
        return failed(result);
    }

    // Permissions mean something else on another type of item: a file's 0644 would lock a
    // directory, a directory's 0700 would make a file executable.
    if ((options & NSFileManagerItemReplacementUsingNewMetadataOnly) == 0 &&
        !original.isSymbolicLink() && (original.mode & S_IFMT) == (replacement.mode & S_IFMT)) {
        ::chmod(originalPath.c_str(), original.mode & 07777);
    }
    if (stagedPath != replacementPath) {
        // The replacement is consumed even when it had to be copied over, as far as it was: what
        // a writer added to it meanwhile is not in place and must not be lost.
        if (Error removalError;
            !removeCopiedItems(replacementPath, staged, CopySide::Source, &removalError)) {
            Logger::named("iCloud").warn("The replacement of {} is partly left at {}: {}",
                                         originalPath, replacementPath, removalError);
        }
    }
    if (keepBackup) {
        if (previousPath != backupPath && ::rename(previousPath.c_str(), backupPath.c_str()) != 0) {
            setError(error, fileError(errno, FileAccess::Writing, backupPath));
            Logger::named("iCloud").error("The original of {} is left at {}.", originalPath,
                                          previousPath);
            return false;
        }
    } else {
        Error removalError;
        if (!removeItemTree(URL::fileURLWithPath(previousPath, original.isDirectory()), nullptr,
                            &removalError)) {
            Logger::named("iCloud").warn("The original of {} could not be removed from {}: {}",
                                         originalPath, previousPath, removalError);
        }
    }
    if (resultingItemURL != nullptr) {
        *resultingItemURL = originalItemURL;
    }
    return true;
}

std::optional<std::vector<std::string>> PosixFileManager::contentsOfDirectoryAtPath(
    std::string_view path, Error* error) {
    const std::string directory(path);
    std::vector<std::string> names;
    if (const int result = listDirectory(directory, true, &names); result != 0) {
        setError(error, listingError(result, directory));
        return std::nullopt;
    }
    return names;
}

std::optional<std::vector<std::string>> PosixFileManager::subpathsOfDirectoryAtPath(
    std::string_view path, Error* error) {
    const std::string directory(path);
    int result = 0;
    const auto enumerator = PosixDirectoryEnumerator::forPath(directory, &result);
    if (!enumerator) {
        setError(error, listingError(result, directory));
        return std::nullopt;
    }
    std::vector<std::string> subpaths;
    for (Value item = enumerator->nextObject(); !item.isNull(); item = enumerator->nextObject()) {
        subpaths.push_back(*item.stringValue());
    }
    return subpaths;
}

std::unique_ptr<DirectoryEnumerator> PosixFileManager::enumeratorAtPath(std::string_view path) {
    int result = 0;
    return PosixDirectoryEnumerator::forPath(std::string(path), &result);
}

std::unique_ptr<DirectoryEnumerator> PosixFileManager::enumeratorAtURL(
    const URL& url, const std::vector<std::string>& /*includingPropertiesForKeys*/,
    DirectoryEnumerationOptions options, EnumerationErrorHandler errorHandler) {
    return PosixDirectoryEnumerator::forURL(url, options, std::move(errorHandler));
}

// The ubiquity calls are answered by the process's ubiquity service.

std::optional<UbiquityIdentityToken> PosixFileManager::ubiquityIdentityToken() {
    return UbiquityService::current()->identityToken();
}

std::optional<URL> PosixFileManager::URLForUbiquityContainerIdentifier(
    std::string_view containerIdentifier) {
    return UbiquityService::current()->containerURL(containerIdentifier);
}

bool PosixFileManager::startDownloadingUbiquitousItemAtURL(const URL& url, Error* error) {
    return UbiquityService::current()->startDownloading(url, error);
}

bool PosixFileManager::evictUbiquitousItemAtURL(const URL& url, Error* error) {
    return UbiquityService::current()->evict(url, error);
}

}  // namespace qn
