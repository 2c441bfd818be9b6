#pragma once

// A map from a key to an ordered bucket of values: the index of the metadata cache, where the key
// is a 32-bit path hash and the values are the cache entries whose paths share it. Which value of
// a bucket an operation means is decided by the caller's collision handler, which sees the whole
// bucket and answers an index. The table knows nothing about what it stores.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

/// The values stored under one key, in insertion order. A bucket holding at most one value keeps
/// it in place; the second value moves the bucket to a heap array (buckets of two or more are
/// rare in a path index). Read-only for everyone but the table that owns it.
template <class Value>
class QNHashtableBucket {
public:
    QNHashtableBucket() noexcept = default;
    QNHashtableBucket(const QNHashtableBucket&) = delete;
    QNHashtableBucket& operator=(const QNHashtableBucket&) = delete;
    QNHashtableBucket& operator=(QNHashtableBucket&&) = delete;
    ~QNHashtableBucket() { reset(); }

    std::size_t size() const noexcept {
        return state_ == kMany ? storage_.many->size() : static_cast<std::size_t>(state_);
    }
    bool empty() const noexcept { return size() == 0; }
    const Value* begin() const noexcept {
        return state_ == kMany ? storage_.many->data() : inlineValue();
    }
    const Value* end() const noexcept { return begin() + size(); }
    /// Unchecked.
    const Value& operator[](std::size_t index) const noexcept { return begin()[index]; }
    /// Throws std::out_of_range when `index` is not below size().
    const Value& at(std::size_t index) const {
        if (index >= size()) {
            throw std::out_of_range("QNHashtableBucket: index " + std::to_string(index) +
                                    " beyond bounds of a bucket of " + std::to_string(size()));
        }
        return begin()[index];
    }

private:
    template <class, class, class>
    friend class QNMutableHashtable;

    enum : std::uint32_t { kNone = 0, kOne = 1, kMany = 2, kVacant = 3 };

    // The table's slots start as vacant buckets, then hold a bucket from `occupy` on.
    struct VacantTag {};
    explicit QNHashtableBucket(VacantTag) noexcept : state_(kVacant) {}
    void occupy() noexcept { state_ = kNone; }
    // Takes over the values of `other` (an occupied bucket), leaving it empty.
    void takeFrom(QNHashtableBucket& other) noexcept {
        state_ = other.state_;
        if (state_ == kOne) {
            ::new (static_cast<void*>(storage_.one)) Value(std::move(*other.inlineValue()));
            other.inlineValue()->~Value();
        } else if (state_ == kMany) {
            storage_.many = other.storage_.many;
        }
        other.state_ = kNone;
    }

    Value* inlineValue() noexcept { return std::launder(reinterpret_cast<Value*>(storage_.one)); }
    const Value* inlineValue() const noexcept {
        return std::launder(reinterpret_cast<const Value*>(storage_.one));
    }

    void pushBack(Value value) {
        if (state_ == kNone) {
            ::new (static_cast<void*>(storage_.one)) Value(std::move(value));
            state_ = kOne;
        } else if (state_ == kOne) {
            auto many = std::make_unique<std::vector<Value>>();
            many->reserve(2);
            many->push_back(std::move(*inlineValue()));
            many->push_back(std::move(value));
            inlineValue()->~Value();
            storage_.many = many.release();
            state_ = kMany;
        } else {
            storage_.many->push_back(std::move(value));
        }
    }

    // Takes the value at `index` (which must be valid) out of the bucket, so that the caller can
    // let it go after the bucket is consistent again: destroying a value may run arbitrary code.
    Value take(std::size_t index) {
        if (state_ == kOne) {
            Value taken(std::move(*inlineValue()));
            inlineValue()->~Value();
            state_ = kNone;
            return taken;
        }
        std::vector<Value>& many = *storage_.many;
        Value taken(std::move(many[index]));
        many.erase(many.begin() + static_cast<std::ptrdiff_t>(index));
        if (many.size() <= 1) {
            std::unique_ptr<std::vector<Value>> owned(storage_.many);
            state_ = kNone;
            if (!owned->empty()) {
                ::new (static_cast<void*>(storage_.one)) Value(std::move(owned->front()));
                state_ = kOne;
            }
        }
        return taken;
    }

    void reset() noexcept {
        if (state_ == kOne) {
            inlineValue()->~Value();
        } else if (state_ == kMany) {
            delete storage_.many;
        }
        state_ = kNone;
    }

    union Storage {
        alignas(Value) unsigned char one[sizeof(Value)];
        std::vector<Value>* many;
    } storage_;
    // Last, so that the table can keep the key in the padding after it.
    std::uint32_t state_ = kNone;
};

