#include "QNiCloud/QNiCloudCache.h"

#include <cstddef>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "QNiCloudCachePaths.h"
#include "qn/DirectoryEnumerator.h"
#include "qn/FileManager.h"
#include "qn/PathString.h"
#include "qn/util/Packages.h"
#include "qn/util/PathNormalization.h"

namespace {

using qn::cache::composedNFC;
using qn::cache::deletingLastComponent;
using qn::cache::fnvLowercaseNFC;
using qn::cache::isStandardFastRemainder;
using qn::cache::kFnvOffsetBasis;
using qn::cache::kFnvPrime;
using qn::cache::lastComponent;
using EntryPointer = QNiCloudCache::EntryPointer;
using Bucket = QNiCloudCache::EntriesTree::Bucket;

std::int32_t toSigned(std::uint32_t hash) {
    return static_cast<std::int32_t>(hash);
}

// Whether the weak link `link` refers to `entry` (compared by ownership, without locking).
bool refersTo(const std::weak_ptr<QNiCloudCacheEntry>& link, const EntryPointer& entry) {
    return !link.owner_before(entry) && !entry.owner_before(link);
}

// The part of `path` below `base`, composed: what stringByDeletingBeginningOfPath followed by
// composition gives. Standard paths in ASCII or precomposed Latin are sliced; `base` must then be
// "/" or a standard absolute path itself.
std::string remainderBelow(std::string_view path, std::string_view base) {
    if (base == "/") {
        if (isStandardFastRemainder(path)) {
            return std::string(path);
        }
    } else if (path.size() > base.size() && path[base.size()] == '/' && path.starts_with(base) &&
               isStandardFastRemainder(base) && isStandardFastRemainder(path.substr(base.size()))) {
        return std::string(path.substr(base.size()));
    }
    return composedNFC(qn::stringByDeletingBeginningOfPath(path, base));
}

std::shared_ptr<QNiCloudMetadataItem> notUploadedCopy(
    const std::shared_ptr<QNiCloudMetadataItem>& item) {
    if (item == nullptr) {
        return nullptr;
    }
    std::shared_ptr<QNiCloudMetadataItem> copy = item->copy();
    copy->setIsUploaded(false);
    return copy;
}

// The hashes of a path and of the prefixes its ancestors' paths are, from one pass: creation
// looks every missing ancestor up, and a deep path would otherwise be hashed once per level.
class PrefixHashes {
public:
    explicit PrefixHashes(std::string_view path) : path_(path) {
        std::uint32_t state = kFnvOffsetBasis;
        std::size_t start = 0;
        for (;;) {
            const std::size_t slash = path.find('/', start);
            const std::size_t end = slash == std::string_view::npos ? path.size() : slash;
            state = fnvLowercaseNFC(state, path.substr(start, end - start));
            if (slash == std::string_view::npos) {
                break;
            }
            states_.emplace_back(slash, state);
            state = (state * kFnvPrime) ^ static_cast<unsigned char>('/');
            if (slash == 0) {
                states_.emplace_back(1, state);
            }
            start = slash + 1;
        }
        full_ = toSigned(state);
    }

    std::int32_t full() const { return full_; }

    // The hash of `prefix`, a prefix of the path (ancestors are asked for from the deepest up).
    std::int32_t prefix(std::string_view prefix) {
        const std::size_t length = prefix.size();
        while (!states_.empty() && states_.back().first > length) {
            states_.pop_back();
        }
        if (!states_.empty() && states_.back().first == length && prefix.data() == path_.data()) {
            return toSigned(states_.back().second);
        }
        return QNiCloudCache::hashForPath(prefix);
    }

private:
    std::string_view path_;
    std::vector<std::pair<std::size_t, std::uint32_t>> states_;
    std::int32_t full_ = 0;
};

}  // namespace

// A relative path as a view, owning its text only when it had to be built.
struct QNiCloudCache::RelativePath {
    std::string storage;
    std::string_view path;
    // When they came for free: the path's hash, and its parent's (the path up to the last
    // separator, or "/" when that is the first character).
    std::optional<std::int32_t> hash;
    std::size_t parentLength = 0;
    std::int32_t parentHash = 0;

    std::int32_t pathHash() const { return hash ? *hash : hashForPath(path); }
};

