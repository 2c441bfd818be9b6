#include "qn/MetadataQuery.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "qn/DispatchQueue.h"
#include "qn/MainQueue.h"
#include "qn/MetadataFeed.h"
#include "qn/NotificationCenter.h"
#include "qn/UbiquityService.h"

namespace qn {

/// Hands what the service reports to the query. Holds the query weakly: the service keeps the
/// observer until the feed stops, and must not keep the query alive.
class MetadataQuery::FeedObserver final : public MetadataFeedObserver {
public:
    explicit FeedObserver(std::weak_ptr<MetadataQuery> query) : query_(std::move(query)) {}

    void feedDidGather(std::vector<std::shared_ptr<const MetadataItem>> items) override {
        forward({Batch::Kind::Gathered, std::move(items), {}});
    }
    void feedDidFinishGathering() override { forward({Batch::Kind::FinishedGathering, {}, {}}); }
    void feedDidChange(std::vector<std::shared_ptr<const MetadataItem>> addedOrChanged,
                       std::vector<std::string> removedPaths) override {
        forward({Batch::Kind::Changed, std::move(addedOrChanged), std::move(removedPaths)});
    }

private:
    void forward(Batch batch) {
        if (const auto query = query_.lock()) {
            query->receive(std::move(batch));
        }
    }