/// Spreads a key over 32 bits for the table's slot choice. The path hashes the cache uses are
/// FNV values, whose low bits are poorly mixed, so even integral keys go through a finaliser.
template <class Key>
struct QNHashtableKeyHash {
    std::uint32_t operator()(const Key& key) const noexcept {
        std::uint64_t h;
        if constexpr (std::is_integral_v<Key> || std::is_enum_v<Key>) {
            h = static_cast<std::uint64_t>(key);
        } else {
            h = static_cast<std::uint64_t>(std::hash<Key>{}(key));
        }
        h ^= h >> 33;
        h *= 0xff51afd7ed558ccdULL;
        h ^= h >> 33;
        h *= 0xc4ceb9fe1a85ec53ULL;
        h ^= h >> 33;
        return static_cast<std::uint32_t>(h);
    }
};

/// Multi-value hashtable: each key has an ordered bucket of values.
///
/// - `setObject` appends to the key's bucket (creating it); duplicates are stored again.
/// - Buckets are never removed once created: a bucket whose last value was removed stays, empty,
///   until `removeAllObjects`. So `allObjectsForKey` distinguishes "never stored" (nullptr) from
///   "stored, then emptied" (an empty bucket).
/// - Which value of a bucket an operation means is the collision handler's answer: any callable
///   taking `const Bucket&` and returning a `std::size_t` index into it.
/// - An index that is out of range, whether a handler answered it or `objectForKey` asked for the
///   first value of an emptied bucket, throws std::out_of_range; the table never acts on another
///   value instead.
///
/// Ownership: the table owns its values (a bucket holds them by value; for the cache, shared
/// pointers). Pointers and references it returns (values, buckets) stay valid until the next
/// `setObject`, removal or `removeAllObjects`, whichever comes first.
///
/// Storage: open addressing with linear probing over slots that hold the key beside its bucket,
/// so that a lookup usually reads one cache line of the table; growth by half when four fifths
/// of the slots are in use.
///
/// Threads: none of its own; not thread-safe. The cache that owns one uses it under the
/// presenter's cache lock.
template <class Key, class Value, class Hash = QNHashtableKeyHash<Key>>
class QNMutableHashtable {
public:
    using Bucket = QNHashtableBucket<Value>;
    using CollisionsHandler = std::function<std::size_t(const Bucket&)>;

    QNMutableHashtable() noexcept = default;
    QNMutableHashtable(const QNMutableHashtable&) = delete;
    QNMutableHashtable& operator=(const QNMutableHashtable&) = delete;
    QNMutableHashtable(QNMutableHashtable&& other) noexcept { swap(other); }
    QNMutableHashtable& operator=(QNMutableHashtable&& other) noexcept {
        QNMutableHashtable(std::move(other)).swap(*this);
        return *this;
    }
    ~QNMutableHashtable() { destroyAll(); }

    void swap(QNMutableHashtable& other) noexcept {
        std::swap(slots_, other.slots_);
        std::swap(capacity_, other.capacity_);
        std::swap(buckets_, other.buckets_);
        std::swap(count_, other.count_);
    }

    /// The number of values over all buckets.
    std::uint64_t count() const noexcept { return count_; }

    /// Appends `value` at the end of the bucket of `forKey`, creating the bucket when the key has
    /// none.
    void setObject(Value value, const Key& forKey) {
        Slot* slot = find(forKey, hash_(forKey));
        if (slot == nullptr) {
            slot = insertSlot(forKey);
        }
        slot->pushBack(std::move(value));
        ++count_;
    }

    /// The first value of the key's bucket; nullptr when the key has no bucket. Throws
    /// std::out_of_range when the bucket has been emptied.
    const Value* objectForKey(const Key& key) const {
        const Slot* slot = find(key, hash_(key));
        return slot == nullptr ? nullptr : &slot->at(0);
    }

    /// The value at the index `withCollisionsHandler` answers for the key's bucket, asked even
    /// when the bucket holds one value. nullptr (handler not called) when the key has no bucket;
    /// std::out_of_range when the answer is not an index of the bucket.
    template <class Handler>
    const Value* objectForKey(const Key& key, Handler&& withCollisionsHandler) const {
        const Slot* slot = find(key, hash_(key));
        if (slot == nullptr) {
            return nullptr;
        }
        const Bucket& bucket = *slot;
        const std::size_t index = std::forward<Handler>(withCollisionsHandler)(bucket);
        return &bucket.at(index);
    }

    /// The key's bucket itself (live, not a copy), or nullptr when the key has none.
    const Bucket* allObjectsForKey(const Key& key) const { return find(key, hash_(key)); }
    /// A hint for callers that look many keys up: asks the memory early for the slot where the
    /// search for `key` starts. Changes nothing.
    void prefetchKey(const Key& key) const noexcept {
        if (capacity_ != 0) {
            __builtin_prefetch(&slots_[firstIndex(hash_(key))]);
        }
    }

