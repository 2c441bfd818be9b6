#pragma once

// The in-memory metadata cache: one QNiCloudCacheEntry per item below a cached directory (the
// presenter's Documents directory), linked as a tree and indexed by a hash of each item's
// relative path.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "QNiCloud/QNMutableHashtable.h"
#include "QNiCloud/QNiCloudCacheEntry.h"
#include "QNiCloud/QNiCloudMetadataItem.h"

/// The metadata tree of a cached directory and its path-hash index.
///
/// Paths. A relative path names an item below the cached directory: it begins with "/", uses "/"
/// between components and is in precomposed (NFC) form; the root is "/" and "" names nothing.
/// Operations taking an absolute path remove the cached directory from its front
/// (qn::stringByDeletingBeginningOfPath, or ...OfNormalizedPath for `entryForNormalizedPath`) and
/// compose the rest before they forward to the relative variant. The cached directory itself
/// becomes "/", so that its absolute path names the root (the presenter lists and walks its
/// Documents directory through it).
///
/// Index. `hashForPath` is FNV-1 (32 bits) over the UTF-8 bytes of the lower-cased NFC relative
/// path, held signed. The index holds every entry of the tree (root and intermediate directories
/// included) under that hash; paths differing only in case share a bucket. Rules kept on purpose:
/// - a bucket holding exactly one entry is trusted: a lookup returns that entry without checking
///   its path, so a path that is not cached but shares its hash with one cached path finds that
///   entry; removing such a path removes that entry;
/// - a bucket of two or more is scanned in insertion order, comparing relative paths without
///   regard to case, so of two entries differing only in case the first stored is found;
/// - an index removal in a bucket of two or more none of whose entries has the path throws
///   std::out_of_range (from QNMutableHashtable). Removals, moves and copies can meet this once
///   colliding paths are cached (a move re-indexes under new paths while removing old ones), and
///   FNV-1 collides far more often than chance on numbered names (about 1,400 pairs among a
///   million "fN" names), so callers must be ready for it.
///
/// Tree. Children are put at the head of their parent's list, so a directory lists its children
/// newest first. An entry is a directory exactly when it has no snapshot. Creation makes missing
/// ancestors; removal and `removeAll` drop entries from the index (removal also unlinks the entry
/// from its siblings) and leave the rest to reference counting: an entry somebody still holds
/// keeps its subtree.
///
/// Walks. Sub-entry and sub-path walks visit a subtree breadth-first by sibling list: first the
/// entry's children (newest first), then the children of the first child that has children, and
/// so on. A sub-path is relative to the walked entry without a leading separator ("x", "x/z").
///
/// Costs: a lookup is one pass over the path (hashing, with ASCII lower-casing inline; Unicode
/// case mapping and composition only for components outside ASCII and precomposed Latin) and one
/// probe of the index; relative paths are only rebuilt from parent links on hash collisions.
/// Walks, removal, moves and copies cost one step per entry visited plus the length of the paths
/// they produce; removal builds no paths at all unless the index has collisions.
///
/// Threads: no lock and not thread-safe. The presenter calls every operation, and runs every walk
/// with its callbacks, under its cache lock (`_cacheLock`). Callbacks run synchronously on the
/// calling thread and must not change the subtree being walked, except by removals: the walk
/// stays safe (it holds what it visits), and a removed entry not yet visited is skipped, unless
/// it heads a sibling list the walk has already queued: that one is still visited.
///
/// Failures: none are reported; an empty path or a missing entry makes an operation do or return
/// nothing. Exceptions: std::out_of_range as said above; std::bad_alloc.
class QNiCloudCache {
public:
    using Entry = QNiCloudCacheEntry;
    using EntryPointer = std::shared_ptr<QNiCloudCacheEntry>;
    using EntriesTree = QNMutableHashtable<std::int32_t, EntryPointer>;
    /// Called with each entry of a sub-entry walk; false stops the walk.
    using SubentryBlock = std::function<bool(const EntryPointer& entry)>;
    /// Called with each sub-path of a sub-path walk; false stops the walk. The sub-path is only
    /// missing (nullopt) below a sibling list whose head has lost its parent, which only trees
    /// linked by hand through the entry setters can have.
    using SubpathBlock = std::function<bool(std::optional<std::string_view> subpath)>;

    /// A cache of the directory at `cachedDirectoryPath` (absolute; stored standardised), with
    /// an empty index. Null when the path is empty.
    static std::shared_ptr<QNiCloudCache> cacheWithCachedDirectoryPath(
        std::string_view cachedDirectoryPath);

