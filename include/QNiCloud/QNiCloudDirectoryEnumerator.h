#pragma once

// Lists the items below one cache entry the way the platform's directory enumerator lists a
// directory on disk, reading only the cache tree.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "QNiCloud/QNiCloudCacheEntry.h"
#include "qn/DirectoryEnumerator.h"
#include "qn/FileAttributes.h"

/// One relative path per `nextObject()` (a string Value, or null when the listing is over), no
/// leading separator: a child of the root entry gives its name, a grandchild "child/name".
///
/// Order: breadth-first by sibling list, like the cache's walks: the root's children in the
/// tree's order (newest first), then the children of the first of them that has children, and
/// so on. The queue holds entries still to be returned, each standing for itself and the
/// siblings after it.
///
/// Options (qn::NSDirectoryEnumeration...): 1 lists the root's direct children only; 2 does not
/// descend into an entry whose name's extension is a package extension (QNIsPackageFileExtension);
/// 4 leaves out entries whose name begins with "." (and so a hidden directory's contents).
/// `skipDescendants()` right after `nextObject()` keeps the returned entry's children out.
/// `fileAttributes`, `directoryAttributes` and `level` are not supported: they throw
/// qn::InternalInconsistencyException("Method is not implemented.").
///
/// Ownership: holds the root entry and the queued entries strongly, so a listing may outlive the
/// cache's hold on them. Threads: no lock; it reads live cache entries unlocked, and keeping the
/// tree unchanged while a listing runs is the caller's business (the presenter's cache lock).
class QNiCloudDirectoryEnumerator : public qn::DirectoryEnumerator {
public:
    using EntryPointer = std::shared_ptr<QNiCloudCacheEntry>;

    QNiCloudDirectoryEnumerator() = delete;
    /// Lists the descendants of `rootEntry` (nothing for none) with the option bits `options`.
    QNiCloudDirectoryEnumerator(EntryPointer rootEntry, qn::DirectoryEnumerationOptions options);
    QNiCloudDirectoryEnumerator(const QNiCloudDirectoryEnumerator&) = delete;
    QNiCloudDirectoryEnumerator& operator=(const QNiCloudDirectoryEnumerator&) = delete;

    qn::Value nextObject() override;
    void skipDescendants() override;
    [[noreturn]] std::optional<qn::Dictionary> fileAttributes() override;
    [[noreturn]] std::optional<qn::Dictionary> directoryAttributes() override;
    [[noreturn]] std::size_t level() override;

    /// The entry's path relative to the root entry: the names from the entry up to (not
    /// including) the root entry, joined by "/"; "" for the root entry itself. An entry that is
    /// not below the root gets every name up to the top of its chain.
    std::string relativePathForEntry(const EntryPointer& entry) const;
    /// `startEntry` itself, or with option 4 the first entry from it along `next` whose name does
    /// not begin with "."; null when there is none.
    EntryPointer firstAcceptableEntryForStartEntry(const EntryPointer& startEntry) const;

    qn::DirectoryEnumerationOptions options() const noexcept { return options_; }
    bool skipsSubdirectoryDescendants() const noexcept {
        return (options_ & qn::NSDirectoryEnumerationSkipsSubdirectoryDescendants) != 0;
    }
    bool skipsPackageDescendants() const noexcept {
        return (options_ & qn::NSDirectoryEnumerationSkipsPackageDescendants) != 0;
    }
    bool skipsHiddenFiles() const noexcept {
        return (options_ & qn::NSDirectoryEnumerationSkipsHiddenFiles) != 0;
    }
    const EntryPointer& rootEntry() const noexcept { return rootEntry_; }
    void setRootEntry(EntryPointer rootEntry) noexcept { rootEntry_ = std::move(rootEntry); }
    const std::deque<EntryPointer>& queue() const noexcept { return queue_; }
    void setQueue(std::deque<EntryPointer> queue) noexcept { queue_ = std::move(queue); }
    const EntryPointer& mostRecentlyReturnedEntry() const noexcept {
        return mostRecentlyReturnedEntry_;
    }
    void setMostRecentlyReturnedEntry(EntryPointer entry) noexcept {
        mostRecentlyReturnedEntry_ = std::move(entry);
    }
    /// Nothing before the first path is returned.
    const std::optional<std::string>& mostRecentlyReturnedEntryRelativePath() const noexcept {
        return mostRecentlyReturnedEntryRelativePath_;
    }
    void setMostRecentlyReturnedEntryRelativePath(std::optional<std::string> path) noexcept {
        mostRecentlyReturnedEntryRelativePath_ = std::move(path);
    }

private:
    qn::DirectoryEnumerationOptions options_;
    EntryPointer rootEntry_;
    std::deque<EntryPointer> queue_;
    EntryPointer mostRecentlyReturnedEntry_;
    std::optional<std::string> mostRecentlyReturnedEntryRelativePath_;
};
