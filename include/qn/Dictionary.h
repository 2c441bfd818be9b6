#pragma once

// A string-keyed map of Values, sorted by key: the user info of notifications and errors, file
// attributes and metadata attributes. Lookups take a string_view and do not allocate.
// Any thread; a value is not shared mutable state.

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "qn/Value.h"

namespace qn {

class Dictionary {
public:
    using Map = std::map<std::string, Value, std::less<>>;
    using const_iterator = Map::const_iterator;

    Dictionary() = default;
    /// Later entries with a key already present are ignored, as in std::map.
    Dictionary(std::initializer_list<std::pair<const std::string, Value>> entries)
        : entries_(entries) {}

    std::size_t size() const noexcept { return entries_.size(); }
    bool empty() const noexcept { return entries_.empty(); }

    /// The value stored under `key`, or null when there is none.
    const Value* find(std::string_view key) const {
        const auto it = entries_.find(key);
        return it == entries_.end() ? nullptr : &it->second;
    }
    bool contains(std::string_view key) const { return entries_.find(key) != entries_.end(); }
    /// Inserts or replaces.
    void set(std::string key, Value value) {
        entries_.insert_or_assign(std::move(key), std::move(value));
    }
    /// True when an entry was removed.
    bool erase(std::string_view key) {
        const auto it = entries_.find(key);
        if (it == entries_.end()) {
            return false;
        }
        entries_.erase(it);
        return true;
    }

    /// Typed lookups with the answers of the matching Value accessor: null / nullopt when the key
    /// is absent or the value is of another kind; numbers convert as Value's numeric accessors do.
    const std::string* stringForKey(std::string_view key) const;
    std::optional<std::int64_t> int64ForKey(std::string_view key) const;
    std::optional<std::uint64_t> uint64ForKey(std::string_view key) const;
    std::optional<bool> boolForKey(std::string_view key) const;
    std::optional<double> doubleForKey(std::string_view key) const;
    const Date* dateForKey(std::string_view key) const;
    const URL* urlForKey(std::string_view key) const;

    /// In key order.
    const_iterator begin() const noexcept { return entries_.begin(); }
    const_iterator end() const noexcept { return entries_.end(); }

    friend bool operator==(const Dictionary&, const Dictionary&) = default;

    /// For logs: "{key1=value1, key2=value2}" in key order, values as Value::description().
    std::string description() const;

private:
    Map entries_;
};

}  // namespace qn

template <>
struct fmt::formatter<qn::Dictionary> : fmt::formatter<std::string_view> {
    template <class FormatContext>
    auto format(const qn::Dictionary& dictionary, FormatContext& ctx) const -> decltype(ctx.out()) {
        return fmt::formatter<std::string_view>::format(dictionary.description(), ctx);
    }
};
