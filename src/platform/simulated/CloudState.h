#pragma once

// Everything the simulated cloud knows, guarded as a whole by its `mutex_`. Private to the
// simulated cloud.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ContainerTable.h"
#include "Feed.h"
#include "qn/FileVersionRecord.h"
#include "qn/SimulatedCloud.h"

namespace qn::simulated {

struct ItemRecord {
    std::string folder;        // of its container, as ContainerTable spells it
    std::string relativePath;  // as first named
    SimulatedItemState state;
    std::vector<FileVersionRecord> versions;  // in the order they were added
    /// The path the feeds last heard for this item ("" before the first report), so that a
    /// report under a new path also removes the old one.
    std::string reportedPath;
};

struct CloudState {
    std::optional<std::string> account;
    bool networkReachable = true;
    std::chrono::steady_clock::duration containerLookupDelay{};

    ContainerTable containers;
    std::map<std::string, ItemRecord> items;                             // by ItemLocation::itemKey
    std::map<std::string, SimulatedDownloadBehavior> downloadBehaviors;  // by item key
    SimulatedDownloadBehavior defaultDownloadBehavior;

    std::map<std::uint64_t, std::shared_ptr<Feed>> feeds;  // running feeds, by id
    std::uint64_t lastFeedId = 0;
    std::size_t gatheringBatchSize = 0;
    bool automaticDelivery = false;
    /// Feeds that need an automatic delivery scheduled once the lock is released.
    std::vector<std::uint64_t> feedsToSchedule;

    std::uint64_t lastVersionId = 0;
    /// Where version contents live; "" until the first version. Written with the operation
    /// lock held as well.
    std::string versionsDirectory;

    /// The local path of `item` below the drive directory `drive`.
    static std::string localPath(const std::string& drive, const ItemRecord& item);

    /// Queues the item's current report for every feed whose scope holds it.
    void reportChange(const std::string& drive, ItemRecord& item);
    /// Queues the removal of the item for every feed whose scope holds it.
    void reportRemoval(const ItemRecord& item);
    /// Notes that `feed` has batches to deliver.
    void queued(Feed& feed);
};

}  // namespace qn::simulated
