#include "qn/FileVersion.h"

#include <fmt/core.h>
#include <unistd.h>

#include <atomic>
#include <utility>

#include "FileErrors.h"
#include "qn/FileAttributes.h"
#include "qn/FileManager.h"
#include "qn/UbiquityService.h"

namespace qn {
namespace {

Error unsupportedForCurrentVersion(const qn::URL& itemURL, std::string description) {
    return Error(NSCocoaErrorDomain, NSFeatureUnsupportedError,
                 {{NSLocalizedDescriptionKey, std::move(description)},
                  {NSFilePathErrorKey, itemURL.path()},
                  {NSURLErrorKey, itemURL}});
}

// A name next to `url` that no other call picks. Hidden, so that a copy interrupted half-way does
// not show up as a document; independent of the item's name, which may already be as long as a
// name can be.
qn::URL stagingURLNextTo(const qn::URL& url) {
    static std::atomic<unsigned> counter{0};
    return url.URLByDeletingLastPathComponent().URLByAppendingPathComponent(
        fmt::format(".version-replacement-{}-{}", ::getpid(), ++counter), url.hasDirectoryPath());
}

}  // namespace

FileVersion::FileVersion(Token, qn::URL itemURL, FileVersionRecord record, bool isCurrent)
    : itemURL_(std::move(itemURL)),
      record_(std::move(record)),
      isCurrent_(isCurrent),
      resolved_(isCurrent || record_.isResolved) {}

std::vector<std::shared_ptr<FileVersion>> FileVersion::otherVersionsOfItemAtURL(
    const qn::URL& url) {
    std::vector<std::shared_ptr<FileVersion>> versions;
    if (url.isEmpty()) {
        return versions;
    }
    for (FileVersionRecord& record : UbiquityService::current()->otherVersionsOfItem(url)) {
        versions.push_back(std::make_shared<FileVersion>(Token{}, url, std::move(record), false));
    }
    return versions;
}

std::vector<std::shared_ptr<FileVersion>> FileVersion::unresolvedConflictVersionsOfItemAtURL(
    const qn::URL& url) {
    std::vector<std::shared_ptr<FileVersion>> versions = otherVersionsOfItemAtURL(url);
    std::erase_if(versions, [](const std::shared_ptr<FileVersion>& version) {
        return !version->isConflict() || version->isResolved();
    });
    return versions;
}

std::shared_ptr<FileVersion> FileVersion::currentVersionOfItemAtURL(const qn::URL& url) {
    if (url.isEmpty()) {
        return nullptr;
    }
    const std::optional<Dictionary> attributes =
        FileManager::defaultManager()->attributesOfItemAtPath(url.path());
    if (!attributes) {
        return nullptr;
    }
    FileVersionRecord record;
    record.url = url;
    if (const Value* date = attributes->find(NSFileModificationDate);
        date != nullptr && date->dateValue() != nullptr) {
        record.modificationDate = *date->dateValue();
    }
    return std::make_shared<FileVersion>(Token{}, url, std::move(record), true);
}

std::vector<std::shared_ptr<FileVersion>> FileVersion::allVersionsOfItemAtURL(const qn::URL& url) {
    std::vector<std::shared_ptr<FileVersion>> versions;
    if (std::shared_ptr<FileVersion> current = currentVersionOfItemAtURL(url)) {
        versions.push_back(std::move(current));
    }
    for (std::shared_ptr<FileVersion>& other : otherVersionsOfItemAtURL(url)) {
        versions.push_back(std::move(other));
    }
    return versions;
}

std::shared_ptr<FileVersion> FileVersion::latestVersionOfItemAtURL(const qn::URL& url) {
    std::shared_ptr<FileVersion> latest;
    // Strictly later only: the current version comes first, so it keeps a tie.
    for (std::shared_ptr<FileVersion>& version : allVersionsOfItemAtURL(url)) {
        if (!latest || version->modificationDate() > latest->modificationDate()) {
            latest = std::move(version);
        }
    }
    return latest;
}

bool FileVersion::setResolved(bool resolved, Error* error) {
    if (isCurrent_) {
        setError(error, unsupportedForCurrentVersion(
                            itemURL_, fmt::format("The current version of “{}” is never in "
                                                  "conflict, so it cannot be marked resolved.",
                                                  itemURL_.lastPathComponent())));
        return false;
    }
    if (!UbiquityService::current()->setVersionResolved(itemURL_, record_.identifier, resolved,
                                                        error)) {
        return false;
    }
    resolved_.store(resolved, std::memory_order_release);
    return true;
}

bool FileVersion::removeAndReturnError(Error* error) {
    if (isCurrent_) {
        setError(error,
                 unsupportedForCurrentVersion(
                     itemURL_, fmt::format("The current version of “{}” is the document itself "
                                           "and cannot be removed as a version.",
                                           itemURL_.lastPathComponent())));
        return false;
    }
    return UbiquityService::current()->removeVersion(itemURL_, record_.identifier, error);
}

std::optional<qn::URL> FileVersion::replaceItemAtURL(const qn::URL& url, Error* error) {
    if (url.isEmpty()) {
        setError(error, invalidRequestError(FileAccess::Writing, url.path(),
                                            "No item to replace with a version was given."));
        return std::nullopt;
    }
    if (isCurrent_ &&
        url.URLByStandardizingPath().path() == record_.url.URLByStandardizingPath().path()) {
        return url;
    }
    const std::shared_ptr<FileManager> fileManager = FileManager::defaultManager();
    // Staged next to the item, so that the swap stays on one file system. A name that is taken
    // belongs to someone else: try another rather than remove it.
    qn::URL staged;
    Error copyError;
    bool copied = false;
    for (int attempt = 0; attempt < 8 && !copied; ++attempt) {
        staged = stagingURLNextTo(url);
        copyError = Error();
        copied = fileManager->copyItemAtURL(record_.url, staged, &copyError);
        if (!copied && copyError.code() != NSFileWriteFileExistsError) {
            // A copy that failed half-way may have left part of itself behind.
            fileManager->removeItemAtURL(staged);
            break;
        }
    }
    if (!copied) {
        setError(error, std::move(copyError));
        return std::nullopt;
    }
    qn::URL resultingURL;
    if (!fileManager->replaceItemAtURL(url, staged, "", 0, &resultingURL, error)) {
        fileManager->removeItemAtURL(staged);
        return std::nullopt;
    }
    return resultingURL;
}

bool FileVersion::isEqual(const FileVersion& other) const {
    return this == &other ||
           (isCurrent_ == other.isCurrent_ && record_.identifier == other.record_.identifier &&
            itemURL_.URLByStandardizingPath().path() ==
                other.itemURL_.URLByStandardizingPath().path());
}

}  // namespace qn