// The walk of the descendants of one entry, breadth-first by sibling list, with the paths its
// users need.
//
// By definition a sibling list's sub-path prefix is the absolute path of the list head's parent,
// normalised and cut below the walked entry, and an entry's relative path comes from its parent
// links. In a tree the cache linked itself both are the owners' names joined by "/", so they are
// built that way, without normalising, as long as each link followed is confirmed: the head's
// parent and the owner's parent are the entries the walk came from, and each owner's name is a
// plain component. Where a check fails (only possible in trees linked by hand) that list and the
// lists below it are computed by the definition.
class QNiCloudCache::SubtreeWalk {
public:
    enum class Order { kQueueBeforeVisit, kVisitBeforeQueue };
    enum Need : unsigned { kSubpaths = 1, kRelativePaths = 2, kRemovalPaths = 4 };

    // `removalBase` (for kRemovalPaths) is the relative path that sub-paths are appended to.
    SubtreeWalk(const QNiCloudCache& cache, EntryPointer top, Order order, unsigned needs,
                std::string_view removalBase = {})
        : cache_(cache),
          top_(std::move(top)),
          order_(order),
          needs_(needs),
          removalBase_(removalBase) {}

    // Calls `visitor(*this)` for every descendant until it answers false.
    template <class Visitor>
    void run(Visitor&& visitor) {
        if (top_ == nullptr || top_->firstChild_ == nullptr) {
            return;
        }
        setUp();
        List first;
        first.head = top_->firstChild_;
        first.owner = top_;
        first.ownerConfirmed = true;
        lists_.push_back(std::move(first));
        for (std::size_t list = 0; list < lists_.size(); ++list) {
            beginList(list);
            EntryPointer sibling = lists_[list].head;
            while (sibling != nullptr) {
                current_ = &sibling;
                currentList_ = list;
                subpathReady_ = false;
                if (order_ == Order::kQueueBeforeVisit) {
                    queueChildren();
                }
                const bool goOn = visitor(*this);
                if (order_ == Order::kVisitBeforeQueue) {
                    queueChildren();
                }
                if (!goOn) {
                    return;
                }
                sibling = sibling->next_;
            }
        }
    }

    const EntryPointer& entry() const { return *current_; }

    // The current entry's sub-path below the walked entry (kSubpaths, kRemovalPaths).
    std::optional<std::string_view> subpath() {
        if (!subpathReady_) {
            subpathMissing_ = !buildSubpath(subpath_);
            subpathReady_ = true;
        }
        if (subpathMissing_) {
            return std::nullopt;
        }
        return std::string_view(subpath_);
    }

    // The current entry's relative path from its parent links (kRelativePaths).
    std::string relativePath() {
        const List& list = lists_[currentList_];
        const QNiCloudCacheEntry& entry = **current_;
        if (list.confirmed && entry.name_.isPlainComponent() &&
            refersTo(entry.parent_, list.owner)) {
            std::string path;
            const std::string_view name = entry.name_.view();
            path.reserve(relativeBase_.size() + list.prefix.size() + 1 + name.size());
            path += relativeBase_;
            if (!list.prefix.empty()) {
                path += list.prefix;
                path += '/';
            }
            path += name;
            return path;
        }
        return *cache_.relativePathForEntry(*current_);
    }

    // The hash of the removal base with the current sub-path appended (kRemovalPaths); nothing
    // when the sub-path is missing.
    std::optional<std::int32_t> removalHash() {
        const List& list = lists_[currentList_];
        const QNiCloudCacheEntry& entry = **current_;
        if (list.confirmed && entry.name_.isPlainComponent()) {
            return toSigned(fnvLowercaseNFC(list.state, entry.name_.view()));
        }
        std::optional<std::string> path = removalPath();
        if (!path) {
            return std::nullopt;
        }
        return hashForPath(*path);
    }

    // The removal base with the current sub-path appended, as a path component.
    std::optional<std::string> removalPath() {
        const std::optional<std::string_view> sub = subpath();
        if (!sub) {
            return std::nullopt;
        }
        return qn::stringByAppendingPathComponent(removalBase_, *sub);
    }

private:
    static constexpr std::size_t kNoList = std::numeric_limits<std::size_t>::max();

    struct List {
        EntryPointer head;
        // The entry whose children the list holds: the walked entry, or the sibling whose
        // first child was queued.
        EntryPointer owner;
        std::size_t parentList = kNoList;
        // The owner's place is confirmed: the prefix below can be built by concatenation.
        bool ownerConfirmed = false;
        // ownerConfirmed, and the head's parent is the owner.
        bool confirmed = false;
        // Confirmed lists: the owner's sub-path ("" for the walked entry's children), kept
        // when paths are wanted. Other lists: the prefix computed by definition, or missing.
        std::string prefix;
        bool prefixMissing = false;
        // Confirmed lists, kRemovalPaths: the hash state after the removal base, the prefix
        // and a separator.
        std::uint32_t state = 0;
    };

