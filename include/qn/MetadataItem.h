#pragma once

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
class MetadataItem {
public:
    /// An item listing every attribute of `values`, in key order.
    explicit MetadataItem(Dictionary values);
    /// An item listing `attributeNames` in that order; a listed name without a value in `values`
    /// has no value, and values whose names are not listed are still answered by
    /// `valueForAttribute`.
    MetadataItem(std::vector<std::string> attributeNames, Dictionary values)
        : attributes_(std::move(attributeNames)), values_(std::move(values)) {}

    /// The names of the attributes this item lists.
    const std::vector<std::string>& attributes() const { return attributes_; }
    /// The value of one attribute, or null when it has none.
    const Value* valueForAttribute(std::string_view name) const { return values_.find(name); }
    const Dictionary& values() const { return values_; }

    /// The item's path attribute, or "" when it has none. Results are identified by it.
    std::string path() const;

private:
    std::vector<std::string> attributes_;
    Dictionary values_;
};

}  // namespace qn
