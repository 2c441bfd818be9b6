#include "qn/SimulatedCloud.h"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

#include "FileErrors.h"
#include "qn/DispatchQueue.h"
#include "qn/FileAttributes.h"
#include "qn/Logger.h"
#include "qn/MainQueue.h"
#include "qn/MetadataAttributes.h"
#include "qn/NotificationCenter.h"
#include "qn/PathString.h"
#include "qn/UbiquityErrors.h"
#include "qn/util/ContainerHelpers.h"
#include "qn/util/PathNormalization.h"
#include "simulated/CloudState.h"
#include "simulated/ItemReport.h"
#include "simulated/LocalCopies.h"

namespace qn {

using simulated::Batch;
using simulated::CloudState;
using simulated::Feed;
using simulated::ItemLocation;
using simulated::ItemRecord;

namespace {

Error cloudError(std::int64_t code, const URL& url, std::string reason) {
    return Error(NSCocoaErrorDomain, code,
                 {{NSURLErrorKey, url},
                  {NSFilePathErrorKey, url.path()},
                  {NSLocalizedFailureReasonErrorKey, std::move(reason)}});
}

std::invalid_argument outsideContainers(const char* member, const URL& url) {
    return std::invalid_argument(
        fmt::format("SimulatedCloud::{}: {} does not lie inside a container of the drive "
                    "directory {}",
                    member, url.path(), ubiquityDriveDirectory()));
}

void throwIfFailed(int result, const std::string& what) {
    if (result != 0) {
        throw std::system_error(result, std::generic_category(), "SimulatedCloud: " + what);
    }
}

// Opaque, yet a function of the name alone, so that tokens compare as accounts do.
std::string archivedToken(std::string_view account) {
    std::string archived = "qn.simulated-account:";
    for (const unsigned char c : account) {
        archived += fmt::format("{:02x}", c);
    }
    return archived;
}

// A record for an item first named at `location`, of which nothing is known yet.
ItemRecord newRecord(const ItemLocation& location) {
    ItemRecord record;
    record.folder = location.folder;
    record.relativePath = location.relativePath;
    return record;
}

// The record of the item at `location`, or null when the cloud has none.
ItemRecord* findItem(CloudState& state, const ItemLocation& location) {
    const auto it = state.items.find(location.itemKey);
    return it == state.items.end() ? nullptr : &it->second;
}

ItemRecord& recordFor(CloudState& state, const ItemLocation& location) {
    state.containers.remember(location.folder);
    return state.items.try_emplace(location.itemKey, newRecord(location)).first->second;
}

// Puts the cloud's copy of the item on the disk at `path`; 0 or the errno of the failure.
int writeContents(const std::string& path, const SimulatedItemState& state) {
    return simulated::writeLocalCopy(path, state.isDirectory, state.contents,
                                     state.contentChangeDate);
}

// The newest contents are on the disk and nothing is downloading.
void markCurrent(SimulatedItemState& state) {
    state.downloadingStatus = SimulatedDownloadingStatus::Current;
    state.downloading = false;
    state.percentDownloaded = 100.0;
}

void applyLocalCopy(SimulatedLocalCopy localCopy, const std::string& path,
                    const SimulatedItemState& state) {
    const bool follow = localCopy == SimulatedLocalCopy::FollowStatus;
    if (localCopy == SimulatedLocalCopy::Write || (follow && state.isDownloaded())) {
        throwIfFailed(writeContents(path, state), "cannot write " + path);
    } else if (localCopy == SimulatedLocalCopy::Remove || follow) {
        throwIfFailed(simulated::removeLocalCopy(path), "cannot remove " + path);
        // Only the item goes: its folders are on the disk whether it is downloaded or not.
        throwIfFailed(simulated::createParentDirectories(path), "cannot create folders of " + path);
    }
}

// The item a service call names, or null with the error the service reports.
ItemRecord* serviceItem(CloudState& state, const std::optional<ItemLocation>& location,
                        const URL& url, Error* error) {
    if (!state.account) {
        setError(error, cloudError(NSUbiquitousFileUnavailableError, url,
                                   "No account is signed in to the cloud."));
        return nullptr;
    }
    if (!location) {
        setError(error, cloudError(NSUbiquitousFileUnavailableError, url,
                                   "The item does not lie inside a cloud container."));
        return nullptr;
    }
    ItemRecord* record = findItem(state, *location);
    if (record == nullptr) {
        setError(error, cloudError(NSFileReadNoSuchFileError, url, "The cloud has no item there."));
    }
    return record;
}

void completeDownload(CloudState& state, const std::string& drive, const ItemLocation& location) {
    if (ItemRecord* record = findItem(state, location)) {
        markCurrent(record->state);
        state.reportChange(drive, *record);
    }
}

void updateConflictFlag(CloudState& state, const std::string& drive, ItemRecord& record) {
    const bool unresolved =
        std::any_of(record.versions.begin(), record.versions.end(),
                    [](const FileVersionRecord& v) { return v.isConflict && !v.isResolved; });
    if (record.state.hasUnresolvedConflicts != unresolved) {
        record.state.hasUnresolvedConflicts = unresolved;
        state.reportChange(drive, record);
    }
}

std::vector<FileVersionRecord>::iterator findVersion(ItemRecord& record,
                                                     std::string_view identifier) {
    return std::find_if(record.versions.begin(), record.versions.end(),
                        [&](const FileVersionRecord& v) { return v.identifier == identifier; });
}

// The version of `record` a service call names, or null with the error the service reports.
// `record` may be null: the item's own lookup failed and reported why.
FileVersionRecord* serviceVersion(ItemRecord* record, const URL& url, std::string_view identifier,
                                  Error* error) {
    if (record == nullptr) {
        return nullptr;
    }
    const auto version = findVersion(*record, identifier);
    if (version == record->versions.end()) {
        setError(error, cloudError(NSFileReadNoSuchFileError, url,
                                   fmt::format("The item has no version \"{}\".", identifier)));
        return nullptr;
    }
    return &*version;
}

// Each version's contents live in a directory of their own.
std::string versionDirectory(const FileVersionRecord& version) {
    return stringByDeletingLastPathComponent(version.url.path());
}

// Delivers the batch at the front of `feed`'s queue, releasing `lock` (held on entry and on
// return, also when the observer throws) while the observer runs. False when the feed is stopped
// or has nothing queued.
bool deliverFront(std::unique_lock<std::mutex>& lock, Feed& feed) {
    if (feed.stopped || feed.pending.empty()) {
        return false;
    }
    Batch batch = std::move(feed.pending.front());
    feed.pending.pop_front();
    feed.claimed -= feed.claimed > 0 ? 1 : 0;
    std::shared_ptr<MetadataFeedObserver> observer = feed.observer;
    lock.unlock();
    try {
        switch (batch.kind) {
            case Batch::Kind::Gather:
                observer->feedDidGather(std::move(batch.items));
                break;
            case Batch::Kind::FinishGathering:
                observer->feedDidFinishGathering();
                break;
            case Batch::Kind::Change:
                observer->feedDidChange(std::move(batch.items), std::move(batch.removedPaths));
                break;
        }
    } catch (...) {
        observer.reset();  // not under the lock: it may be the last reference
        lock.lock();
        throw;
    }
    observer.reset();
    lock.lock();
    return true;
}

}  // namespace

// Item states.

SimulatedItemState SimulatedItemState::downloaded(std::string contents, Date contentChangeDate) {
    SimulatedItemState state;
    state.contents = std::move(contents);
    state.creationDate = contentChangeDate;
    state.contentChangeDate = contentChangeDate;
    return state;
}

SimulatedItemState SimulatedItemState::notDownloaded(std::string contents, Date contentChangeDate) {
    SimulatedItemState state = downloaded(std::move(contents), contentChangeDate);
    state.downloadingStatus = SimulatedDownloadingStatus::NotDownloaded;
    state.percentDownloaded = 0.0;
    return state;
}

SimulatedItemState SimulatedItemState::directory(Date contentChangeDate) {
    SimulatedItemState state = downloaded({}, contentChangeDate);
    state.isDirectory = true;
    return state;
}

// Life.

std::shared_ptr<SimulatedCloud> SimulatedCloud::create(std::optional<std::string> account) {
    if (account && account->empty()) {
        throw std::invalid_argument("SimulatedCloud::create: the account name is empty");
    }
    // The constructor is private and the class final, so make_shared cannot reach it.
    return std::shared_ptr<SimulatedCloud>(new SimulatedCloud(std::move(account)));
}

SimulatedCloud::SimulatedCloud(std::optional<std::string> account)
    : state_(std::make_unique<CloudState>()) {
    state_->account = std::move(account);
}

SimulatedCloud::~SimulatedCloud() {
    if (!state_->versionsDirectory.empty()) {
        simulated::removeLocalCopy(state_->versionsDirectory);
    }
}

std::optional<ItemLocation> SimulatedCloud::locate(const URL& url) const {
    if (url.isEmpty()) {
        return std::nullopt;
    }
    const std::string drive = stringByNormalizingPath(ubiquityDriveDirectory());
    const std::string path = stringByNormalizingPath(url.path());
    {
        std::lock_guard lock(mutex_);
        if (auto location = state_->containers.locate(path, drive)) {
            return location;
        }
    }
    // Perhaps through a symbolic link to the drive directory or into it; resolved unlocked.
    const std::string resolvedPath =
        stringByNormalizingPath(simulated::resolveExistingBeginning(path));
    const std::string resolvedDrive =
        stringByNormalizingPath(simulated::resolveExistingBeginning(drive));
    if (resolvedPath == path && resolvedDrive == drive) {
        return std::nullopt;
    }
    std::lock_guard lock(mutex_);
    return state_->containers.locate(resolvedPath, resolvedDrive);
}

ItemLocation SimulatedCloud::locateInContainers(const char* member, const URL& url) const {
    auto location = locate(url);
    if (!location) {
        throw outsideContainers(member, url);
    }
    return std::move(*location);
}

std::string SimulatedCloud::localPathOf(const ItemLocation& location,
                                        const std::string& drive) const {
    std::lock_guard lock(mutex_);
    const ItemRecord* known = findItem(*state_, location);
    return CloudState::localPath(drive, known != nullptr ? *known : newRecord(location));
}

template <typename Change>
void SimulatedCloud::changeState(Change&& change) {
    {
        std::lock_guard lock(mutex_);
        change(*state_);
    }
    scheduleAutomaticDeliveries();
}

template <typename Read>
auto SimulatedCloud::readItem(const URL& url, AccountNeeded accountNeeded, Read&& read) const {
    using Result = std::optional<std::decay_t<std::invoke_result_t<Read&, const ItemRecord&>>>;
    const auto location = locate(url);
    if (!location) {
        return Result();
    }
    std::lock_guard lock(mutex_);
    const ItemRecord* record = findItem(*state_, *location);
    if (record == nullptr || (accountNeeded == AccountNeeded::Yes && !state_->account)) {
        return Result();
    }
    return Result(read(*record));
}

void SimulatedCloud::postLater(const char* name, bool withSender) {
    MainQueue::async([weak = weak_from_this(), name, withSender] {
        const std::shared_ptr<Object> self = weak.lock();
        if (self) {
            NotificationCenter::defaultCenter().post(name,
                                                     withSender ? self : std::shared_ptr<Object>());
        }
    });
}

// Accounts.

void SimulatedCloud::signIn(std::string account) {
    if (account.empty()) {
        throw std::invalid_argument("SimulatedCloud::signIn: the account name is empty");
    }
    {
        std::lock_guard lock(mutex_);
        if (state_->account == account) {
            return;
        }
        state_->account = std::move(account);
    }
    postLater(NSUbiquityIdentityDidChangeNotification, false);
}

void SimulatedCloud::signOut() {
    {
        std::lock_guard lock(mutex_);
        if (!state_->account) {
            return;
        }
        state_->account.reset();
    }
    postLater(NSUbiquityIdentityDidChangeNotification, false);
}

std::optional<std::string> SimulatedCloud::account() const {
    std::lock_guard lock(mutex_);
    return state_->account;
}

std::optional<UbiquityIdentityToken> SimulatedCloud::identityToken() {
    std::lock_guard lock(mutex_);
    if (!state_->account) {
        return std::nullopt;
    }
    return UbiquityIdentityToken(archivedToken(*state_->account));
}

// Containers.

void SimulatedCloud::setContainerURL(std::string_view identifier, std::optional<URL> url) {
    const URL generated = QNiCloudContainerURLFromIdentifier(identifier);
    if (generated.isEmpty()) {
        throw std::invalid_argument(
            fmt::format("SimulatedCloud::setContainerURL: \"{}\" names no container", identifier));
    }
    if (url && url->isEmpty()) {
        url.reset();
    }
    std::vector<std::string> aliases;
    if (url) {
        const std::string spelled = stringByNormalizingPath(url->path());
        for (std::string alias :
             {spelled, stringByDeletingPrivate(spelled),
              stringByNormalizingPath(simulated::resolveExistingBeginning(spelled))}) {
            if (std::find(aliases.begin(), aliases.end(), alias) == aliases.end()) {
                aliases.push_back(std::move(alias));
            }
        }
    }
    std::lock_guard lock(mutex_);
    state_->containers.setAnswer(generated.lastPathComponent(), std::move(url), std::move(aliases));
}

void SimulatedCloud::setContainerLookupDelay(std::chrono::steady_clock::duration delay) {
    std::lock_guard lock(mutex_);
    state_->containerLookupDelay = delay;
}

std::optional<URL> SimulatedCloud::containerURL(std::string_view containerIdentifier) {
    std::chrono::steady_clock::duration delay;
    {
        std::lock_guard lock(mutex_);
        delay = state_->containerLookupDelay;
    }
    if (delay > std::chrono::steady_clock::duration::zero()) {
        std::this_thread::sleep_for(delay);
    }
    const URL generated = QNiCloudContainerURLFromIdentifier(containerIdentifier);
    if (generated.isEmpty()) {
        return std::nullopt;
    }
    std::optional<URL> answer;
    {
        std::lock_guard lock(mutex_);
        if (!state_->account) {
            return std::nullopt;
        }
        state_->containers.remember(generated.lastPathComponent());
        if (const URL* set = state_->containers.answerFor(generated.lastPathComponent())) {
            answer = *set;
        }
    }
    std::error_code error;
    std::filesystem::create_directories(generated.path(), error);
    if (error) {
        Logger::named("iCloud").error("The simulated cloud cannot create the container {}: {}",
                                      generated.path(), error.message());
        return std::nullopt;
    }
    return answer ? answer : generated;
}

// Items.

void SimulatedCloud::setItem(const URL& url, SimulatedItemState state,
                             SimulatedLocalCopy localCopy) {
    std::lock_guard operation(operationMutex_);
    const ItemLocation location = locateInContainers("setItem", url);
    const std::string drive = ubiquityDriveDirectory();
    applyLocalCopy(localCopy, localPathOf(location, drive), state);
    changeState([&](CloudState& cloud) {
        ItemRecord& record = recordFor(cloud, location);
        record.state = std::move(state);
        cloud.reportChange(drive, record);
    });
}

bool SimulatedCloud::updateItem(const URL& url,
                                const std::function<void(SimulatedItemState&)>& change) {
    const auto location = locate(url);
    if (!location) {
        return false;
    }
    SimulatedItemState state;
    {
        std::lock_guard lock(mutex_);
        const ItemRecord* record = findItem(*state_, *location);
        if (record == nullptr) {
            return false;
        }
        state = record->state;
    }
    change(state);
    const std::string drive = ubiquityDriveDirectory();
    {
        std::lock_guard operation(operationMutex_);
        std::lock_guard lock(mutex_);
        ItemRecord* record = findItem(*state_, *location);
        if (record == nullptr) {
            return false;
        }
        record->state = std::move(state);
        state_->reportChange(drive, *record);
    }
    scheduleAutomaticDeliveries();
    return true;
}

void SimulatedCloud::uploadLocalItem(const URL& url) {
    std::lock_guard operation(operationMutex_);
    const ItemLocation location = locateInContainers("uploadLocalItem", url);
    const std::string drive = ubiquityDriveDirectory();
    const std::string path = localPathOf(location, drive);
    simulated::LocalItem local;
    throwIfFailed(simulated::readLocalCopy(path, &local), "cannot read " + path);
    changeState([&](CloudState& cloud) {
        const bool added = !cloud.items.contains(location.itemKey);
        ItemRecord& record = recordFor(cloud, location);
        SimulatedItemState& state = record.state;
        if (added) {
            state.creationDate = local.modificationDate;
        }
        state.isDirectory = local.isDirectory;
        state.contents = std::move(local.contents);
        state.size.reset();
        state.contentChangeDate = local.modificationDate;
        markCurrent(state);
        state.uploaded = true;
        state.uploading = false;
        state.percentUploaded = 100.0;
        cloud.reportChange(drive, record);
    });
}

bool SimulatedCloud::removeItem(const URL& url, SimulatedLocalCopy localCopy) {
    if (localCopy == SimulatedLocalCopy::Write) {
        throw std::invalid_argument("SimulatedCloud::removeItem: cannot write a removed item");
    }
    std::lock_guard operation(operationMutex_);
    const auto location = locate(url);
    if (!location) {
        return false;
    }
    const std::string drive = ubiquityDriveDirectory();
    std::string path;
    std::vector<std::string> versionDirectories;
    {
        std::lock_guard lock(mutex_);
        const ItemRecord* record = findItem(*state_, *location);
        if (record == nullptr) {
            return false;
        }
        path = CloudState::localPath(drive, *record);
        for (const FileVersionRecord& version : record->versions) {
            versionDirectories.push_back(versionDirectory(version));
        }
    }
    if (localCopy != SimulatedLocalCopy::Keep) {
        throwIfFailed(simulated::removeLocalCopy(path), "cannot remove " + path);
    }
    for (const std::string& directory : versionDirectories) {
        simulated::removeLocalCopy(directory);
    }
    changeState([&](CloudState& cloud) {
        const auto it = cloud.items.find(location->itemKey);
        cloud.reportRemoval(it->second);
        cloud.items.erase(it);
    });
    return true;
}

std::optional<SimulatedItemState> SimulatedCloud::item(const URL& url) const {
    return readItem(url, AccountNeeded::No, [](const ItemRecord& record) { return record.state; });
}

std::optional<URL> SimulatedCloud::localURL(const URL& url) const {
    const std::string drive = ubiquityDriveDirectory();
    return readItem(url, AccountNeeded::No, [&](const ItemRecord& record) {
        return URL::fileURLWithPath(CloudState::localPath(drive, record), record.state.isDirectory);
    });
}

// Metadata feeds.

void SimulatedCloud::setGatheringBatchSize(std::size_t itemsPerBatch) {
    std::lock_guard lock(mutex_);
    state_->gatheringBatchSize = itemsPerBatch;
}

std::uint64_t SimulatedCloud::startMetadataFeed(const std::vector<std::string>& scopes,
                                                std::shared_ptr<MetadataFeedObserver> observer) {
    if (!observer) {
        throw std::invalid_argument("SimulatedCloud::startMetadataFeed: no observer");
    }
    auto feed = std::make_shared<Feed>();
    const auto hasScope = [&](const char* scope) {
        return std::find(scopes.begin(), scopes.end(), scope) != scopes.end();
    };
    feed->coversDocuments = hasScope(NSMetadataQueryUbiquitousDocumentsScope);
    feed->coversData = hasScope(NSMetadataQueryUbiquitousDataScope);
    feed->observer = std::move(observer);
    const std::string drive = ubiquityDriveDirectory();
    std::uint64_t id = 0;
    changeState([&](CloudState& cloud) {
        id = ++cloud.lastFeedId;
        feed->id = id;
        feed->hearsChanges = cloud.account.has_value();
        std::vector<std::shared_ptr<const MetadataItem>> reports;
        for (const auto& [key, record] : cloud.items) {
            if (feed->covers(simulated::isInDocumentsScope(record.relativePath))) {
                reports.push_back(
                    simulated::makeReport(CloudState::localPath(drive, record), record.state));
            }
        }
        // Sorted by path through views beside the positions, so that a comparison reads the two
        // paths' bytes and nothing else.
        std::vector<std::pair<std::string_view, std::size_t>> order;
        order.reserve(reports.size());
        for (std::size_t i = 0; i < reports.size(); ++i) {
            order.emplace_back(reports[i]->path(), i);
        }
        std::stable_sort(order.begin(), order.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        std::vector<std::shared_ptr<const MetadataItem>> gathered;
        gathered.reserve(reports.size());
        for (const auto& [path, index] : order) {
            gathered.push_back(std::move(reports[index]));
        }
        feed->queueGathering(std::move(gathered), cloud.gatheringBatchSize);
        cloud.feeds.emplace(id, feed);
        cloud.queued(*feed);
    });
    return id;
}

void SimulatedCloud::stopMetadataFeed(std::uint64_t feedId) {
    // Released after the lock: the observer's destructor is the caller's code.
    std::shared_ptr<MetadataFeedObserver> observer;
    std::deque<Batch> dropped;
    {
        std::unique_lock lock(mutex_);
        const auto it = state_->feeds.find(feedId);
        if (it == state_->feeds.end()) {
            return;
        }
        const std::shared_ptr<Feed> feed = it->second;
        state_->feeds.erase(it);
        feed->stopped = true;
        if (feed->delivering && feed->deliveringThread != std::this_thread::get_id()) {
            deliveryEnded_.wait(lock, [&] { return !feed->delivering; });
        }
        observer = std::move(feed->observer);
        dropped = std::move(feed->pending);
    }
}

std::size_t SimulatedCloud::deliverQueryBatches() {
    return deliver(static_cast<std::size_t>(-1));
}

std::size_t SimulatedCloud::deliverNextQueryBatch() {
    return deliver(1);
}

std::size_t SimulatedCloud::deliver(std::size_t batchesPerFeed) {
    // Only what is queued now, for every feed; changes queued meanwhile wait for the next call.
    std::vector<std::pair<std::shared_ptr<Feed>, std::size_t>> feeds;
    std::size_t calls = 0;
    std::unique_lock lock(mutex_);
    for (const auto& [id, feed] : state_->feeds) {
        const std::size_t count = std::min(batchesPerFeed, feed->pending.size());
        feed->claimed = std::max(feed->claimed, count);
        feeds.emplace_back(feed, count);
    }
    const auto endDelivery = [this](Feed& feed) {
        feed.delivering = false;
        deliveryEnded_.notify_all();
    };
    for (const auto& [feed, claimedCount] : feeds) {
        if (feed->delivering && feed->deliveringThread == std::this_thread::get_id()) {
            continue;  // called from this feed's own observer
        }
        deliveryEnded_.wait(lock, [&] { return !feed->delivering; });
        if (feed->stopped) {
            continue;
        }
        feed->delivering = true;
        feed->deliveringThread = std::this_thread::get_id();
        // Another call may have delivered some of them meanwhile.
        const std::size_t count = std::min(claimedCount, feed->claimed);
        try {
            for (std::size_t i = 0; i < count && deliverFront(lock, *feed); ++i) {
                ++calls;
            }
        } catch (...) {
            endDelivery(*feed);
            throw;
        }
        endDelivery(*feed);
    }
    lock.unlock();
    return calls;
}

std::size_t SimulatedCloud::pendingQueryBatchCount() const {
    std::lock_guard lock(mutex_);
    std::size_t count = 0;
    for (const auto& [id, feed] : state_->feeds) {
        count += feed->pending.size();
    }
    return count;
}

std::size_t SimulatedCloud::runningFeedCount() const {
    std::lock_guard lock(mutex_);
    return state_->feeds.size();
}

void SimulatedCloud::setAutomaticDelivery(bool automatic) {
    changeState([&](CloudState& cloud) {
        cloud.automaticDelivery = automatic;
        if (automatic) {
            for (const auto& [id, feed] : cloud.feeds) {
                if (!feed->pending.empty()) {
                    cloud.queued(*feed);
                }
            }
        }
    });
}

void SimulatedCloud::scheduleAutomaticDeliveries() {
    std::vector<std::uint64_t> feedIds;
    {
        std::lock_guard lock(mutex_);
        feedIds.swap(state_->feedsToSchedule);
    }
    for (const std::uint64_t feedId : feedIds) {
        DispatchQueue::global().async([weak = weak_from_this(), feedId] {
            if (const std::shared_ptr<Object> self = weak.lock()) {
                static_cast<SimulatedCloud&>(*self).runAutomaticDelivery(feedId);
            }
        });
    }
}

void SimulatedCloud::runAutomaticDelivery(std::uint64_t feedId) {
    std::unique_lock lock(mutex_);
    for (;;) {
        const auto it = state_->feeds.find(feedId);
        if (it == state_->feeds.end()) {
            return;  // stopped
        }
        const std::shared_ptr<Feed> feed = it->second;
        if (!state_->automaticDelivery || feed->pending.empty()) {
            feed->automaticScheduled = false;  // the next queued batch schedules again
            return;
        }
        if (feed->delivering) {  // a deliverQueryBatches call on another thread
            deliveryEnded_.wait(lock, [&] { return !feed->delivering; });
            continue;
        }
        feed->delivering = true;
        feed->deliveringThread = std::this_thread::get_id();
        try {
            deliverFront(lock, *feed);
        } catch (const std::exception& e) {
            Logger::named("iCloud").error("A metadata feed observer threw: {}", e.what());
        } catch (...) {
            Logger::named("iCloud").error("A metadata feed observer threw.");
        }
        feed->delivering = false;
        deliveryEnded_.notify_all();
    }
}

// Downloads.

void SimulatedCloud::setDefaultDownloadBehavior(SimulatedDownloadBehavior behavior) {
    std::lock_guard lock(mutex_);
    state_->defaultDownloadBehavior = std::move(behavior);
}

void SimulatedCloud::setDownloadBehavior(const URL& url,
                                         std::optional<SimulatedDownloadBehavior> behavior) {
    const ItemLocation location = locateInContainers("setDownloadBehavior", url);
    std::lock_guard lock(mutex_);
    if (behavior) {
        state_->downloadBehaviors.insert_or_assign(location.itemKey, std::move(*behavior));
    } else {
        state_->downloadBehaviors.erase(location.itemKey);
    }
}

bool SimulatedCloud::startDownloading(const URL& url, Error* error) {
    std::lock_guard operation(operationMutex_);
    const auto location = locate(url);
    const std::string drive = ubiquityDriveDirectory();
    std::string path;
    SimulatedItemState snapshot;
    {
        std::lock_guard lock(mutex_);
        ItemRecord* record = serviceItem(*state_, location, url, error);
        if (record == nullptr) {
            return false;
        }
        SimulatedItemState& state = record->state;
        if (state.downloadingStatus == SimulatedDownloadingStatus::Current) {
            return true;  // the daemon trusts its status, whatever is on the disk
        }
        if (!state_->networkReachable) {
            setError(error, cloudError(NSUbiquitousFileUbiquityServerNotAvailable, url,
                                       "The network does not reach the cloud."));
            return false;
        }
        const auto own = state_->downloadBehaviors.find(location->itemKey);
        const SimulatedDownloadBehavior& behavior =
            own != state_->downloadBehaviors.end() ? own->second : state_->defaultDownloadBehavior;
        switch (behavior.kind) {
            case SimulatedDownloadBehavior::Kind::Fail:
                setError(error, behavior.error ? behavior.error
                                               : cloudError(NSFileReadUnknownError, url,
                                                            "The download failed."));
                return false;
            case SimulatedDownloadBehavior::Kind::Progressive:
                if (!state.downloading) {
                    state.downloading = true;
                    state_->reportChange(drive, *record);
                }
                break;
            case SimulatedDownloadBehavior::Kind::Immediate:
                path = CloudState::localPath(drive, *record);
                snapshot = state;
                break;
        }
    }
    if (!path.empty()) {
        if (const int result = writeContents(path, snapshot); result != 0) {
            setError(error, fileError(result, FileAccess::Writing, path, &url));
            return false;
        }
        std::lock_guard lock(mutex_);
        completeDownload(*state_, drive, *location);
    }
    scheduleAutomaticDeliveries();
    return true;
}

void SimulatedCloud::advanceDownload(const URL& url, double percent) {
    std::lock_guard operation(operationMutex_);
    const ItemLocation location = locateInContainers("advanceDownload", url);
    percent = std::isnan(percent) ? 0.0 : std::clamp(percent, 0.0, 100.0);
    const std::string drive = ubiquityDriveDirectory();
    std::string path;
    SimulatedItemState snapshot;
    {
        std::lock_guard lock(mutex_);
        ItemRecord* record = findItem(*state_, location);
        if (record == nullptr) {
            throw std::logic_error(
                fmt::format("SimulatedCloud::advanceDownload: no item at {}", url.path()));
        }
        if (!record->state.downloading) {
            throw std::logic_error(
                fmt::format("SimulatedCloud::advanceDownload: {} is not downloading", url.path()));
        }
        if (percent < 100.0) {
            record->state.percentDownloaded = percent;
            state_->reportChange(drive, *record);
        } else {
            path = CloudState::localPath(drive, *record);
            snapshot = record->state;
        }
    }
    if (!path.empty()) {
        throwIfFailed(writeContents(path, snapshot), "cannot write " + path);
        std::lock_guard lock(mutex_);
        completeDownload(*state_, drive, location);
    }
    scheduleAutomaticDeliveries();
}

bool SimulatedCloud::evict(const URL& url, Error* error) {
    std::lock_guard operation(operationMutex_);
    const auto location = locate(url);
    const std::string drive = ubiquityDriveDirectory();
    std::string path;
    {
        std::lock_guard lock(mutex_);
        const ItemRecord* record = serviceItem(*state_, location, url, error);
        if (record == nullptr) {
            return false;
        }
        if (record->state.downloadingStatus == SimulatedDownloadingStatus::NotDownloaded) {
            setError(error, cloudError(NSFileReadNoSuchFileError, url,
                                       "The item has no local copy to evict."));
            return false;
        }
        path = CloudState::localPath(drive, *record);
    }
    if (const int result = simulated::removeLocalCopy(path); result != 0) {
        setError(error, fileError(result, FileAccess::Writing, path, &url));
        return false;
    }
    changeState([&](CloudState& cloud) {
        if (ItemRecord* record = findItem(cloud, *location)) {
            record->state.downloadingStatus = SimulatedDownloadingStatus::NotDownloaded;
            record->state.downloading = false;
            record->state.percentDownloaded = 0.0;
            cloud.reportChange(drive, *record);
        }
    });
    return true;
}

std::optional<Value> SimulatedCloud::resourceValue(const URL& url, std::string_view key,
                                                   Error* /*error*/) {
    if (key != NSURLUbiquitousItemIsUploadedKey && key != NSURLUbiquitousItemIsDownloadedKey &&
        key != NSURLUbiquitousItemDownloadingStatusKey) {
        return std::nullopt;
    }
    return readItem(url, AccountNeeded::Yes, [&](const ItemRecord& record) {
        const SimulatedItemState& state = record.state;
        if (key == NSURLUbiquitousItemIsUploadedKey) {
            return Value(state.uploaded);
        }
        if (key == NSURLUbiquitousItemIsDownloadedKey) {
            return Value(state.isDownloaded());
        }
        return Value(simulated::downloadingStatusName(state.downloadingStatus));
    });
}

// Versions.

FileVersionRecord SimulatedCloud::addConflictVersion(const URL& url, std::string contents,
                                                     Date modificationDate,
                                                     std::string savingComputer) {
    return addVersion(url, std::move(contents), modificationDate, std::move(savingComputer), true);
}

FileVersionRecord SimulatedCloud::addOlderVersion(const URL& url, std::string contents,
                                                  Date modificationDate,
                                                  std::string savingComputer) {
    return addVersion(url, std::move(contents), modificationDate, std::move(savingComputer), false);
}

FileVersionRecord SimulatedCloud::addVersion(const URL& url, std::string contents,
                                             Date modificationDate, std::string savingComputer,
                                             bool isConflict) {
    std::lock_guard operation(operationMutex_);
    const ItemLocation location =
        locateInContainers(isConflict ? "addConflictVersion" : "addOlderVersion", url);
    const std::string drive = ubiquityDriveDirectory();
    std::string directory;
    std::string fileName;
    std::string identifier;
    {
        std::lock_guard lock(mutex_);
        const ItemRecord* record = findItem(*state_, location);
        if (record == nullptr) {
            throw std::invalid_argument(
                fmt::format("SimulatedCloud: no item at {} to add a version to", url.path()));
        }
        identifier = std::to_string(++state_->lastVersionId);
        fileName = lastPathComponent(record->relativePath);
        directory = state_->versionsDirectory;
    }
    if (directory.empty()) {
        int result = 0;
        directory = simulated::makeTemporaryDirectory("qn-simulated-cloud-versions-", &result);
        throwIfFailed(result, "cannot create a directory for versions");
        std::lock_guard lock(mutex_);
        state_->versionsDirectory = directory;
    }
    // One directory per version keeps the item's own file name.
    const std::string path = stringByAppendingPathComponent(
        stringByAppendingPathComponent(directory, identifier), fileName);
    throwIfFailed(simulated::writeLocalCopy(path, false, contents, modificationDate),
                  "cannot write " + path);
    FileVersionRecord version{identifier,       URL::fileURLWithPath(path, false),
                              modificationDate, std::move(savingComputer),
                              isConflict,       false};
    changeState([&](CloudState& cloud) {
        ItemRecord& record = *findItem(cloud, location);
        record.versions.push_back(version);
        updateConflictFlag(cloud, drive, record);
    });
    return version;
}

std::vector<FileVersionRecord> SimulatedCloud::otherVersionsOfItem(const URL& url) {
    const auto copy = [](const ItemRecord& record) { return record.versions; };
    auto versions =
        readItem(url, AccountNeeded::Yes, copy).value_or(std::vector<FileVersionRecord>());
    std::stable_sort(versions.begin(), versions.end(), [](const auto& a, const auto& b) {
        return a.modificationDate < b.modificationDate;
    });
    return versions;
}

bool SimulatedCloud::setVersionResolved(const URL& url, std::string_view versionIdentifier,
                                        bool resolved, Error* error) {
    std::lock_guard operation(operationMutex_);
    const auto location = locate(url);
    const std::string drive = ubiquityDriveDirectory();
    {
        std::lock_guard lock(mutex_);
        ItemRecord* record = serviceItem(*state_, location, url, error);
        FileVersionRecord* version = serviceVersion(record, url, versionIdentifier, error);
        if (version == nullptr) {
            return false;
        }
        version->isResolved = resolved;
        updateConflictFlag(*state_, drive, *record);
    }
    scheduleAutomaticDeliveries();
    return true;
}

bool SimulatedCloud::removeVersion(const URL& url, std::string_view versionIdentifier,
                                   Error* error) {
    std::lock_guard operation(operationMutex_);
    const auto location = locate(url);
    const std::string drive = ubiquityDriveDirectory();
    std::string directory;
    {
        std::lock_guard lock(mutex_);
        const FileVersionRecord* version = serviceVersion(
            serviceItem(*state_, location, url, error), url, versionIdentifier, error);
        if (version == nullptr) {
            return false;
        }
        directory = versionDirectory(*version);
    }
    if (const int result = simulated::removeLocalCopy(directory); result != 0) {
        Logger::named("iCloud").warn("The simulated cloud cannot remove the version at {}: {}",
                                     directory, std::generic_category().message(result));
    }
    changeState([&](CloudState& cloud) {
        // Still there: only callers holding the operation lock remove items and versions.
        ItemRecord& record = *findItem(cloud, *location);
        record.versions.erase(findVersion(record, versionIdentifier));
        updateConflictFlag(cloud, drive, record);
    });
    return true;
}

// Network.

void SimulatedCloud::setNetworkReachable(bool reachable) {
    {
        std::lock_guard lock(mutex_);
        if (state_->networkReachable == reachable) {
            return;
        }
        state_->networkReachable = reachable;
    }
    postLater(QNUbiquityServiceReachabilityDidChangeNotification, true);
}

std::optional<bool> SimulatedCloud::isNetworkReachable() {
    std::lock_guard lock(mutex_);
    return state_->networkReachable;
}

}  // namespace qn