    bool wantsStrings() const { return (needs_ & (kSubpaths | kRelativePaths)) != 0; }

    void setUp() {
        if (needs_ == 0) {
            return;
        }
        const std::string topPath = *cache_.relativePathForEntry(top_);
        const std::string_view topName = top_->name_.view();
        // Concatenation equals the normalised definition only below an absolute cached
        // directory, and when the walked entry's own path is not cut short by a "/" in its name.
        topConfirmed_ =
            cache_.absoluteCachedDirectory_ && (!topName.starts_with('/') || topPath == "/");
        if (needs_ & kRelativePaths) {
            relativeBase_ = topName.starts_with('/') ? std::string("/") : topPath + "/";
        }
        if (needs_ & kRemovalPaths) {
            // Appending a component that starts with a name character adds a separator exactly
            // when the base needs one; the probe shows what the base becomes.
            std::string probe = qn::stringByAppendingPathComponent(removalBase_, "x");
            probe.pop_back();
            removalBaseState_ = fnvLowercaseNFC(kFnvOffsetBasis, probe);
        }
    }

    void beginList(std::size_t index) {
        List& list = lists_[index];
        list.confirmed = list.ownerConfirmed && refersTo(list.head->parent_, list.owner);
        if (needs_ == 0) {
            return;
        }
        if (list.confirmed) {
            if (list.parentList == kNoList) {
                list.state = removalBaseState_;
            }
            return;
        }
        const EntryPointer parent = list.head->parent_.lock();
        if (parent == nullptr) {
            list.prefixMissing = true;
            return;
        }
        if (!topAbsolutePath_) {
            topAbsolutePath_ = cache_.absolutePathForEntry(top_);
        }
        list.prefix = composedNFC(qn::stringByDeletingBeginningOfPath(
            *cache_.absolutePathForEntry(parent), *topAbsolutePath_));
    }

    void queueChildren() {
        const EntryPointer& sibling = *current_;
        if (sibling->firstChild_ == nullptr) {
            return;
        }
        List child;
        child.head = sibling->firstChild_;
        child.owner = sibling;
        child.parentList = currentList_;
        const List& list = lists_[currentList_];
        child.ownerConfirmed = list.confirmed && topConfirmed_ &&
                               sibling->name_.isPlainComponent() &&
                               refersTo(sibling->parent_, list.owner);
        if (child.ownerConfirmed && needs_ != 0) {
            if (wantsStrings()) {
                child.prefix = std::string(*subpath());
            }
            if (needs_ & kRemovalPaths) {
                child.state = (fnvLowercaseNFC(list.state, sibling->name_.view()) * kFnvPrime) ^
                              static_cast<unsigned char>('/');
            }
        }
        lists_.push_back(std::move(child));
    }

    // The prefix of a confirmed list: the owners' names from the walked entry's child down.
    std::string confirmedPrefix(std::size_t index) const {
        if (wantsStrings()) {
            return lists_[index].prefix;
        }
        std::vector<std::string_view> names;
        for (std::size_t i = index; lists_[i].parentList != kNoList; i = lists_[i].parentList) {
            names.push_back(lists_[i].owner->name_.view());
        }
        std::string prefix;
        for (auto name = names.rbegin(); name != names.rend(); ++name) {
            if (!prefix.empty()) {
                prefix += '/';
            }
            prefix += *name;
        }
        return prefix;
    }

    // `prefix` as the definition has it (with its leading separator) joined with `name`,
    // without the leading separator.
    static std::string joinedByDefinition(std::string_view prefix, std::string_view name) {
        std::string result = qn::stringByAppendingPathComponent(prefix, name);
        if (!prefix.empty() && result.starts_with('/')) {
            result.erase(0, 1);
        }
        return result;
    }

