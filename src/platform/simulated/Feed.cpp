#include "Feed.h"

#include <algorithm>
#include <utility>

namespace qn::simulated {

void Feed::queueGathering(std::vector<std::shared_ptr<const MetadataItem>> items,
                          std::size_t batchSize) {
    if (batchSize == 0 || items.size() <= batchSize) {
        pending.push_back(Batch{Batch::Kind::Gather, std::move(items), {}});
    } else {
        for (std::size_t first = 0; first < items.size(); first += batchSize) {
            const auto begin = items.begin() + static_cast<std::ptrdiff_t>(first);
            const auto end = items.begin() +
                             static_cast<std::ptrdiff_t>(std::min(items.size(), first + batchSize));
            pending.push_back(Batch{Batch::Kind::Gather, {begin, end}, {}});
        }
    }
    pending.push_back(Batch{Batch::Kind::FinishGathering, {}, {}});
}

Batch& Feed::openChangeBatch() {
    if (pending.size() <= claimed || pending.back().kind != Batch::Kind::Change) {
        pending.push_back(Batch{});
    }
    return pending.back();
}

void Feed::queueChange(std::shared_ptr<const MetadataItem> item) {
    Batch& batch = openChangeBatch();
    const std::string& path = item->path();
    std::erase(batch.removedPaths, path);
    const auto earlier = std::find_if(batch.items.begin(), batch.items.end(),
                                      [&](const auto& other) { return other->path() == path; });
    if (earlier != batch.items.end()) {
        *earlier = std::move(item);  // keeps the place of its first change
    } else {
        batch.items.push_back(std::move(item));
    }
}

void Feed::queueRemoval(const std::string& path) {
    Batch& batch = openChangeBatch();
    std::erase_if(batch.items, [&](const auto& item) { return item->path() == path; });
    if (std::find(batch.removedPaths.begin(), batch.removedPaths.end(), path) ==
        batch.removedPaths.end()) {
        batch.removedPaths.push_back(path);
    }
}

}  // namespace qn::simulated
