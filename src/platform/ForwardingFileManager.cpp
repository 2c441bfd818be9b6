#include "qn/ForwardingFileManager.h"

#include <utility>

#include "qn/Exception.h"

namespace qn {
namespace {

std::shared_ptr<FileManager> checkedTarget(std::shared_ptr<FileManager> target) {
    if (!target) {
        throw InternalInconsistencyException("A forwarding file manager needs a target.");
    }
    return target;
}

}  // namespace

ForwardingFileManager::ForwardingFileManager(std::shared_ptr<FileManager> target)
    : target_(checkedTarget(std::move(target))) {}

std::shared_ptr<FileManager> ForwardingFileManager::makePrivateManager() {
    return target_->makePrivateManager();
}

void ForwardingFileManager::setDelegate(std::shared_ptr<FileManagerDelegate> delegate) {
    target_->setDelegate(std::move(delegate));
}

std::shared_ptr<FileManagerDelegate> ForwardingFileManager::delegate() const {
    return target_->delegate();
}

bool ForwardingFileManager::fileExistsAtPath(std::string_view path, bool* isDirectory) {
    return target_->fileExistsAtPath(path, isDirectory);
}

std::optional<Dictionary> ForwardingFileManager::attributesOfItemAtPath(std::string_view path,
                                                                        Error* error) {
    return target_->attributesOfItemAtPath(path, error);
}

bool ForwardingFileManager::setAttributes(const Dictionary& attributes,
                                          std::string_view ofItemAtPath, Error* error) {
    return target_->setAttributes(attributes, ofItemAtPath, error);
}

bool ForwardingFileManager::loadAttributesOfItemAtPath(std::string_view path,
                                                       Dictionary* attributes,
                                                       Dictionary* linkDestinationAttributes,
                                                       Error* error) {
    return target_->loadAttributesOfItemAtPath(path, attributes, linkDestinationAttributes, error);
}

std::optional<Value> ForwardingFileManager::resourceValue(const URL& url, std::string_view key,
                                                          Error* error) {
    return target_->resourceValue(url, key, error);
}

bool ForwardingFileManager::contentsEqualAtPath(std::string_view path, std::string_view andPath) {
    return target_->contentsEqualAtPath(path, andPath);
}

bool ForwardingFileManager::createDirectoryAtURL(const URL& url, bool withIntermediateDirectories,
                                                 const Dictionary* attributes, Error* error) {
    return target_->createDirectoryAtURL(url, withIntermediateDirectories, attributes, error);
}

bool ForwardingFileManager::createFileAtPath(std::string_view path, std::string_view contents,
                                             const Dictionary* attributes) {
    return target_->createFileAtPath(path, contents, attributes);
}

bool ForwardingFileManager::moveItemAtURL(const URL& url, const URL& toURL, Error* error) {
    return target_->moveItemAtURL(url, toURL, error);
}

bool ForwardingFileManager::copyItemAtURL(const URL& url, const URL& toURL, Error* error) {
    return target_->copyItemAtURL(url, toURL, error);
}

bool ForwardingFileManager::removeItemAtURL(const URL& url, Error* error) {
    return target_->removeItemAtURL(url, error);
}

bool ForwardingFileManager::replaceItemAtURL(const URL& originalItemURL, const URL& withItemAtURL,
                                             std::string_view backupItemName,
                                             ItemReplacementOptions options, URL* resultingItemURL,
                                             Error* error) {
    return target_->replaceItemAtURL(originalItemURL, withItemAtURL, backupItemName, options,
                                     resultingItemURL, error);
}

std::optional<std::vector<std::string>> ForwardingFileManager::contentsOfDirectoryAtPath(
    std::string_view path, Error* error) {
    return target_->contentsOfDirectoryAtPath(path, error);
}

std::optional<std::vector<std::string>> ForwardingFileManager::subpathsOfDirectoryAtPath(
    std::string_view path, Error* error) {
    return target_->subpathsOfDirectoryAtPath(path, error);
}

std::unique_ptr<DirectoryEnumerator> ForwardingFileManager::enumeratorAtPath(
    std::string_view path) {
    return target_->enumeratorAtPath(path);
}

std::unique_ptr<DirectoryEnumerator> ForwardingFileManager::enumeratorAtURL(
    const URL& url, const std::vector<std::string>& includingPropertiesForKeys,
    DirectoryEnumerationOptions options, EnumerationErrorHandler errorHandler) {
    return target_->enumeratorAtURL(url, includingPropertiesForKeys, options,
                                    std::move(errorHandler));
}

std::optional<UbiquityIdentityToken> ForwardingFileManager::ubiquityIdentityToken() {
    return target_->ubiquityIdentityToken();
}

std::optional<URL> ForwardingFileManager::URLForUbiquityContainerIdentifier(
    std::string_view containerIdentifier) {
    return target_->URLForUbiquityContainerIdentifier(containerIdentifier);
}

bool ForwardingFileManager::startDownloadingUbiquitousItemAtURL(const URL& url, Error* error) {
    return target_->startDownloadingUbiquitousItemAtURL(url, error);
}

bool ForwardingFileManager::evictUbiquitousItemAtURL(const URL& url, Error* error) {
    return target_->evictUbiquitousItemAtURL(url, error);
}

}  // namespace qn