    std::weak_ptr<MetadataQuery> query_;
};

MetadataQuery::MetadataQuery() = default;

MetadataQuery::~MetadataQuery() {
    if (started_ && !stopped_ && feed_ != 0) {
        // Not stopped inline: the last reference may go inside one of this feed's own calls.
        DispatchQueue::global().async(
            [service = service_, feed = feed_] { service->stopMetadataFeed(feed); });
    }
}

void MetadataQuery::setSearchScopes(std::vector<std::string> scopes) {
    std::lock_guard lock(mutex_);
    scopes_ = std::move(scopes);
}

std::vector<std::string> MetadataQuery::searchScopes() const {
    std::lock_guard lock(mutex_);
    return scopes_;
}

void MetadataQuery::setPredicate(MetadataPredicate predicate) {
    std::lock_guard lock(mutex_);
    predicate_ = std::move(predicate);
}

MetadataPredicate MetadataQuery::predicate() const {
    std::lock_guard lock(mutex_);
    return predicate_;
}

void MetadataQuery::setNotificationBatchingInterval(double seconds) {
    std::lock_guard lock(mutex_);
    batchingInterval_ = seconds;
}

double MetadataQuery::notificationBatchingInterval() const {
    std::lock_guard lock(mutex_);
    return batchingInterval_;
}

bool MetadataQuery::startQuery() {
    const auto self = std::static_pointer_cast<MetadataQuery>(weak_from_this().lock());
    if (!self) {
        return false;
    }
    std::shared_ptr<UbiquityService> service;
    std::vector<std::string> scopes;
    {
        std::lock_guard lock(mutex_);
        if (started_) {
            return false;
        }
        started_ = true;
        gathering_ = true;
        service_ = service = UbiquityService::current();
        scopes = scopes_;
    }
    MainQueue::async([self] { self->post(NSMetadataQueryDidStartGatheringNotification); });
    const auto feed = service->startMetadataFeed(scopes, std::make_shared<FeedObserver>(self));
    bool stoppedMeanwhile = false;
    {
        std::lock_guard lock(mutex_);
        feed_ = feed;
        stoppedMeanwhile = stopped_;
    }
    if (stoppedMeanwhile) {
        service->stopMetadataFeed(feed);
    }
    return true;
}

void MetadataQuery::stopQuery() {
    std::shared_ptr<UbiquityService> service;
    std::uint64_t feed = 0;
    {
        std::lock_guard lock(mutex_);
        if (!started_ || stopped_) {
            return;
        }
        stopped_ = true;
        gathering_ = false;
        waiting_.clear();
        service = service_;
        feed = feed_;
    }
    if (feed != 0) {
        service->stopMetadataFeed(feed);
    }
}

bool MetadataQuery::isStarted() const {
    std::lock_guard lock(mutex_);
    return started_ && !stopped_;
}

bool MetadataQuery::isGathering() const {
    std::lock_guard lock(mutex_);
    return gathering_;
}

bool MetadataQuery::isStopped() const {
    std::lock_guard lock(mutex_);
    return stopped_;
}

void MetadataQuery::disableUpdates() {
    std::lock_guard lock(mutex_);
    ++disabled_;
}

void MetadataQuery::enableUpdates() {
    std::lock_guard lock(mutex_);
    if (disabled_ > 0 && --disabled_ == 0) {
        scheduleApplyLocked();
    }
}

std::size_t MetadataQuery::resultCount() const {
    std::lock_guard lock(mutex_);
    return results_.size();
}

std::shared_ptr<const MetadataItem> MetadataQuery::resultAtIndex(std::size_t index) const {
    std::lock_guard lock(mutex_);
    if (index >= results_.size()) {
        throw std::out_of_range("MetadataQuery::resultAtIndex: index " + std::to_string(index) +
                                " beyond " + std::to_string(results_.size()) + " results");
    }
    return results_[index];
}

void MetadataQuery::enumerateResultsUsingBlock(
    const std::function<void(const std::shared_ptr<const MetadataItem>&, std::size_t, bool&)>&
        block) const {
    enumerateResultSpansUsingBlock(
        1, [&block](std::span<const std::shared_ptr<const MetadataItem>> results, std::size_t index,
                    bool& stop) { block(results.front(), index, stop); });
}

void MetadataQuery::enumerateResultSpansUsingBlock(
    std::size_t spanLength,
    const std::function<void(std::span<const std::shared_ptr<const MetadataItem>>, std::size_t,
                             bool&)>& block) const {
    // Results change only under `mutex_` and only while nothing freezes them, so once the walk
    // has frozen them they can be read without the lock until its `enableUpdates`, which also
    // hands over the changes that waited meanwhile. Freezing changes nothing a caller can see,
    // and queries are always made mutable (`std::make_shared`), hence the cast.
    auto& self = const_cast<MetadataQuery&>(*this);
    const auto keepAlive = weak_from_this().lock();  // the block may drop the last reference
    std::size_t count = 0;
    {
        std::lock_guard lock(mutex_);
        ++self.disabled_;
        count = results_.size();
    }
    struct Thaw {
        MetadataQuery& query;
        ~Thaw() { query.enableUpdates(); }
    } thaw{self};
    const std::size_t length = std::max<std::size_t>(spanLength, 1);
    const std::span<const std::shared_ptr<const MetadataItem>> all(results_.data(), count);
    bool stop = false;
    for (std::size_t first = 0; first < count && !stop; first += length) {
        block(all.subspan(first, std::min(length, count - first)), first, stop);
    }
}

std::vector<std::shared_ptr<const MetadataItem>> MetadataQuery::results() const {
    std::lock_guard lock(mutex_);
    return results_;
}

void MetadataQuery::receive(Batch batch) {
    std::lock_guard lock(mutex_);
    if (stopped_) {
        return;
    }
    if (batch.kind == Batch::Kind::Changed && !changesDue_) {
        changesDue_ = std::chrono::steady_clock::now() +
                      std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                          std::chrono::duration<double>(std::max(batchingInterval_, 0.0)));
    }
    waiting_.push_back(std::move(batch));
    scheduleApplyLocked();
}