    QNiCloudCache(const QNiCloudCache&) = delete;
    QNiCloudCache& operator=(const QNiCloudCache&) = delete;

    const std::string& cachedDirectoryPath() const noexcept { return cachedDirectoryPath_; }
    /// The number of entries in the index, root included.
    std::uint64_t count() const noexcept { return entriesTree_.count(); }
    /// The index, read-only (for checks and diagnostics).
    const EntriesTree& entriesTree() const noexcept { return entriesTree_; }

    // Path arithmetic.

    /// The path hash of `relativePath` (see above). hashForPath("") is -2128831035 (2166136261
    /// unsigned); hashForPath("/Docs") == hashForPath("/docs").
    static std::int32_t hashForPath(std::string_view relativePath);
    /// The cached directory with `relativePath` appended as a path component.
    std::string absolutePathForRelativePath(std::string_view relativePath) const;
    /// The entry's relative path built from its parent links: "/" for the root, "/a/b" below it;
    /// the root's own name is only used when the entry is the root. An entry whose chain ends
    /// without a root still gets a path beginning with "/". Nothing for no entry.
    std::optional<std::string> relativePathForEntry(const EntryPointer& entry) const;
    /// absolutePathForRelativePath of relativePathForEntry; nothing for no entry.
    std::optional<std::string> absolutePathForEntry(const EntryPointer& entry) const;

    // Lookup: the entry, or null.

    EntryPointer entryForPath(std::string_view path) const;
    /// For a path normalised as stringByNormalizingPath does: only the cached directory's removal
    /// differs from entryForPath.
    EntryPointer entryForNormalizedPath(std::string_view path) const;
    EntryPointer entryForRelativePath(std::string_view relativePath) const;
    /// entryForNormalizedPath without taking a reference, for loops that look up every entry:
    /// valid only while the caller holds the cache's lock and changes nothing in the cache.
    Entry* findEntryForNormalizedPath(std::string_view path) const;

    /// A normalised path as the index looks it up, worked out once, for callers that look many
    /// paths up and ask the memory early for what a lookup will read (`prefetchKey`). It may
    /// refer to the text it was made from, which must outlive it. Any thread (no lock needed).
    class Key {
    public:
        Key() = default;
        Key(const Key& other) { *this = other; }
        Key& operator=(const Key& other);
        /// True for an empty path, which finds nothing.
        bool empty() const noexcept { return length_ == 0; }

    private:
        friend class QNiCloudCache;
        std::string_view relativePath() const noexcept;
        std::string storage_;  // when the relative path had to be made
        const char* data_ = nullptr;
        std::size_t length_ = 0;
        std::int32_t hash_ = 0;
        bool owned_ = false;
    };
    Key keyForNormalizedPath(std::string_view path) const;
    /// Asks the memory for the index slot where the lookup of `key` starts; changes nothing.
    void prefetchKey(const Key& key) const noexcept;
    /// findEntryForNormalizedPath of the key's path.
    Entry* findEntryForKey(const Key& key) const;
    /// Go up with every entry stored in or dropped from the index, and with every one dropped
    /// (moves drop and store again), so a caller can tell whether anyone else changed the tree's
    /// shape, or took an entry out of it, while it was not looking.
    std::uint64_t indexChangeCount() const noexcept { return indexChanges_; }
    std::uint64_t indexRemovalCount() const noexcept { return indexRemovals_; }

    // Creation and removal.

    void createEntryAtPath(std::string_view path,
                           std::shared_ptr<QNiCloudMetadataItem> withMetadataItem);
    /// Replaces the snapshot of an entry the lookup finds (null makes it a directory); otherwise
    /// creates the entry and the missing ancestors, linking each at the head of its parent's
    /// children, and stops at the first ancestor that exists. A path without the leading "/"
    /// makes a top-level entry without a parent. A one-character path ("/") has no parent path
    /// (the root is never linked below itself).
    void createEntryAtRelativePath(std::string_view relativePath,
                                   std::shared_ptr<QNiCloudMetadataItem> withMetadataItem);
    /// Creates the entry for a local file or directory just put at `path`. Blocks on the file
    /// system.
    void createEntryRecursivelyAtPath(std::string_view path,
                                      std::string_view withLocalSourceAtPath);
    /// A file or package source gets a snapshot of the item at `relativePath` (downloaded, not
    /// uploaded). A directory source gets a directory entry, and every descendant (packages'
    /// insides included) an entry too; each file or package descendant's snapshot is made from
    /// the top path, not the descendant's (deliberately), so it carries the top item's
    /// name, size and date.
    void createEntryRecursivelyAtRelativePath(std::string_view relativePath,
                                              std::string_view withLocalSourceAtPath);
    void removeEntryAtPath(std::string_view path);
    /// Unlinks the entry from its siblings (its own parent and sibling links stay, so that its
    /// path can still be computed) and removes it and every sub-path below it from the index,
    /// using the entry's relative path.
    void removeEntryRecursively(const EntryPointer& entry);
    /// As removeEntryRecursively for the entry found at `relativePath`, using `relativePath`.
    void removeEntryRecursivelyAtRelativePath(std::string_view relativePath);
    /// Removes one entry from the index only: the one in the bucket whose relative path equals
    /// `relativePath`, or the bucket's only entry whatever its path. Tree links are not touched.
    void removeEntryAtRelativePathFromEntriesTree(std::string_view relativePath);
    /// Replaces the index with an empty one; entries nobody else holds are freed.
    void removeAll() noexcept;

