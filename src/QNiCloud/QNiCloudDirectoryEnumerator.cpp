#include "QNiCloud/QNiCloudDirectoryEnumerator.h"

#include <string_view>
#include <vector>

#include "qn/Exception.h"
#include "qn/PathString.h"
#include "qn/util/Packages.h"

QNiCloudDirectoryEnumerator::QNiCloudDirectoryEnumerator(EntryPointer rootEntry,
                                                         qn::DirectoryEnumerationOptions options)
    : options_(options), rootEntry_(std::move(rootEntry)) {
    if (rootEntry_ != nullptr && rootEntry_->firstChild() != nullptr) {
        if (EntryPointer first = firstAcceptableEntryForStartEntry(rootEntry_->firstChild())) {
            queue_.push_back(std::move(first));
        }
    }
}

QNiCloudDirectoryEnumerator::EntryPointer
QNiCloudDirectoryEnumerator::firstAcceptableEntryForStartEntry(
    const EntryPointer& startEntry) const {
    if (!skipsHiddenFiles()) {
        return startEntry;
    }
    for (EntryPointer entry = startEntry; entry != nullptr; entry = entry->next()) {
        if (!entry->name().starts_with('.')) {
            return entry;
        }
    }
    return nullptr;
}

std::string QNiCloudDirectoryEnumerator::relativePathForEntry(const EntryPointer& entry) const {
    std::vector<EntryPointer> chain;
    std::size_t length = 0;
    for (EntryPointer current = entry; current != nullptr && current != rootEntry_;
         current = current->parent()) {
        length += current->name().size() + 1;
        chain.push_back(current);
    }
    std::string path;
    path.reserve(length);
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        if (it != chain.rbegin()) {
            path += '/';
        }
        path += (*it)->name();
    }
    return path;
}

qn::Value QNiCloudDirectoryEnumerator::nextObject() {
    if (queue_.empty()) {
        return {};
    }
    EntryPointer entry = std::move(queue_.front());
    queue_.pop_front();
    std::string path = relativePathForEntry(entry);
    if (!skipsSubdirectoryDescendants()) {
        const bool isPackage =
            skipsPackageDescendants() && QNIsPackageFileExtension(qn::pathExtension(entry->name()));
        if (!isPackage) {
            if (EntryPointer child = firstAcceptableEntryForStartEntry(entry->firstChild())) {
                queue_.push_back(std::move(child));
            }
        }
    }
    if (EntryPointer next = firstAcceptableEntryForStartEntry(entry->next())) {
        queue_.push_front(std::move(next));
    }
    mostRecentlyReturnedEntry_ = std::move(entry);
    mostRecentlyReturnedEntryRelativePath_ = path;
    return qn::Value(std::move(path));
}

void QNiCloudDirectoryEnumerator::skipDescendants() {
    if (!queue_.empty() && queue_.back()->parent() == mostRecentlyReturnedEntry_) {
        queue_.pop_back();
    }
}

std::optional<qn::Dictionary> QNiCloudDirectoryEnumerator::fileAttributes() {
    throw qn::InternalInconsistencyException("Method is not implemented.");
}

std::optional<qn::Dictionary> QNiCloudDirectoryEnumerator::directoryAttributes() {
    throw qn::InternalInconsistencyException("Method is not implemented.");
}

std::size_t QNiCloudDirectoryEnumerator::level() {
    throw qn::InternalInconsistencyException("Method is not implemented.");
}
