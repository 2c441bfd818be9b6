#include "PosixDirectoryEnumerator.h"

#include <utility>

#include "FileErrors.h"
#include "ItemAttributes.h"
#include "qn/util/Packages.h"

namespace qn {

PosixDirectoryEnumerator::PosixDirectoryEnumerator(std::string root, bool yieldsURLs,
                                                   DirectoryEnumerationOptions options,
                                                   FileManager::EnumerationErrorHandler handler)
    : root_(std::move(root)),
      yieldsURLs_(yieldsURLs),
      options_(options),
      errorHandler_(std::move(handler)) {}

std::unique_ptr<PosixDirectoryEnumerator> PosixDirectoryEnumerator::forPath(const std::string& path,
                                                                            int* errnoValue) {
    std::unique_ptr<PosixDirectoryEnumerator> enumerator(
        new PosixDirectoryEnumerator(path, false, 0, nullptr));
    if (const int result = enumerator->enter(""); result != 0) {
        *errnoValue = result;
        return nullptr;
    }
    *errnoValue = 0;
    return enumerator;
}

std::unique_ptr<PosixDirectoryEnumerator> PosixDirectoryEnumerator::forURL(
    const URL& url, DirectoryEnumerationOptions options,
    FileManager::EnumerationErrorHandler errorHandler) {
    std::unique_ptr<PosixDirectoryEnumerator> enumerator(
        new PosixDirectoryEnumerator(url.path(), true, options, std::move(errorHandler)));
    enumerator->rootError_ = enumerator->enter("");
    return enumerator;
}

int PosixDirectoryEnumerator::enter(const std::string& relativePath) {
    const bool isRoot = relativePath.empty();
    Frame frame;
    // The root may be reached through a symbolic link; below it, links are items, not places.
    if (const int result = listDirectory(fullPath(relativePath), isRoot, &frame.names);
        result != 0) {
        return result;
    }
    if (isRoot) {
        ItemStatus status;
        if (statusOfItem(root_, true, &status) == 0) {
            rootStatus_ = status;
        }
    }
    frame.relativePath = relativePath;
    stack_.push_back(std::move(frame));
    return 0;
}

std::string PosixDirectoryEnumerator::fullPath(const std::string& relativePath) const {
    return relativePath.empty() ? root_ : joinPath(root_, relativePath);
}

bool PosixDirectoryEnumerator::reportUnreadable(const std::string& relativePath, int errnoValue) {
    if (!yieldsURLs_ || !errorHandler_) {
        return true;
    }
    const std::string path = fullPath(relativePath);
    const URL url = URL::fileURLWithPath(path, true);
    return errorHandler_(url, fileError(errnoValue, FileAccess::Reading, path, &url));
}

Value PosixDirectoryEnumerator::nextObject() {
    if (finished_) {
        return Value();
    }
    if (rootError_ != 0) {
        finished_ = true;
        reportUnreadable("", rootError_);
        return Value();
    }
    if (descendIntoCurrent_) {
        descendIntoCurrent_ = false;
        if (const int result = enter(currentPath_);
            result != 0 && !reportUnreadable(currentPath_, result)) {
            finished_ = true;
            currentStatus_.reset();
            return Value();
        }
    }
    for (;;) {
        while (!stack_.empty() && stack_.back().next == stack_.back().names.size()) {
            stack_.pop_back();
        }
        if (stack_.empty()) {
            finished_ = true;
            currentStatus_.reset();
            return Value();
        }
        Frame& frame = stack_.back();
        const std::string& name = frame.names[frame.next++];
        if ((options_ & NSDirectoryEnumerationSkipsHiddenFiles) != 0 && name.starts_with('.')) {
            continue;
        }
        std::string relativePath =
            frame.relativePath.empty() ? name : joinPath(frame.relativePath, name);
        const std::string path = fullPath(relativePath);
        ItemStatus status;
        if (statusOfItem(path, false, &status) != 0) {
            continue;  // Gone since the listing.
        }
        const bool isDirectory = status.isDirectory();
        const std::size_t level = stack_.size();
        bool descend = isDirectory;
        if ((options_ & NSDirectoryEnumerationSkipsSubdirectoryDescendants) != 0) {
            descend = false;
        }
        if ((options_ & NSDirectoryEnumerationSkipsPackageDescendants) != 0 && isDirectory &&
            QNIsPackageFileExtension(URL::fileURLWithPath(path, true).pathExtension())) {
            descend = false;
        }
        currentPath_ = std::move(relativePath);
        currentStatus_ = status;
        currentLevel_ = level;
        descendIntoCurrent_ = descend;
        if (yieldsURLs_) {
            return Value(URL::fileURLWithPath(path, isDirectory));
        }
        return Value(currentPath_);
    }
}

void PosixDirectoryEnumerator::skipDescendants() {
    descendIntoCurrent_ = false;
}

std::optional<Dictionary> PosixDirectoryEnumerator::fileAttributes() {
    if (!currentStatus_) {
        return std::nullopt;
    }
    return attributesFromStatus(*currentStatus_);
}

std::optional<Dictionary> PosixDirectoryEnumerator::directoryAttributes() {
    if (!rootStatus_) {
        return std::nullopt;
    }
    return attributesFromStatus(*rootStatus_);
}

std::size_t PosixDirectoryEnumerator::level() {
    return currentLevel_;
}

}  // namespace qn