    bool buildSubpath(std::string& out) const {
        const List& list = lists_[currentList_];
        const QNiCloudCacheEntry& entry = **current_;
        const std::string_view name = entry.name_.view();
        if (!list.confirmed) {
            if (list.prefixMissing) {
                return false;
            }
            out = joinedByDefinition(list.prefix, name);
            return true;
        }
        if (list.parentList == kNoList) {
            out.assign(name);  // Any name appended to "" stays itself.
            return true;
        }
        const std::string prefix = confirmedPrefix(currentList_);
        if (entry.name_.isPlainComponent()) {
            out.clear();
            out.reserve(prefix.size() + 1 + name.size());
            out += prefix;
            out += '/';
            out += name;
        } else {
            out = joinedByDefinition("/" + prefix, name);
        }
        return true;
    }

    const QNiCloudCache& cache_;
    EntryPointer top_;
    Order order_;
    unsigned needs_;
    std::string_view removalBase_;
    bool topConfirmed_ = false;
    std::string relativeBase_;
    std::uint32_t removalBaseState_ = 0;
    std::optional<std::string> topAbsolutePath_;
    std::vector<List> lists_;
    const EntryPointer* current_ = nullptr;
    std::size_t currentList_ = 0;
    bool subpathReady_ = false;
    bool subpathMissing_ = false;
    std::string subpath_;
};

// Creation and path arithmetic.

std::shared_ptr<QNiCloudCache> QNiCloudCache::cacheWithCachedDirectoryPath(
    std::string_view cachedDirectoryPath) {
    if (cachedDirectoryPath.empty()) {
        return nullptr;
    }
    return std::shared_ptr<QNiCloudCache>(
        new QNiCloudCache(qn::stringByStandardizingPath(cachedDirectoryPath)));
}

QNiCloudCache::QNiCloudCache(std::string cachedDirectoryPath)
    : cachedDirectoryPath_(std::move(cachedDirectoryPath)),
      absoluteCachedDirectory_(cachedDirectoryPath_.starts_with('/')) {}

std::int32_t QNiCloudCache::hashForPath(std::string_view relativePath) {
    return toSigned(fnvLowercaseNFC(kFnvOffsetBasis, relativePath));
}

std::string QNiCloudCache::absolutePathForRelativePath(std::string_view relativePath) const {
    return qn::stringByAppendingPathComponent(cachedDirectoryPath_, relativePath);
}

std::optional<std::string> QNiCloudCache::relativePathForEntry(const EntryPointer& entry) const {
    if (entry == nullptr) {
        return std::nullopt;
    }
    // Names from the entry up; each but a leading root's gets a separator before it. The chain
    // is held while its names are read.
    std::vector<EntryPointer> chain;
    std::size_t length = 0;
    bool rootFirst = false;
    for (EntryPointer current = entry; current != nullptr; current = current->parent_.lock()) {
        const std::string_view name = current->name_.view();
        if (name.starts_with('/')) {
            if (!chain.empty() || rootFirst) {
                break;
            }
            rootFirst = true;
            length += name.size();
        } else {
            length += 1 + name.size();
        }
        chain.push_back(current);
    }
    std::string path;
    path.reserve(length);
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        const bool isLeadingRoot = rootFirst && it == chain.rend() - 1;
        if (!isLeadingRoot) {
            path += '/';
        }
        path += (*it)->name_.view();
    }
    return path;
}

std::optional<std::string> QNiCloudCache::absolutePathForEntry(const EntryPointer& entry) const {
    std::optional<std::string> relative = relativePathForEntry(entry);
    if (!relative) {
        return std::nullopt;
    }
    return absolutePathForRelativePath(*relative);
}

QNiCloudCache::RelativePath QNiCloudCache::relativePathOf(std::string_view path,
                                                          bool normalized) const {
    RelativePath result;
    const std::string_view base = cachedDirectoryPath_;
    std::string_view rest;
    bool sliceable = false;
    if (path == base) {
        result.path = "/";
        return result;
    }
    if (base == "/") {
        rest = path;
        sliceable = true;
    } else if (path.size() > base.size() && path[base.size()] == '/' && path.starts_with(base)) {
        rest = path.substr(base.size());
        sliceable = true;
    }
    // The cached directory is standard, so a standard composed rest is exactly what deleting
    // the directory from the front and composing would leave.
    std::uint32_t hash;
    std::size_t lastSlash = 0;
    std::uint32_t parentState = 0;
    if (sliceable && qn::cache::hashStandardFastRemainder(rest, hash, &lastSlash, &parentState)) {
        result.path = rest;
        result.hash = toSigned(hash);
        // A standard path's parent ends before its last separator, or is "/".
        result.parentLength = lastSlash == 0 ? 1 : lastSlash;
        result.parentHash =
            toSigned(lastSlash == 0 ? (parentState * kFnvPrime) ^ '/' : parentState);
        return result;
    }
    result.storage =
        composedNFC(normalized ? qn::stringByDeletingBeginningOfNormalizedPath(path, base)
                               : qn::stringByDeletingBeginningOfPath(path, base));
    if (result.storage.empty() && !path.empty()) {
        result.storage = "/";  // The cached directory itself: the root.
    }
    result.path = result.storage;
    return result;
}

