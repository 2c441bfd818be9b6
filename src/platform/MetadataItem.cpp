#include "qn/MetadataItem.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>

#include "qn/Prefetch.h"

namespace qn {
namespace {

std::uint64_t load(const char* bytes, std::size_t count) {
    std::uint64_t value = 0;
    std::memcpy(&value, bytes, count);
    return value;
}

// Attribute names share long beginnings ("NSMetadataUbiquitousItem") and their ending ("Key"),
// so the hash mixes the length with the last eight bytes and eight from the middle; the top bits
// of the product pick the slot.
std::uint64_t attributeHash(std::string_view name) {
    const std::size_t size = name.size();
    const std::uint64_t tail =
        size >= 8 ? load(name.data() + size - 8, 8) : load(name.data(), size);
    const std::uint64_t middle = size >= 16 ? load(name.data() + size / 2 - 4, 8) : 0;
    return (tail ^ std::rotl(middle, 29) ^ size) * 0x9E3779B97F4A7C15ull;
}

std::vector<std::string> keysOf(const Dictionary& values) {
    std::vector<std::string> keys;
    keys.reserve(values.size());
    for (const auto& [key, value] : values) {
        keys.push_back(key);
    }
    return keys;
}

std::vector<Value> valuesOf(Dictionary values) {
    std::vector<Value> result;
    result.reserve(values.size());
    for (const auto& [key, value] : values) {
        result.push_back(value);
    }
    return result;
}

}  // namespace

MetadataItem::Layout::Layout(std::vector<std::string> attributeNames)
    : listed_(attributeNames), names_(std::move(attributeNames)) {
    buildTable();
}

MetadataItem::Layout::Layout(std::vector<std::string> listedNames,
                             std::vector<std::string> valueNames)
    : listed_(std::move(listedNames)), names_(std::move(valueNames)) {
    buildTable();
}

void MetadataItem::Layout::buildTable() {
    if (names_.size() >= 0xFFFF) {
        throw std::invalid_argument("MetadataItem::Layout: too many attributes");
    }
    // At most half full, so that a probe ends soon at an empty slot.
    const std::size_t size = std::max<std::size_t>(8, std::bit_ceil(names_.size() * 2));
    slots_.assign(size, 0);
    shift_ = 64 - static_cast<unsigned>(std::countr_zero(size));
    for (std::size_t i = 0; i < names_.size(); ++i) {
        if (indexOf(names_[i]) != npos) {
            continue;  // a repeated name is found at its first position
        }
        std::size_t slot = attributeHash(names_[i]) >> shift_;
        while (slots_[slot] != 0) {
            slot = (slot + 1) & (size - 1);
        }
        slots_[slot] = static_cast<std::uint16_t>(i + 1);
    }
    pathIndex_ = indexOf(NSMetadataItemPathKey);
}

std::size_t MetadataItem::Layout::indexOf(std::string_view name) const {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t slot = attributeHash(name) >> shift_;; slot = (slot + 1) & mask) {
        const std::uint16_t entry = slots_[slot];
        if (entry == 0) {
            return npos;
        }
        if (std::string_view(names_[entry - 1]) == name) {
            return entry - 1;
        }
    }
}

MetadataItem::MetadataItem(Dictionary values)
    : layout_(std::make_shared<const Layout>(keysOf(values))),
      values_(valuesOf(std::move(values))) {}

MetadataItem::MetadataItem(std::vector<std::string> attributeNames, Dictionary values)
    : layout_(std::make_shared<const Layout>(std::move(attributeNames), keysOf(values))),
      values_(valuesOf(std::move(values))) {}

MetadataItem::MetadataItem(std::shared_ptr<const Layout> layout, std::vector<Value> values)
    : layout_(std::move(layout)), values_(std::move(values)) {
    if (layout_ == nullptr || layout_->valueNames().size() != values_.size()) {
        throw std::invalid_argument("MetadataItem: the values do not match the layout");
    }
}

Dictionary MetadataItem::values() const {
    Dictionary result;
    const auto& names = layout_->valueNames();
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (!result.contains(names[i])) {
            result.set(names[i], values_[i]);
        }
    }
    return result;
}

void MetadataItem::prefetchPathRecord() const noexcept {
    const std::size_t index = layout_->pathIndex();
    if (index != Layout::npos) {
        prefetchRange(&values_[index], sizeof(Value));
    }
}

void MetadataItem::prefetchPathText() const noexcept {
    const std::string& text = path();
    if (text.size() > 15) {  // shorter text is kept inside the record
        prefetchRange(text.data(), text.size());
    }
}

const std::string& MetadataItem::path() const {
    static const std::string none;
    const std::size_t index = layout_->pathIndex();
    const std::string* path = index == Layout::npos ? nullptr : values_[index].stringValue();
    return path != nullptr ? *path : none;
}

}  // namespace qn
