#pragma once

// One running metadata feed of the simulated cloud: its scopes, its observer and the batches
// queued for it. Private to the simulated cloud; every member is guarded by the cloud's lock.

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qn/MetadataFeed.h"

namespace qn::simulated {

/// What one observer call will carry.
struct Batch {
    enum class Kind { Gather, FinishGathering, Change };
    Kind kind = Kind::Change;
    std::vector<std::shared_ptr<const MetadataItem>> items;  // gathered, or added or changed
    std::vector<std::string> removedPaths;
};

struct Feed {
    std::uint64_t id = 0;
    bool coversDocuments = false;
    bool coversData = false;
    /// False for a feed started without an account: it gathers nothing and hears nothing.
    bool hearsChanges = false;
    std::shared_ptr<MetadataFeedObserver> observer;  // null once stopped
    std::deque<Batch> pending;
    /// How many of the first pending batches a running `deliverQueryBatches` call has promised
    /// to deliver: later changes never merge into them.
    std::size_t claimed = 0;

    bool stopped = false;
    /// A delivery is running on `deliveringThread`; no other may start.
    bool delivering = false;
    std::thread::id deliveringThread;
    /// An automatic delivery is scheduled or running.
    bool automaticScheduled = false;

    bool covers(bool inDocumentsScope) const {
        return hearsChanges && (inDocumentsScope ? coversDocuments : coversData);
    }

    /// Queues `items` as gathering batches of `batchSize` (0: one batch; at least one batch,
    /// empty when there are no items), then the end of gathering.
    void queueGathering(std::vector<std::shared_ptr<const MetadataItem>> items,
                        std::size_t batchSize);
    /// Merges a changed item into the change batch at the end of the queue (starting one when
    /// the last batch is not a change): it replaces an earlier report or removal of its path.
    void queueChange(std::shared_ptr<const MetadataItem> item);
    /// Merges the removal of `path` the same way.
    void queueRemoval(const std::string& path);

private:
    Batch& openChangeBatch();
};

}  // namespace qn::simulated