// Lookup.

EntryPointer QNiCloudCache::lookup(std::string_view relativePath, std::int32_t hash) const {
    const EntryPointer* found = find(relativePath, hash);
    return found != nullptr ? *found : nullptr;
}

const EntryPointer* QNiCloudCache::find(std::string_view relativePath, std::int32_t hash) const {
    const Bucket* bucket = entriesTree_.allObjectsForKey(hash);
    if (bucket == nullptr || bucket->empty()) {
        return nullptr;
    }
    if (bucket->size() == 1) {
        return bucket->begin();  // Trusted without looking at its path.
    }
    const std::string asked = qn::lowercasePath(relativePath);
    for (const EntryPointer& candidate : *bucket) {
        const std::optional<std::string> candidatePath = relativePathForEntry(candidate);
        if (candidatePath && qn::isEqualToPath(qn::lowercasePath(*candidatePath), asked)) {
            return &candidate;
        }
    }
    return nullptr;
}

EntryPointer QNiCloudCache::entryForPath(std::string_view path) const {
    const RelativePath relative = relativePathOf(path, false);
    return relative.path.empty() ? nullptr : lookup(relative.path, relative.pathHash());
}

EntryPointer QNiCloudCache::entryForNormalizedPath(std::string_view path) const {
    const RelativePath relative = relativePathOf(path, true);
    return relative.path.empty() ? nullptr : lookup(relative.path, relative.pathHash());
}

QNiCloudCacheEntry* QNiCloudCache::findEntryForNormalizedPath(std::string_view path) const {
    const RelativePath relative = relativePathOf(path, true);
    const EntryPointer* found =
        relative.path.empty() ? nullptr : find(relative.path, relative.pathHash());
    return found != nullptr ? found->get() : nullptr;
}

QNiCloudCache::Key& QNiCloudCache::Key::operator=(const Key& other) {
    storage_ = other.storage_;
    owned_ = other.owned_;
    data_ = owned_ ? storage_.data() : other.data_;
    length_ = other.length_;
    hash_ = other.hash_;
    return *this;
}

std::string_view QNiCloudCache::Key::relativePath() const noexcept {
    return {data_, length_};
}

QNiCloudCache::Key QNiCloudCache::keyForNormalizedPath(std::string_view path) const {
    Key key;
    RelativePath relative = relativePathOf(path, true);
    if (relative.path.empty()) {
        return key;
    }
    key.owned_ = !relative.storage.empty();
    if (key.owned_) {
        key.storage_ = std::move(relative.storage);
        key.data_ = key.storage_.data();
        key.length_ = key.storage_.size();
    } else {
        key.data_ = relative.path.data();
        key.length_ = relative.path.size();
    }
    key.hash_ = relative.hash ? *relative.hash : hashForPath(key.relativePath());
    return key;
}

void QNiCloudCache::prefetchKey(const Key& key) const noexcept {
    if (!key.empty()) {
        entriesTree_.prefetchKey(key.hash_);
    }
}

QNiCloudCacheEntry* QNiCloudCache::findEntryForKey(const Key& key) const {
    const EntryPointer* found = key.empty() ? nullptr : find(key.relativePath(), key.hash_);
    return found != nullptr ? found->get() : nullptr;
}

EntryPointer QNiCloudCache::entryForRelativePath(std::string_view relativePath) const {
    if (relativePath.empty()) {
        return nullptr;
    }
    return lookup(relativePath, hashForPath(relativePath));
}

// Creation.

void QNiCloudCache::storeEntry(EntryPointer entry, std::int32_t hash) {
    entriesTree_.setObject(std::move(entry), hash);
    ++indexChanges_;
}

void QNiCloudCache::createEntryAtPath(std::string_view path,
                                      std::shared_ptr<QNiCloudMetadataItem> withMetadataItem) {
    const RelativePath relative = relativePathOf(path, false);
    createEntry(relative, std::move(withMetadataItem));
}

