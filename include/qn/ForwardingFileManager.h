#pragma once

// A file manager that passes every call on to another one. Tests derive from it and override the
// one call they want to fail (a permission error, a full disk, ...), so that the code under test
// meets the fault while everything else still happens on the real disk:
//
//     class FullDisk final : public qn::ForwardingFileManager {
//     public:
//         using ForwardingFileManager::ForwardingFileManager;
//         bool createFileAtPath(std::string_view, std::string_view,
//                               const qn::Dictionary*) override {
//             return false;  // as if the disk were full
//         }
//     };
//     auto real = qn::FileManager::defaultManager();
//     qn::FileManager::setDefaultManager(std::make_shared<FullDisk>(real));
//     ...
//     qn::FileManager::setDefaultManager(nullptr);  // the real one again
//
// Thread-safe as far as the target is: it holds no state of its own besides the target.

#include <memory>

#include "qn/FileManager.h"

namespace qn {

class ForwardingFileManager : public FileManager {
public:
    /// `target` must not be null (InternalInconsistencyException).
    explicit ForwardingFileManager(std::shared_ptr<FileManager> target);

    const std::shared_ptr<FileManager>& target() const { return target_; }

    /// The target's private manager: faults injected by an override do not reach it.
    std::shared_ptr<FileManager> makePrivateManager() override;
    /// The delegate is the target's.
    void setDelegate(std::shared_ptr<FileManagerDelegate> delegate) override;
    std::shared_ptr<FileManagerDelegate> delegate() const override;

    bool fileExistsAtPath(std::string_view path, bool* isDirectory = nullptr) override;
    std::optional<Dictionary> attributesOfItemAtPath(std::string_view path,
                                                     Error* error = nullptr) override;
    bool setAttributes(const Dictionary& attributes, std::string_view ofItemAtPath,
                       Error* error = nullptr) override;
    bool loadAttributesOfItemAtPath(std::string_view path, Dictionary* attributes,
                                    Dictionary* linkDestinationAttributes,
                                    Error* error = nullptr) override;
    std::optional<Value> resourceValue(const URL& url, std::string_view key,
                                       Error* error = nullptr) override;
    bool contentsEqualAtPath(std::string_view path, std::string_view andPath) override;

    bool createDirectoryAtURL(const URL& url, bool withIntermediateDirectories,
                              const Dictionary* attributes = nullptr,
                              Error* error = nullptr) override;
    bool createFileAtPath(std::string_view path, std::string_view contents,
                          const Dictionary* attributes = nullptr) override;

    bool moveItemAtURL(const URL& url, const URL& toURL, Error* error = nullptr) override;
    bool copyItemAtURL(const URL& url, const URL& toURL, Error* error = nullptr) override;
    bool removeItemAtURL(const URL& url, Error* error = nullptr) override;
    bool replaceItemAtURL(const URL& originalItemURL, const URL& withItemAtURL,
                          std::string_view backupItemName, ItemReplacementOptions options,
                          URL* resultingItemURL, Error* error = nullptr) override;

    std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(
        std::string_view path, Error* error = nullptr) override;
    std::optional<std::vector<std::string>> subpathsOfDirectoryAtPath(
        std::string_view path, Error* error = nullptr) override;
    std::unique_ptr<DirectoryEnumerator> enumeratorAtPath(std::string_view path) override;
    std::unique_ptr<DirectoryEnumerator> enumeratorAtURL(
        const URL& url, const std::vector<std::string>& includingPropertiesForKeys,
        DirectoryEnumerationOptions options, EnumerationErrorHandler errorHandler) override;

    std::optional<UbiquityIdentityToken> ubiquityIdentityToken() override;
    std::optional<URL> URLForUbiquityContainerIdentifier(
        std::string_view containerIdentifier) override;
    bool startDownloadingUbiquitousItemAtURL(const URL& url, Error* error = nullptr) override;
    bool evictUbiquitousItemAtURL(const URL& url, Error* error = nullptr) override;

private:
    const std::shared_ptr<FileManager> target_;
};

}  // namespace qn
