#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qn/Dictionary.h"
#include "qn/MetadataAttributes.h"

namespace qn {

/// One result of a metadata query: the attributes of one item (keys of MetadataAttributes.h).
/// Immutable once made; a query replaces an item's record when its attributes change. Shared as
/// `std::shared_ptr<const MetadataItem>`; any thread.
///
/// A query holds one item per result and its reader looks attributes up for every result, so an
/// item keeps its values in one array beside a `Layout` (the attribute names and a lookup table)
/// that a producer shares among all the items it reports the same way.
class MetadataItem {
public:
    /// Attribute names in the order an item lists them, with a lookup table from name to
    /// position. Immutable; any thread.
    class Layout {
    public:
        static constexpr std::size_t npos = static_cast<std::size_t>(-1);

        /// Every name of `attributeNames` has a value, at its position; a name given twice keeps
        /// the first position.
        explicit Layout(std::vector<std::string> attributeNames);
        /// Names listed and names with a value may differ: `listedNames` are what `attributes()`
        /// answers, `valueNames` (distinct) the names of the values, in the values' order.
        Layout(std::vector<std::string> listedNames, std::vector<std::string> valueNames);

        const std::vector<std::string>& listedNames() const { return listed_; }
        const std::vector<std::string>& valueNames() const { return names_; }
        /// Where the value of `name` is, or npos.
        std::size_t indexOf(std::string_view name) const;
        /// `indexOf(NSMetadataItemPathKey)`, looked up once.
        std::size_t pathIndex() const { return pathIndex_; }

    private:
        void buildTable();

        std::vector<std::string> listed_;
        std::vector<std::string> names_;
        // Open addressing: position + 1, or 0 for an empty slot; a power of two long.
        std::vector<std::uint16_t> slots_;
        unsigned shift_ = 64;
        std::size_t pathIndex_ = npos;
    };

    /// An item listing every attribute of `values`, in key order.
    explicit MetadataItem(Dictionary values);
    /// An item listing `attributeNames` in that order; a listed name without a value in `values`
    /// has no value, and values whose names are not listed are still answered by
    /// `valueForAttribute`.
    MetadataItem(std::vector<std::string> attributeNames, Dictionary values);
    /// An item with `values[i]` as the value of the `i`-th of `layout`'s value names (a null
    /// Value is answered as a null Value, not as no value). Throws `std::invalid_argument` when
    /// the counts differ or `layout` is null.
    MetadataItem(std::shared_ptr<const Layout> layout, std::vector<Value> values);

    /// The names of the attributes this item lists.
    const std::vector<std::string>& attributes() const { return layout_->listedNames(); }
    /// The value of one attribute, or null when it has none.
    const Value* valueForAttribute(std::string_view name) const {
        const std::size_t index = layout_->indexOf(name);
        return index == Layout::npos ? nullptr : &values_[index];
    }
    /// Every value with its attribute name, as a dictionary (a copy).
    Dictionary values() const;

    /// The item's path attribute, or "" when it has none (or it is not a string). Results are
    /// identified by it.
    const std::string& path() const;

    /// Hints for readers that walk many items and look ahead: ask the memory for the record of
    /// the path value (which reads the item itself), and, once that has had time to arrive, for
    /// the path's text (which reads the record). They change nothing and are never needed.
    void prefetchPathRecord() const noexcept;
    void prefetchPathText() const noexcept;

private:
    std::shared_ptr<const Layout> layout_;
    std::vector<Value> values_;
};

}  // namespace qn