void QNiCloudCache::createEntryAtRelativePath(
    std::string_view relativePath, std::shared_ptr<QNiCloudMetadataItem> withMetadataItem) {
    RelativePath relative;
    relative.path = relativePath;
    createEntry(relative, std::move(withMetadataItem));
}

void QNiCloudCache::createEntry(const RelativePath& path,
                                std::shared_ptr<QNiCloudMetadataItem> withMetadataItem) {
    const std::string_view relativePath = path.path;
    if (relativePath.empty()) {
        return;
    }
    // The hashes of the path and its parent usually come with it; further ancestors are only
    // looked up when missing, and then all prefixes are hashed in one pass.
    std::optional<PrefixHashes> prefixes;
    if (!path.hash) {
        prefixes.emplace(relativePath);
    }
    auto hashOf = [&](std::string_view prefix) {
        if (path.hash && prefix.data() == relativePath.data() &&
            prefix.size() == path.parentLength) {
            return path.parentHash;
        }
        if (!prefixes) {
            prefixes.emplace(relativePath);
        }
        return prefixes->prefix(prefix);
    };
    const std::int32_t hash = path.hash ? *path.hash : prefixes->full();
    if (EntryPointer found = lookup(relativePath, hash)) {
        found->setMetadataItem(std::move(withMetadataItem));
        return;
    }
    EntryPointer child = std::make_shared<QNiCloudCacheEntry>(lastComponent(relativePath),
                                                              std::move(withMetadataItem));
    storeEntry(child, hash);
    // "/" has no parent: taken as its own, the root would become its own child.
    std::string_view parentPath =
        relativePath.size() == 1 ? std::string_view() : deletingLastComponent(relativePath);
    while (!parentPath.empty()) {
        const std::int32_t parentHash = hashOf(parentPath);
        EntryPointer parent = lookup(parentPath, parentHash);
        const bool created = parent == nullptr;
        if (created) {
            parent = std::make_shared<QNiCloudCacheEntry>(lastComponent(parentPath));
            storeEntry(parent, parentHash);
        }
        if (parent->firstChild_ != nullptr) {
            child->next_ = parent->firstChild_;
            parent->firstChild_->prev_ = child;
        }
        parent->firstChild_ = child;
        child->parent_ = parent;
        if (!created) {
            break;
        }
        parentPath =
            parentPath.size() == 1 ? std::string_view() : deletingLastComponent(parentPath);
        child = std::move(parent);
    }
}

void QNiCloudCache::createEntryRecursivelyAtPath(std::string_view path,
                                                 std::string_view withLocalSourceAtPath) {
    const RelativePath relative = relativePathOf(path, false);
    createEntryRecursivelyAtRelativePath(relative.path, withLocalSourceAtPath);
}

void QNiCloudCache::createEntryRecursivelyAtRelativePath(std::string_view relativePath,
                                                         std::string_view withLocalSourceAtPath) {
    if (relativePath.empty() || withLocalSourceAtPath.empty()) {
        return;
    }
    const std::string topAbsolutePath = absolutePathForRelativePath(relativePath);
    if (QNIsPackageOrFilePath(withLocalSourceAtPath)) {
        createEntryAtRelativePath(
            relativePath, QNiCloudMetadataItem::metadataItemWithPath(topAbsolutePath, true, false));
        return;
    }
    createEntryAtRelativePath(relativePath, nullptr);
    std::unique_ptr<qn::DirectoryEnumerator> enumerator =
        qn::FileManager::defaultManager()->enumeratorAtPath(withLocalSourceAtPath);
    if (enumerator == nullptr) {
        return;
    }
    for (qn::Value object = enumerator->nextObject(); !object.isNull();
         object = enumerator->nextObject()) {
        const std::string* subpath = object.stringValue();
        if (subpath == nullptr) {
            continue;
        }
        std::shared_ptr<QNiCloudMetadataItem> item;
        if (QNIsPackageOrFilePath(
                qn::stringByAppendingPathComponent(withLocalSourceAtPath, *subpath))) {
            // Of the top item, not of the descendant, deliberately.
            item = QNiCloudMetadataItem::metadataItemWithPath(topAbsolutePath, true, false);
        }
        createEntryAtRelativePath(qn::stringByAppendingPathComponent(relativePath, *subpath),
                                  std::move(item));
    }
}

// Removal.

void QNiCloudCache::removeEntryAtPath(std::string_view path) {
    const RelativePath relative = relativePathOf(path, false);
    removeEntryRecursivelyAtRelativePath(relative.path);
}

