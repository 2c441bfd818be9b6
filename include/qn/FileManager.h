#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qn/Dictionary.h"
#include "qn/DirectoryEnumerator.h"
#include "qn/Error.h"
#include "qn/FileAttributes.h"
#include "qn/FileManagerDelegate.h"
#include "qn/URL.h"
#include "qn/UbiquityIdentityToken.h"

namespace qn {

/// Every file-system operation the library performs, shaped like the platform's file manager.
/// The real implementation is `PosixFileManager`; `ForwardingFileManager` passes every call to
/// another manager so that a test can override one call to inject a fault.
///
/// Failures return false / nullopt / null and fill the optional `Error*` with a Cocoa-domain
/// error (260 no such file to read, 4 no such file, 257 / 513 no permission to read / write,
/// 516 file exists, 640 out of space, ...) carrying the path under `NSFilePathErrorKey` and the
/// POSIX error under `NSUnderlyingErrorKey`.
///
/// A manager may be used from any thread; a delegate, when set, is called on the thread that
/// runs the copy or removal. The default manager is shared; operations that need a delegate use
/// a private manager (`makePrivateManager`).
class FileManager {
public:
    /// Called for an item the URL enumerator cannot read; answer true to go on.
    using EnumerationErrorHandler = std::function<bool(const URL& url, const Error& error)>;

    virtual ~FileManager() = default;

    /// The process-wide manager (a `PosixFileManager` unless replaced). Any thread.
    static std::shared_ptr<FileManager> defaultManager();
    /// Replaces the process-wide manager, for tests that inject faults; null restores the real
    /// one. Callers that already hold the previous manager keep using it.
    static void setDefaultManager(std::shared_ptr<FileManager> manager);

    /// A new manager of the same kind with no delegate, for an operation that sets its own.
    virtual std::shared_ptr<FileManager> makePrivateManager() = 0;

    virtual void setDelegate(std::shared_ptr<FileManagerDelegate> delegate) = 0;
    virtual std::shared_ptr<FileManagerDelegate> delegate() const = 0;

    // Existence, attributes and resource values.

    /// True when an item exists at `path` (following a final symbolic link); `isDirectory`
    /// tells whether it is a directory.
    virtual bool fileExistsAtPath(std::string_view path, bool* isDirectory = nullptr) = 0;
    /// The item's attributes (a final symbolic link is not followed), keys of FileAttributes.h.
    virtual std::optional<Dictionary> attributesOfItemAtPath(std::string_view path,
                                                             Error* error = nullptr) = 0;
    /// Applies the attributes it knows (permissions, modification date, owner and group IDs);
    /// other keys are ignored.
    virtual bool setAttributes(const Dictionary& attributes, std::string_view ofItemAtPath,
                               Error* error = nullptr) = 0;
    /// The attributes of the item at `path` into `attributes` and, when the item is a symbolic
    /// link and `linkDestinationAttributes` is given, those of its destination into it.
    virtual bool loadAttributesOfItemAtPath(std::string_view path, Dictionary* attributes,
                                            Dictionary* linkDestinationAttributes,
                                            Error* error = nullptr) = 0;
    /// One resource value of the item (NSURL...Key of FileAttributes.h). Missing item: nullopt
    /// and an error. A key the item has no value for: nullopt and no error.
    virtual std::optional<Value> resourceValue(const URL& url, std::string_view key,
                                               Error* error = nullptr) = 0;
    /// True when both items exist with the same type and contents (directories compared deeply).
    virtual bool contentsEqualAtPath(std::string_view path, std::string_view andPath) = 0;

    // Creation.

    virtual bool createDirectoryAtURL(const URL& url, bool withIntermediateDirectories,
                                      const Dictionary* attributes = nullptr,
                                      Error* error = nullptr) = 0;
    /// Creates the file at `path` with `contents`, replacing the contents of a file there; true
    /// on success.
    virtual bool createFileAtPath(std::string_view path, std::string_view contents,
                                  const Dictionary* attributes = nullptr) = 0;

    // Moving, copying, removing, replacing.

    /// Fails with 516 when the destination exists. Works across file systems.
    virtual bool moveItemAtURL(const URL& url, const URL& toURL, Error* error = nullptr) = 0;
    /// Recursive. Fails with 516 when the destination exists. Asks the delegate per item.
    virtual bool copyItemAtURL(const URL& url, const URL& toURL, Error* error = nullptr) = 0;
    /// Recursive. Asks the delegate per item; a directory that still holds a declined item stays
    /// and the removal still succeeds.
    virtual bool removeItemAtURL(const URL& url, Error* error = nullptr) = 0;
    /// Puts the replacement's contents in place of the original item, atomically where the file
    /// system allows; keeps a backup named `backupItemName` (if not empty) only with
    /// `NSFileManagerItemReplacementWithoutDeletingBackupItem`. `resultingItemURL` receives the
    /// URL of the item now in place.
    virtual bool replaceItemAtURL(const URL& originalItemURL, const URL& withItemAtURL,
                                  std::string_view backupItemName, ItemReplacementOptions options,
                                  URL* resultingItemURL, Error* error = nullptr) = 0;

    // Listing.

    /// Names of the directory's children, hidden ones included, in name order.
    virtual std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(
        std::string_view path, Error* error = nullptr) = 0;
    /// Relative paths of every item below the directory, in the order of `enumeratorAtPath`.
    virtual std::optional<std::vector<std::string>> subpathsOfDirectoryAtPath(
        std::string_view path, Error* error = nullptr) = 0;
    /// Depth-first walk yielding relative path strings, each directory's children in name
    /// order, packages' insides included, symbolic links not followed. Null when `path` is not a
    /// readable directory.
    virtual std::unique_ptr<DirectoryEnumerator> enumeratorAtPath(std::string_view path) = 0;
    /// The same walk yielding URLs (directories as directory URLs), with the
    /// NSDirectoryEnumeration... options. `keys` are accepted for compatibility; values are read
    /// on demand.
    virtual std::unique_ptr<DirectoryEnumerator> enumeratorAtURL(
        const URL& url, const std::vector<std::string>& includingPropertiesForKeys,
        DirectoryEnumerationOptions options, EnumerationErrorHandler errorHandler) = 0;

    // Ubiquity: answered by the ubiquity service.

    /// The signed-in account's identity, or nullopt with no account.
    virtual std::optional<UbiquityIdentityToken> ubiquityIdentityToken() = 0;
    /// Where the container lives locally, or nullopt. May block: never call on the main thread.
    virtual std::optional<URL> URLForUbiquityContainerIdentifier(
        std::string_view containerIdentifier) = 0;
    virtual bool startDownloadingUbiquitousItemAtURL(const URL& url, Error* error = nullptr) = 0;
    virtual bool evictUbiquitousItemAtURL(const URL& url, Error* error = nullptr) = 0;
};

}  // namespace qn
