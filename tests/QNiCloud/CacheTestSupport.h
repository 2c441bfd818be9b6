#pragma once

// Independent views of a QNiCloudCache for its tests: the path hash computed the plain way, the
// index as (hash, relative paths of its bucket) records, and the tree as the relative paths of a
// sub-entry walk.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QNiCloud/QNiCloudCache.h"
#include "qn/util/PathNormalization.h"

namespace qn::test {

/// FNV-1, 32 bits, over the UTF-8 bytes of lowercaseNFC(path), held signed.
inline std::int32_t referencePathHash(std::string_view path) {
    std::uint32_t h = 2166136261u;
    for (const char byte : qn::lowercaseNFC(path)) {
        h = (h * 16777619u) ^ static_cast<unsigned char>(byte);
    }
    return static_cast<std::int32_t>(h);
}

/// Pairs of relative paths with equal hashes.
inline const std::vector<std::pair<std::string, std::string>> kCollidingPaths = {
    {"/c/uvsp0vu", "/c/p5ed9lx"},
    {"/c/igdpyiu", "/c/3mcev5j"},
    {"/c/d/4a9pkwc", "/c/d/9xuc0aa"},
    {"/75gjqeg", "/dr7l5gu"},
};

inline std::shared_ptr<QNiCloudMetadataItem> snapshot(bool uploaded = true) {
    auto item = std::make_shared<QNiCloudMetadataItem>();
    item->setIsUploaded(uploaded);
    return item;
}

using IndexRecords = std::vector<std::pair<std::int32_t, std::vector<std::string>>>;

/// Every bucket of the index (emptied ones included) with the relative paths of its entries in
/// bucket order, sorted by hash.
inline IndexRecords indexRecords(const QNiCloudCache& cache) {
    IndexRecords records;
    cache.entriesTree().enumerateKeysAndBuckets([&](std::int32_t key, const auto& bucket) {
        std::vector<std::string> paths;
        for (const auto& entry : bucket) {
            paths.push_back(cache.relativePathForEntry(entry).value_or("<none>"));
        }
        records.emplace_back(key, std::move(paths));
    });
    std::sort(records.begin(), records.end());
    return records;
}

/// Names of the children of `entry`, in list order.
inline std::vector<std::string> childNames(const std::shared_ptr<QNiCloudCacheEntry>& entry) {
    std::vector<std::string> names;
    for (auto child = entry->firstChild(); child != nullptr; child = child->next()) {
        names.emplace_back(child->name());
    }
    return names;
}

}  // namespace qn::test