void QNiCloudCache::removeEntryRecursively(const EntryPointer& entry) {
    if (entry == nullptr) {
        return;
    }
    const std::string relativePath = *relativePathForEntry(entry);
    removeRecursively(entry, relativePath);
}

void QNiCloudCache::removeEntryRecursivelyAtRelativePath(std::string_view relativePath) {
    const EntryPointer entry = entryForRelativePath(relativePath);
    if (entry == nullptr) {
        return;
    }
    removeRecursively(entry, std::string(relativePath));
}

void QNiCloudCache::removeRecursively(const EntryPointer& entry, std::string_view relativePath) {
    const EntryPointer parent = entry->parent_.lock();
    const EntryPointer prev = entry->prev_.lock();
    if (parent != nullptr && parent->firstChild_ == entry) {
        parent->firstChild_ = entry->next_;
    }
    if (entry->next_ != nullptr) {
        entry->next_->prev_ = prev;
    }
    if (prev != nullptr) {
        prev->next_ = entry->next_;
    }
    SubtreeWalk walk(*this, entry, SubtreeWalk::Order::kVisitBeforeQueue,
                     SubtreeWalk::kRemovalPaths, relativePath);
    walk.run([this](SubtreeWalk& visit) {
        if (const std::optional<std::int32_t> hash = visit.removalHash()) {
            removeFromEntriesTree(*hash, [&visit] { return *visit.removalPath(); });
        }
        return true;
    });
    removeEntryAtRelativePathFromEntriesTree(relativePath);
}

template <class PathSource>
void QNiCloudCache::removeFromEntriesTree(std::int32_t hash, PathSource&& pathSource) {
    // The path is only needed to choose within a bucket of two or more.
    ++indexChanges_;
    ++indexRemovals_;
    entriesTree_.removeObjectForKey(hash, [&](const Bucket& bucket) -> std::size_t {
        const std::string path = pathSource();
        for (std::size_t i = 0; i < bucket.size(); ++i) {
            const std::optional<std::string> candidate = relativePathForEntry(bucket[i]);
            if (candidate && qn::isEqualToPath(*candidate, path)) {
                return i;
            }
        }
        return bucket.size();
    });
}

void QNiCloudCache::removeEntryAtRelativePathFromEntriesTree(std::string_view relativePath) {
    if (relativePath.empty()) {
        return;
    }
    removeFromEntriesTree(hashForPath(relativePath),
                          [relativePath] { return std::string(relativePath); });
}

void QNiCloudCache::removeAll() noexcept {
    entriesTree_.removeAllObjects();
    ++indexChanges_;
    ++indexRemovals_;
}

// Moves and copies.

void QNiCloudCache::moveEntryAtPath(std::string_view path, std::string_view toEntryAtPath) {
    const RelativePath source = relativePathOf(path, false);
    const RelativePath destination = relativePathOf(toEntryAtPath, false);
    moveEntryAtRelativePath(source.path, destination.path);
}

void QNiCloudCache::moveEntryAtRelativePath(std::string_view relativePath,
                                            std::string_view toEntryAtRelativePath) {
    const EntryPointer entry = entryForRelativePath(relativePath);
    if (entry == nullptr) {
        return;
    }
    // Own copies: the views may point into entries' names, which change below.
    const std::string source(relativePath);
    const std::string destination(toEntryAtRelativePath);
    const std::string_view sourceParent = deletingLastComponent(source);
    const std::string_view destinationParent = deletingLastComponent(destination);
    const EntryPointer newParent = entryForRelativePath(destinationParent);
    // Inside itself the entry would close a cycle of strong links that no walk ever leaves.
    for (EntryPointer above = newParent; above != nullptr; above = above->parent_.lock()) {
        if (above == entry) {
            return;
        }
    }
    const EntryPointer oldParent = entry->parent_.lock();
    std::string_view oldPrefix = source;
    std::string_view newPrefix = destination;
    if (oldParent != newParent) {
        const EntryPointer prev = entry->prev_.lock();
        if (oldParent != nullptr && oldParent->firstChild_ == entry) {
            oldParent->firstChild_ = entry->next_;
        }
        if (entry->next_ != nullptr) {
            entry->next_->prev_ = prev;
        }
        if (prev != nullptr) {
            prev->next_ = entry->next_;
        }
        entry->next_.reset();
        entry->prev_.reset();
        if (newParent != nullptr) {
            if (newParent->firstChild_ != nullptr) {
                entry->next_ = newParent->firstChild_;
                newParent->firstChild_->prev_ = entry;
            }
            newParent->firstChild_ = entry;
        }
        entry->parent_ = newParent;
        oldPrefix = sourceParent;
        newPrefix = destinationParent;
    }
    entry->setName(lastComponent(destination));
    removeEntryAtRelativePathFromEntriesTree(source);
    storeEntry(entry, hashForPath(destination));

    SubtreeWalk walk(*this, entry, SubtreeWalk::Order::kQueueBeforeVisit,
                     SubtreeWalk::kRelativePaths);
    walk.run([&](SubtreeWalk& visit) {
        const std::string newPath = visit.relativePath();
        const std::string oldPath =
            qn::stringByAppendingPathComponent(oldPrefix, remainderBelow(newPath, newPrefix));
        removeEntryAtRelativePathFromEntriesTree(oldPath);
        storeEntry(visit.entry(), hashForPath(newPath));
        return true;
    });
}