    /// The size of the key's bucket; 0 when it has none or it is empty.
    std::uint64_t collisionsCountForKey(const Key& key) const {
        const Slot* slot = find(key, hash_(key));
        return slot == nullptr ? 0 : slot->size();
    }

    /// Removes one value of the key's bucket: the only one without asking the handler, otherwise
    /// the one at the index `withCollisionsHandler` answers (std::out_of_range when that is not an
    /// index of the bucket; nothing is removed then). A missing or empty bucket: nothing happens
    /// and the handler is not called. The bucket stays, even when emptied.
    template <class Handler>
    void removeObjectForKey(const Key& key, Handler&& withCollisionsHandler) {
        Slot* slot = find(key, hash_(key));
        if (slot == nullptr || slot->empty()) {
            return;
        }
        std::size_t index = 0;
        if (slot->size() > 1) {
            const Bucket& bucket = *slot;
            index = std::forward<Handler>(withCollisionsHandler)(bucket);
            (void)bucket.at(index);  // Range check before anything changes.
        }
        Value removed = slot->take(index);
        --count_;
        // `removed` is released last, with the table consistent.
    }

    /// Empties the table, buckets included.
    void removeAllObjects() noexcept { QNMutableHashtable().swap(*this); }

    /// Calls `visit(key, bucket)` for every bucket, emptied ones included, in no particular
    /// order. `visit` must not change the table.
    template <class Visitor>
    void enumerateKeysAndBuckets(Visitor&& visit) const {
        for (std::size_t i = 0; i < capacity_; ++i) {
            const Slot& slot = slots_[i];
            if (slot.occupied()) {
                visit(slot.key, static_cast<const Bucket&>(slot));
            }
        }
    }

    /// The number of buckets, emptied ones included.
    std::size_t bucketsCount() const noexcept { return buckets_; }

    /// Bytes held by the table's slots (not what the values own).
    std::size_t allocatedBytes() const noexcept { return capacity_ * sizeof(Slot); }

private:
    // The key sits in the bucket's tail padding where the ABI allows it (24 bytes in all for
    // 32-bit keys and shared pointers on the usual 64-bit ABIs).
    struct Slot : Bucket {
        Slot() noexcept : Bucket(typename Bucket::VacantTag{}) {}
        bool occupied() const noexcept { return this->state_ != Bucket::kVacant; }
        Key key{};
    };

    std::size_t firstIndex(std::uint32_t h) const noexcept {
        return static_cast<std::size_t>((static_cast<std::uint64_t>(h) * capacity_) >> 32);
    }
    std::size_t following(std::size_t index) const noexcept {
        return index + 1 == capacity_ ? 0 : index + 1;
    }

    // As buckets are never removed, a free slot ends every search.
    Slot* find(const Key& key, std::uint32_t h) const {
        if (capacity_ == 0) {
            return nullptr;
        }
        for (std::size_t i = firstIndex(h);; i = following(i)) {
            Slot& slot = slots_[i];
            if (!slot.occupied()) {
                return nullptr;
            }
            if (slot.key == key) {
                return &slot;
            }
        }
    }

    Slot* insertSlot(const Key& key) {
        if ((buckets_ + 1) * 5 > capacity_ * 4) {
            grow();
        }
        Slot* slot = freeSlot(hash_(key));
        slot->key = key;
        slot->occupy();
        ++buckets_;
        return slot;
    }

    Slot* freeSlot(std::uint32_t h) const noexcept {
        for (std::size_t i = firstIndex(h);; i = following(i)) {
            if (!slots_[i].occupied()) {
                return &slots_[i];
            }
        }
    }

    void grow() {
        const std::size_t capacity = capacity_ < 8 ? 8 : capacity_ + capacity_ / 2;
        std::unique_ptr<Slot[]> old(new Slot[capacity]);
        std::swap(old, slots_);
        const std::size_t oldCapacity = capacity_;
        capacity_ = capacity;
        for (std::size_t i = 0; i < oldCapacity; ++i) {
            if (old[i].occupied()) {
                Slot* slot = freeSlot(hash_(old[i].key));
                slot->key = std::move(old[i].key);
                slot->takeFrom(old[i]);
            }
        }
    }

    void destroyAll() noexcept {
        slots_.reset();
        capacity_ = 0;
        buckets_ = 0;
        count_ = 0;
    }

    std::unique_ptr<Slot[]> slots_;
    std::size_t capacity_ = 0;
    std::size_t buckets_ = 0;
    std::uint64_t count_ = 0;
    [[no_unique_address]] Hash hash_{};
};
