#pragma once

// One node of the metadata cache's tree: an item's name, its snapshot (files and packages) and
// its links to the containing directory, its first child and its siblings.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "QNiCloud/QNiCloudMetadataItem.h"

class QNiCloudCache;

namespace qn::detail {

/// An entry's name in 24 bytes: up to 23 bytes kept in place, longer names on the heap. Setting
/// it also records whether the name is a plain path component (not empty, no "/", neither "."
/// nor "..", in NFC), which lets the cache build paths below the entry by concatenation instead
/// of normalising them.
class QNiCloudCacheEntryName {
public:
    QNiCloudCacheEntryName() noexcept { bytes_[kTag] = 0; }
    explicit QNiCloudCacheEntryName(std::string_view text) : QNiCloudCacheEntryName() {
        assign(text);
    }
    QNiCloudCacheEntryName(const QNiCloudCacheEntryName&) = delete;
    QNiCloudCacheEntryName& operator=(const QNiCloudCacheEntryName&) = delete;
    ~QNiCloudCacheEntryName() { release(); }

    void assign(std::string_view text);
    std::string_view view() const noexcept {
        if (isHeap()) {
            return {heapData(), heapSize()};
        }
        return {reinterpret_cast<const char*>(bytes_), static_cast<std::size_t>(tag() & kSizeMask)};
    }
    bool isPlainComponent() const noexcept { return (tag() & kPlainBit) != 0; }
    bool isAscii() const noexcept { return (tag() & kAsciiBit) != 0; }

private:
    static constexpr std::size_t kTag = 23;
    static constexpr std::uint8_t kSizeMask = 0x1F;
    static constexpr std::uint8_t kHeapBit = 0x20;
    static constexpr std::uint8_t kPlainBit = 0x40;
    static constexpr std::uint8_t kAsciiBit = 0x80;

    std::uint8_t tag() const noexcept { return bytes_[kTag]; }
    bool isHeap() const noexcept { return (tag() & kHeapBit) != 0; }
    const char* heapData() const noexcept;
    std::size_t heapSize() const noexcept;
    void release() noexcept;

    alignas(8) unsigned char bytes_[24];
};

}  // namespace qn::detail

/// A node of the cache tree (see QNiCloudCache). Properties:
///
/// | property       | ownership | meaning                                                    |
/// |----------------|-----------|------------------------------------------------------------|
/// | `parent`       | weak      | the containing directory's entry; none for the root        |
/// | `firstChild`   | strong    | head of the list of children                               |
/// | `prev`         | weak      | previous sibling (weak so that sibling lists hold no cycle)|
/// | `next`         | strong    | next sibling                                               |
/// | `name`         | owned     | last path component; "/" for the root                      |
/// | `metadataItem` | strong    | the item's snapshot; none for a directory                  |
///
/// Children form a doubly linked list through `prev`/`next` headed by the parent's `firstChild`.
/// Setting a link never updates the other side; the cache keeps both sides right.
///
/// Ownership: entries are shared (`std::shared_ptr`) between the cache's index, the strong tree
/// links and callers; a caller may keep an entry, and with it the entry's children and following
/// siblings, after the cache has dropped it. Dropping the last reference to a long sibling list or
/// a deep chain does not recurse: the destructor releases the entries it was the last owner of one
/// at a time.
///
/// Threads: no lock; an entry is read and changed by one thread at a time (the presenter's cache
/// lock). The destructor may run on any thread that drops the last reference.
class QNiCloudCacheEntry {
public:
    /// An entry named "" (no name) without links and snapshot.
    QNiCloudCacheEntry() noexcept = default;
    explicit QNiCloudCacheEntry(std::string_view name,
                                std::shared_ptr<QNiCloudMetadataItem> metadataItem = nullptr)
        : metadataItem_(std::move(metadataItem)), name_(name) {}
    QNiCloudCacheEntry(const QNiCloudCacheEntry&) = delete;
    QNiCloudCacheEntry& operator=(const QNiCloudCacheEntry&) = delete;
    ~QNiCloudCacheEntry();

    std::shared_ptr<QNiCloudCacheEntry> parent() const noexcept { return parent_.lock(); }
    /// The link itself: comparing links (`owner_before`) takes no reference.
    const std::weak_ptr<QNiCloudCacheEntry>& parentLink() const noexcept { return parent_; }
    void setParent(const std::shared_ptr<QNiCloudCacheEntry>& parent) noexcept { parent_ = parent; }
    const std::shared_ptr<QNiCloudCacheEntry>& firstChild() const noexcept { return firstChild_; }
    void setFirstChild(std::shared_ptr<QNiCloudCacheEntry> firstChild) noexcept {
        firstChild_ = std::move(firstChild);
    }
    std::shared_ptr<QNiCloudCacheEntry> prev() const noexcept { return prev_.lock(); }
    void setPrev(const std::shared_ptr<QNiCloudCacheEntry>& prev) noexcept { prev_ = prev; }
    const std::shared_ptr<QNiCloudCacheEntry>& next() const noexcept { return next_; }
    void setNext(std::shared_ptr<QNiCloudCacheEntry> next) noexcept { next_ = std::move(next); }
    /// Valid until the name is set again or the entry is destroyed.
    std::string_view name() const noexcept { return name_.view(); }
    void setName(std::string_view name) { name_.assign(name); }
    const std::shared_ptr<QNiCloudMetadataItem>& metadataItem() const noexcept {
        return metadataItem_;
    }
    void setMetadataItem(std::shared_ptr<QNiCloudMetadataItem> metadataItem) noexcept {
        metadataItem_ = std::move(metadataItem);
    }

    /// The number of the last cache comparison that found the entry accounted for by a query
    /// result (0: none yet). The presenter's comparison stamps entries instead of collecting
    /// their paths; nothing else reads it.
    std::uint32_t comparisonRun() const noexcept { return comparisonRun_; }
    void setComparisonRun(std::uint32_t run) noexcept { comparisonRun_ = run; }

    /// True when `firstChild` is set.
    bool hasChildren() const noexcept { return firstChild_ != nullptr; }
    /// True when the entry has no snapshot: a package, which has one, counts as a file.
    bool isDirectory() const noexcept { return metadataItem_ == nullptr; }

    /// "<QNiCloudCacheEntry: 0x...; parent = 0x..., firstChild = 0x..., next = 0x..., prev = 0x...,
    /// name = ..., metadata item = ...>": addresses of the entry and its neighbours (0x0 for
    /// none), the name and the snapshot's description ("(null)" for none).
    std::string shortDescription() const;
    /// Several lines: "<QNiCloudCacheEntry: 0x...;\n", then "    parent = %;\n",
    /// "    firstChild = %;\n", "    next = %;\n", "    prev = %;\n" with each neighbour's
    /// shortDescription (empty for none), "    name = %;\n", "    metadataItem = %;\n" and ">\n".
    std::string description() const;

private:
    friend class QNiCloudCache;

    // Links and snapshot first, then the name and the stamp: 112 bytes, so that an entry and its
    // reference counts fill one 128-byte allocation.
    std::weak_ptr<QNiCloudCacheEntry> parent_;
    std::shared_ptr<QNiCloudCacheEntry> firstChild_;
    std::shared_ptr<QNiCloudCacheEntry> next_;
    std::weak_ptr<QNiCloudCacheEntry> prev_;
    std::shared_ptr<QNiCloudMetadataItem> metadataItem_;
    qn::detail::QNiCloudCacheEntryName name_;
    std::uint32_t comparisonRun_ = 0;
};