void MetadataQuery::scheduleApplyLocked() {
    if (applyScheduled_ || disabled_ > 0 || waiting_.empty() || stopped_) {
        return;
    }
    applyScheduled_ = true;
    auto apply = [weak = weak_from_this()] {
        if (const auto self = std::static_pointer_cast<MetadataQuery>(weak.lock())) {
            self->applyPending();
        }
    };
    const auto now = std::chrono::steady_clock::now();
    if (waiting_.front().kind == Batch::Kind::Changed && changesDue_ && *changesDue_ > now) {
        MainQueue::asyncAfter(*changesDue_ - now, std::move(apply));
    } else {
        MainQueue::async(std::move(apply));
    }
}

void MetadataQuery::applyPending() {
    const char* notification = nullptr;
    {
        std::lock_guard lock(mutex_);
        applyScheduled_ = false;
        notification = applyNextLocked();
        // Whatever waits gets its own turn, scheduled before the observers run.
        scheduleApplyLocked();
    }
    if (notification != nullptr) {
        post(notification);
    }
}

const char* MetadataQuery::applyNextLocked() {
    if (stopped_ || disabled_ > 0 || waiting_.empty()) {
        return nullptr;
    }
    Batch& batch = waiting_.front();
    if (batch.kind == Batch::Kind::Changed && changesDue_ &&
        *changesDue_ > std::chrono::steady_clock::now()) {
        return nullptr;  // not due yet: the next turn is scheduled for when they are
    }
    switch (batch.kind) {
        case Batch::Kind::Gathered: {
            results_.reserve(results_.size() + batch.items.size());
            indexByPath_.reserve(results_.size() + batch.items.size());
            bool holes = false;
            for (const auto& item : batch.items) {
                holes = !addOrReplaceLocked(item) || holes;
            }
            waiting_.pop_front();
            if (holes) {
                compactLocked();
            }
            return NSMetadataQueryGatheringProgressNotification;
        }
        case Batch::Kind::FinishedGathering:
            gathering_ = false;
            waiting_.pop_front();
            return NSMetadataQueryDidFinishGatheringNotification;
        case Batch::Kind::Changed:
            break;
    }
    bool holes = false;
    while (!waiting_.empty() && waiting_.front().kind == Batch::Kind::Changed) {
        for (const auto& path : waiting_.front().removedPaths) {
            if (const auto found = indexByPath_.find(path); found != indexByPath_.end()) {
                const std::size_t index = found->second;
                indexByPath_.erase(found);  // before the result whose path its key views
                results_[index] = nullptr;
                holes = true;
            }
        }
        for (const auto& item : waiting_.front().items) {
            holes = !addOrReplaceLocked(item) || holes;
        }
        waiting_.pop_front();
    }
    changesDue_.reset();  // changes that arrive from now on form the next batch
    if (holes) {
        compactLocked();
    }
    return NSMetadataQueryDidUpdateNotification;
}

bool MetadataQuery::addOrReplaceLocked(const std::shared_ptr<const MetadataItem>& item) {
    const std::string& path = item->path();
    const auto found = indexByPath_.find(path);
    const bool kept = predicate_.evaluate(*item);
    if (found != indexByPath_.end()) {
        const std::size_t index = found->second;
        if (!kept) {
            indexByPath_.erase(found);
            results_[index] = nullptr;
            return false;
        }
        // The key views the path of the result being replaced: make it view the new one's.
        auto node = indexByPath_.extract(found);
        node.key() = path;
        indexByPath_.insert(std::move(node));
        results_[index] = item;
    } else if (kept) {
        indexByPath_.emplace(path, results_.size());
        results_.push_back(item);
    }
    return true;
}

void MetadataQuery::compactLocked() {
    std::erase(results_, nullptr);
    indexByPath_.clear();
    indexByPath_.reserve(results_.size());
    for (std::size_t i = 0; i < results_.size(); ++i) {
        indexByPath_.emplace(results_[i]->path(), i);
    }
}

void MetadataQuery::post(const char* name) {
    {
        std::lock_guard lock(mutex_);
        if (stopped_) {
            return;
        }
    }
    NotificationCenter::defaultCenter().post(name, shared_from_this());
}

}  // namespace qn
