#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "qn/MetadataItem.h"
#include "qn/MetadataPredicate.h"
#include "qn/Object.h"

namespace qn {

class UbiquityService;

/// A live query over the metadata of the items in the cloud, fed by the current
/// `UbiquityService`. After `startQuery` it gathers the items of its search scopes that its
/// predicate keeps, then follows their changes. It tells about progress with notifications, the
/// query as sender, posted through the default notification centre on the main thread:
///   - `NSMetadataQueryDidStartGatheringNotification` once, when started;
///   - `NSMetadataQueryGatheringProgressNotification` after each gathered batch is in the
///     results;
///   - `NSMetadataQueryDidFinishGatheringNotification` once, when gathering is complete;
///   - `NSMetadataQueryDidUpdateNotification` afterwards, once per batch of changes: changes are
///     reported `notificationBatchingInterval` after the first unreported one arrived (also one
///     that arrived during gathering or while updates were disabled), together with every change
///     that arrived meanwhile.
/// Results change only on the main thread, just before the notification that reports them, and
/// never while updates are disabled: a reader on another thread brackets its reading with
/// `disableUpdates` / `enableUpdates` to see a frozen list; changes that arrive meanwhile wait.
///
/// Create with `std::make_shared` (a subclass may add fields). Configure it before starting it.
/// Start and stop it on the main thread; every other member may be called from any thread.
///
/// Locking: `mutex_` guards all mutable state; it is never held while a notification is posted
/// or the service is called.
class MetadataQuery : public Object {
public:
    MetadataQuery();
    ~MetadataQuery() override;

    void setSearchScopes(std::vector<std::string> scopes);
    std::vector<std::string> searchScopes() const;
    void setPredicate(MetadataPredicate predicate);
    MetadataPredicate predicate() const;
    /// Seconds; the default is 1.0. Takes effect for the next batch of changes.
    void setNotificationBatchingInterval(double seconds);
    double notificationBatchingInterval() const;

    /// Starts gathering. False when the query was started before (a stopped query cannot be
    /// started again) or is not owned by a `std::shared_ptr`.
    bool startQuery();
    /// Stops following changes; the results stay as they are and no further notification of
    /// this query is posted.
    void stopQuery();
    bool isStarted() const;
    bool isGathering() const;
    bool isStopped() const;

    /// Freezes the results (nestable). Any thread.
    void disableUpdates();
    /// Ends one `disableUpdates`; changes that waited are applied on the main thread soon after.
    void enableUpdates();

    std::size_t resultCount() const;
    /// Throws `std::out_of_range` for an index not below `resultCount()`.
    std::shared_ptr<const MetadataItem> resultAtIndex(std::size_t index) const;
    /// Calls `block` for each result in order, until it sets `stop`; it walks the results as
    /// they were when the call began, and holds no lock while `block` runs. The results stay
    /// frozen for the walk, as between `disableUpdates` and `enableUpdates`: changes that arrive
    /// meanwhile wait until it ends, so it walks them in place instead of copying them.
    void enumerateResultsUsingBlock(
        const std::function<void(const std::shared_ptr<const MetadataItem>& result,
                                 std::size_t index, bool& stop)>& block) const;
    /// As enumerateResultsUsingBlock, but hands the frozen results over in spans of at most
    /// `spanLength` (at least 1), for readers that look ahead within a span (to ask the memory
    /// early for what the next results will need). `firstIndex` is the index of the span's first
    /// result.
    void enumerateResultSpansUsingBlock(
        std::size_t spanLength,
        const std::function<void(std::span<const std::shared_ptr<const MetadataItem>> results,
                                 std::size_t firstIndex, bool& stop)>& block) const;
    std::vector<std::shared_ptr<const MetadataItem>> results() const;

private:
    class FeedObserver;
    struct Batch {
        enum class Kind { Gathered, FinishedGathering, Changed } kind;
        std::vector<std::shared_ptr<const MetadataItem>> items;
        std::vector<std::string> removedPaths;
    };

    void receive(Batch batch);
    /// Hands the next apply to the main queue unless one is already handed over or updates are
    /// disabled: at once for gathering, when the waiting changes are due for changes.
    void scheduleApplyLocked();
    /// One turn of the main queue: applies the first waiting batch, schedules the next turn
    /// (before posting, so that an observer that throws stops nothing) and posts.
    void applyPending();
    /// Applies the first waiting batch (all waiting changes at once); the notification to post,
    /// or null when nothing was applied.
    const char* applyNextLocked();
    /// False when the item replaced a result but the predicate no longer keeps it, leaving a
    /// hole for `compactLocked` to close.
    bool addOrReplaceLocked(const std::shared_ptr<const MetadataItem>& item);
    void compactLocked();
    void post(const char* name);

    mutable std::mutex mutex_;
    std::vector<std::string> scopes_;
    MetadataPredicate predicate_;
    double batchingInterval_ = 1.0;
    bool started_ = false;
    bool gathering_ = false;
    bool stopped_ = false;
    int disabled_ = 0;
    bool applyScheduled_ = false;
    // When the waiting changes are to be reported: the first one's arrival plus the batching
    // interval. Set while a change batch waits.
    std::optional<std::chrono::steady_clock::time_point> changesDue_;
    std::deque<Batch> waiting_;
    std::vector<std::shared_ptr<const MetadataItem>> results_;
    // Each key views the path of the result at its index, which that result keeps alive: a
    // result is replaced or removed only together with its key.
    std::unordered_map<std::string_view, std::size_t> indexByPath_;
    std::shared_ptr<UbiquityService> service_;
    std::uint64_t feed_ = 0;
};

}  // namespace qn