void QNiCloudCache::copyEntryAtPath(std::string_view path, std::string_view toEntryAtPath) {
    const RelativePath source = relativePathOf(path, false);
    const RelativePath destination = relativePathOf(toEntryAtPath, false);
    copyEntryAtRelativePath(source.path, destination.path);
}

void QNiCloudCache::copyEntryAtRelativePath(std::string_view relativePath,
                                            std::string_view toEntryAtRelativePath) {
    const std::string source(relativePath);
    const std::string destination(toEntryAtRelativePath);
    const EntryPointer entry = entryForRelativePath(source);
    // The descendants are listed before anything is created, so that a copy into the source's
    // own subtree copies the tree as it was instead of copying its own copies without end.
    std::vector<std::pair<std::string, std::shared_ptr<QNiCloudMetadataItem>>> descendants;
    SubtreeWalk walk(*this, entry, SubtreeWalk::Order::kQueueBeforeVisit,
                     SubtreeWalk::kRelativePaths);
    walk.run([&](SubtreeWalk& visit) {
        descendants.emplace_back(qn::stringByAppendingPathComponent(
                                     destination, remainderBelow(visit.relativePath(), source)),
                                 notUploadedCopy(visit.entry()->metadataItem_));
        return true;
    });
    createEntryAtRelativePath(destination,
                              entry == nullptr ? nullptr : notUploadedCopy(entry->metadataItem_));
    for (auto& [path, metadataItem] : descendants) {
        createEntryAtRelativePath(path, std::move(metadataItem));
    }
}

// Walks.

void QNiCloudCache::enumerateSubentriesOfEntry(const EntryPointer& entry,
                                               const SubentryBlock& withBlock) const {
    SubtreeWalk walk(*this, entry, SubtreeWalk::Order::kQueueBeforeVisit, 0);
    walk.run([&withBlock](SubtreeWalk& visit) { return withBlock(visit.entry()); });
}

void QNiCloudCache::enumerateSubentriesOfEntryAtPath(std::string_view path,
                                                     const SubentryBlock& withBlock) const {
    enumerateSubentriesOfEntry(entryForPath(path), withBlock);
}

void QNiCloudCache::enumerateSubpathsOfEntry(const EntryPointer& entry,
                                             const SubpathBlock& withBlock) const {
    SubtreeWalk walk(*this, entry, SubtreeWalk::Order::kVisitBeforeQueue, SubtreeWalk::kSubpaths);
    walk.run([&withBlock](SubtreeWalk& visit) { return withBlock(visit.subpath()); });
}

void QNiCloudCache::enumerateSubpathsOfEntryAtPath(std::string_view path,
                                                   const SubpathBlock& withBlock) const {
    enumerateSubpathsOfEntry(entryForPath(path), withBlock);
}

std::vector<std::string> QNiCloudCache::allSubpathsOfEntryAtPath(std::string_view path) const {
    std::vector<std::string> subpaths;
    enumerateSubpathsOfEntryAtPath(path, [&subpaths](std::optional<std::string_view> subpath) {
        if (!subpath) {
            return false;
        }
        subpaths.emplace_back(*subpath);
        return true;
    });
    return subpaths;
}

std::uint64_t QNiCloudCache::numberOfSubentriesForEntryAtPath(std::string_view path) const {
    std::uint64_t count = 0;
    enumerateSubentriesOfEntryAtPath(path, [&count](const EntryPointer&) {
        ++count;
        return true;
    });
    return count;
}