    // Moves and copies.

    void moveEntryAtPath(std::string_view path, std::string_view toEntryAtPath);
    /// Moves the entry found at `relativePath` to `toEntryAtRelativePath`: renamed in place when
    /// the destination's parent entry is its current parent (also when both are none), otherwise
    /// unlinked and put at the head of the destination parent's children (no parent, outside the
    /// tree but indexed, when that parent is not cached). Then it and its descendants are
    /// re-indexed. Kept deliberately: an entry already at the destination stays
    /// indexed beside the moved one; the source path is removed from the index after the rename,
    /// so in a bucket of two or more the removal compares with the new path; and in a move to
    /// another directory the descendants' old paths are rebuilt with the new name under the old
    /// parent, so their old records are only found and removed when the name did not change.
    /// A move into the entry's own subtree (or of the root below itself) does nothing.
    void moveEntryAtRelativePath(std::string_view relativePath,
                                 std::string_view toEntryAtRelativePath);
    void copyEntryAtPath(std::string_view path, std::string_view toEntryAtPath);
    /// Creates the destination (with missing ancestors) with a copy of the source's snapshot and
    /// then each descendant, snapshots copied with `isUploaded` false (a copy carries no file
    /// name). A source that is not cached still creates a directory entry at the destination.
    /// The source's subtree is listed first, so a copy into it copies the tree as it was.
    void copyEntryAtRelativePath(std::string_view relativePath,
                                 std::string_view toEntryAtRelativePath);

    // Walks.

    /// Every descendant of `entry` (nothing for none); a sibling's child list is queued before
    /// the callback sees the sibling.
    void enumerateSubentriesOfEntry(const EntryPointer& entry,
                                    const SubentryBlock& withBlock) const;
    void enumerateSubentriesOfEntryAtPath(std::string_view path,
                                          const SubentryBlock& withBlock) const;
    /// The sub-path of every descendant of `entry`, relative to it; a sibling's child list is
    /// queued after the callback has seen the sibling.
    void enumerateSubpathsOfEntry(const EntryPointer& entry, const SubpathBlock& withBlock) const;
    void enumerateSubpathsOfEntryAtPath(std::string_view path, const SubpathBlock& withBlock) const;
    /// Every sub-path below the entry at `path`, in walk order; empty when the entry is unknown
    /// or has no children.
    std::vector<std::string> allSubpathsOfEntryAtPath(std::string_view path) const;
    /// The number of descendants of the entry at `path` (itself not counted); 0 when unknown.
    std::uint64_t numberOfSubentriesForEntryAtPath(std::string_view path) const;

private:
    class SubtreeWalk;
    friend class SubtreeWalk;
    struct RelativePath;

    explicit QNiCloudCache(std::string cachedDirectoryPath);

    RelativePath relativePathOf(std::string_view path, bool normalized) const;
    EntryPointer lookup(std::string_view relativePath, std::int32_t hash) const;
    const EntryPointer* find(std::string_view relativePath, std::int32_t hash) const;
    void createEntry(const RelativePath& path, std::shared_ptr<QNiCloudMetadataItem> item);
    void storeEntry(EntryPointer entry, std::int32_t hash);
    template <class PathSource>
    void removeFromEntriesTree(std::int32_t hash, PathSource&& pathSource);
    void removeRecursively(const EntryPointer& entry, std::string_view relativePath);

    std::string cachedDirectoryPath_;
    EntriesTree entriesTree_;
    std::uint64_t indexChanges_ = 0;
    std::uint64_t indexRemovals_ = 0;
    // Whether the cached directory is absolute, which paths built below an entry by
    // concatenation rely on to equal the normalised ones.
    bool absoluteCachedDirectory_ = false;
};
