#pragma once

// The file manager that works on the real file system through POSIX calls: what
// FileManager::defaultManager() returns unless a test replaced it. Create it with
// std::make_shared; every member may be called from any thread, also on one shared instance.
//
// Beyond the contracts of FileManager:
//   - Errors name the item the failing call worked on: NSFilePathErrorKey holds its path (for a
//     copy, the source item when reading failed, the destination item when writing failed; for
//     516, the item in the way), NSURLErrorKey its URL when the caller passed that URL.
//   - The delegate is read once when a copy or removal starts; changing it meanwhile affects
//     the next operation only.
//   - The ubiquity calls, and resource values of the ubiquitous keys, are answered by the
//     process's current UbiquityService.
//
// Locking: `delegateMutex_` guards `delegate_` and nothing else; no lock is held while the file
// system or a delegate is called.

#include <memory>
#include <mutex>

#include "qn/FileManager.h"

namespace qn {

class PosixFileManager final : public FileManager {
public:
    PosixFileManager() = default;

    std::shared_ptr<FileManager> makePrivateManager() override;
    void setDelegate(std::shared_ptr<FileManagerDelegate> delegate) override;
    std::shared_ptr<FileManagerDelegate> delegate() const override;

    /// A final symbolic link is followed. `isDirectory` is set to false when nothing exists.
    bool fileExistsAtPath(std::string_view path, bool* isDirectory = nullptr) override;
    std::optional<Dictionary> attributesOfItemAtPath(std::string_view path,
                                                     Error* error = nullptr) override;
    /// Owner and group IDs (chown), NSFilePosixPermissions (chmod) and NSFileModificationDate
    /// (the access time is kept), in that order, following a final symbolic link. Every value is
    /// checked before anything changes: a value of the wrong type or out of range (permissions
    /// beyond 07777, a negative ID) fails with 512 and a description, and the item stays as it
    /// was.
    bool setAttributes(const Dictionary& attributes, std::string_view ofItemAtPath,
                       Error* error = nullptr) override;
    /// `attributes` must not be null (that fails with 256). `linkDestinationAttributes`, when
    /// given, is cleared unless the item is a symbolic link whose destination can be read; a
    /// dangling link therefore succeeds with the link's own attributes. On failure both
    /// dictionaries are cleared.
    bool loadAttributesOfItemAtPath(std::string_view path, Dictionary* attributes,
                                    Dictionary* linkDestinationAttributes,
                                    Error* error = nullptr) override;
    /// Of the item itself (a final symbolic link is not followed). NSURLFileSizeKey only for
    /// regular files; unknown keys have no value. The NSURLUbiquitousItem... keys are asked of
    /// the ubiquity service, whether or not the item is on the local disk.
    std::optional<Value> resourceValue(const URL& url, std::string_view key,
                                       Error* error = nullptr) override;
    /// Symbolic links are compared by the text they hold, not followed.
    bool contentsEqualAtPath(std::string_view path, std::string_view andPath) override;

    /// Without intermediates an existing item fails with 516; with them an existing directory
    /// (also through a symbolic link) succeeds and is left as it is. `attributes` are applied
    /// to every directory this call creates.
    bool createDirectoryAtURL(const URL& url, bool withIntermediateDirectories,
                              const Dictionary* attributes = nullptr,
                              Error* error = nullptr) override;
    /// Writes a hidden file next to the destination (so its directory must be writable) and
    /// renames it into place once written and given its attributes: a failure (out of space, an
    /// attribute that cannot be applied) leaves any file at `path` as it was and nothing new. A
    /// replaced file's permissions (and, where the process may give them, its owner and group)
    /// carry over, a new file gets 0644 (less the umask), unless `attributes` say otherwise. A
    /// symbolic link to a file is followed and stays; other hard links to the file keep the old
    /// contents. A directory, or a dangling link, at `path` fails.
    bool createFileAtPath(std::string_view path, std::string_view contents,
                          const Dictionary* attributes = nullptr) override;

