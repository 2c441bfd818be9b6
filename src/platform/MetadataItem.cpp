#include "qn/MetadataItem.h"

namespace qn {

MetadataItem::MetadataItem(Dictionary values) : values_(std::move(values)) {
    attributes_.reserve(values_.size());
    for (const auto& [name, value] : values_) {
        attributes_.push_back(name);
    }
}

std::string MetadataItem::path() const {
    const auto* path = values_.stringForKey(NSMetadataItemPathKey);
    return path ? *path : std::string();
}

}  // namespace qn