    /// Renames without ever replacing (RENAME_NOREPLACE, so the check is atomic where the file
    /// system supports it). Across file systems: a copy, then removal of the source items that
    /// were copied, each only if still as copied; if that removal fails the call reports it and
    /// the complete copy stays at `toURL`. In particular an item another writer adds to the source
    /// (or changes in it) during the copy is not in the copy: it stays at the source, with the
    /// directories holding it, and the move fails with 512 naming the first item that stayed (a
    /// directory with ENOTEMPTY, a changed item with EBUSY underlying). Neither way consults the
    /// delegate. A missing source fails with 4.
    bool moveItemAtURL(const URL& url, const URL& toURL, Error* error = nullptr) override;
    /// Keeps permissions and dates, copies symbolic links as links. Fails with 260 for a missing
    /// source, 516 when `toURL` exists, and 512 (EINVAL) for a directory copied into itself. On
    /// failure nothing remains at `toURL`. The delegate is asked `shouldCopyItemAtURL(item,
    /// itsDestination)` for each item, each directory (as a directory URL) before its contents.
    bool copyItemAtURL(const URL& url, const URL& toURL, Error* error = nullptr) override;
    /// Never follows symbolic links. The delegate is asked about every item (each directory, as
    /// a directory URL, before its contents) before anything is removed; then the accepted items
    /// go, contents before their directory. A missing item fails with 4.
    bool removeItemAtURL(const URL& url, Error* error = nullptr) override;
    /// On one file system the original and the replacement swap places in one atomic rename
    /// (RENAME_EXCHANGE), so the original's path always holds a complete item; elsewhere the
    /// replacement is first copied next to the original. The replacement no longer exists at its
    /// old place afterwards, except what a writer added to it (or changed in it) while it was
    /// being copied, which was not copied and stays there. Unless
    /// NSFileManagerItemReplacementUsingNewMetadataOnly is given, a result of the original's
    /// type keeps the original's permissions. A missing original makes this a move of the
    /// replacement into place; a missing replacement fails with 4. An item already at the
    /// backup's place is removed first.
    bool replaceItemAtURL(const URL& originalItemURL, const URL& withItemAtURL,
                          std::string_view backupItemName, ItemReplacementOptions options,
                          URL* resultingItemURL, Error* error = nullptr) override;

    /// Follows a final symbolic link. A path naming something other than a directory fails with
    /// 256 (ENOTDIR underlying); one that does not exist (also because a component is not a
    /// directory) with 260.
    std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(
        std::string_view path, Error* error = nullptr) override;
    /// Fails as contentsOfDirectoryAtPath for the directory itself; unreadable subdirectories
    /// below it are left out.
    std::optional<std::vector<std::string>> subpathsOfDirectoryAtPath(
        std::string_view path, Error* error = nullptr) override;
    /// `fileAttributes()` are those of the item returned last (not following it),
    /// `directoryAttributes()` those of the directory walked. Unreadable subdirectories are
    /// skipped silently.
    std::unique_ptr<DirectoryEnumerator> enumeratorAtPath(std::string_view path) override;
    /// Never null: a root that cannot be listed goes to `errorHandler` on the first
    /// `nextObject()`, which then ends the walk. Hidden items are those whose name begins
    /// with ".".
    std::unique_ptr<DirectoryEnumerator> enumeratorAtURL(
        const URL& url, const std::vector<std::string>& includingPropertiesForKeys,
        DirectoryEnumerationOptions options, EnumerationErrorHandler errorHandler) override;

    std::optional<UbiquityIdentityToken> ubiquityIdentityToken() override;
    std::optional<URL> URLForUbiquityContainerIdentifier(
        std::string_view containerIdentifier) override;
    bool startDownloadingUbiquitousItemAtURL(const URL& url, Error* error = nullptr) override;
    bool evictUbiquitousItemAtURL(const URL& url, Error* error = nullptr) override;

private:
    mutable std::mutex delegateMutex_;
    std::shared_ptr<FileManagerDelegate> delegate_;
};

}  // namespace qn
