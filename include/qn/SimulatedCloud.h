#pragma once

// A cloud drive that lives in this process: the ubiquity service that tests of the library and
// of host applications install so that sync code meets accounts, containers, items, downloads,
// conflict versions and network changes at the moment the test chooses.
//
//     auto cloud = qn::SimulatedCloud::create("alice@example.com");
//     qn::UbiquityService::setCurrent(cloud);
//     const qn::URL container = QNiCloudContainerURLFromIdentifier("iCloud.com.example.App");
//     cloud->setItem(container.URLByAppendingPathComponent("Documents/Notes.txt"),
//                    qn::SimulatedItemState::notDownloaded("hello", qn::Date(7e8)));
//     ... start the code under test, then:
//     cloud->deliverQueryBatches();   // the running metadata queries hear about the item
//
// Everything is deterministic: nothing happens unless the caller asks for it (metadata batches
// are delivered by `deliverQueryBatches`, downloads advance with `advanceDownload`), dates are
// the ones the caller gives, and the cloud never reads the clock. It works on real directories:
// containers are the folders `QNiCloudContainerURLFromIdentifier` names under the drive
// directory (`qn::setUbiquityDriveDirectory`), and an item's local copy is a real file there.
//
// Threads: every member may be called from any thread. Notifications
// (NSUbiquityIdentityDidChangeNotification, QNUbiquityServiceReachabilityDidChangeNotification)
// are posted on the main thread through `MainQueue::async`, so a test pumps the main queue to
// see them; they are posted only while the cloud still exists.
//
// Locking: `mutex_` guards all state (account, containers, items, feeds, settings); it is never
// held while an observer runs, a notification is posted, the caller's callback runs or the disk
// is written. `operationMutex_` is taken first by every member that changes items and is held
// across that member's disk work, so that concurrent changes of one item reach the disk and the
// state in the same order; it is never held while an observer runs or a notification is posted.
// Do not call `stopMetadataFeed` while holding a lock that a feed's observer takes on another
// thread: stopping waits for a delivery running there.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qn/Date.h"
#include "qn/Dictionary.h"
#include "qn/Error.h"
#include "qn/FileVersionRecord.h"
#include "qn/MetadataFeed.h"
#include "qn/URL.h"
#include "qn/UbiquityService.h"

namespace qn {

namespace simulated {
struct CloudState;
struct ItemLocation;
}  // namespace simulated

/// How much of an item is on the local disk, as NSURLUbiquitousItemDownloadingStatusKey says:
/// nothing, a copy that is not the newest (the cloud has newer contents), or the newest copy.
enum class SimulatedDownloadingStatus { NotDownloaded, Downloaded, Current };

/// What the cloud knows of one item. Every combination is allowed, consistent or not, so that
/// tests can build the broken states a real sync daemon sometimes shows. The defaults describe a
/// file that is fully synced and empty.
struct SimulatedItemState {
    /// A folder (or package) rather than a file. Its local copy is a directory.
    bool isDirectory = false;
    /// The cloud's copy of the contents: what a completed download puts on the disk.
    std::string contents;
    /// The size reported in the metadata; nullopt reports the size of `contents`.
    std::optional<std::uint64_t> size;
    Date creationDate;
    /// Also given to the local copy as its modification time when the cloud writes it.
    Date contentChangeDate;
    SimulatedDownloadingStatus downloadingStatus = SimulatedDownloadingStatus::Current;
    bool downloading = false;
    double percentDownloaded = 100.0;
    bool uploaded = true;
    bool uploading = false;
    double percentUploaded = 100.0;
    /// Set and cleared by the cloud when conflict versions are added, resolved or removed; a
    /// test may also set it by hand.
    bool hasUnresolvedConflicts = false;
    /// Metadata attributes reported instead of (or in addition to) the computed ones, for odd
    /// reports: a decomposed NSMetadataItemPathKey, a wrong size, a value of the wrong type.
    /// They change the metadata only, not resource values or where the local copy is.
    Dictionary attributeOverrides;
    /// Metadata attributes left out of the report altogether.
    std::vector<std::string> omittedAttributes;

    /// A synced file whose newest contents are on the disk; both dates are `contentChangeDate`.
    static SimulatedItemState downloaded(std::string contents, Date contentChangeDate = Date());
    /// The same file, but only in the cloud (status NotDownloaded, 0 % downloaded).
    static SimulatedItemState notDownloaded(std::string contents, Date contentChangeDate = Date());
    /// A synced folder.
    static SimulatedItemState directory(Date contentChangeDate = Date());

    bool isDownloaded() const {
        return downloadingStatus != SimulatedDownloadingStatus::NotDownloaded;
    }
    /// `size`, or the size of `contents`.
    std::uint64_t reportedSize() const { return size ? *size : contents.size(); }
};

/// What `setItem` and `removeItem` do with the item's local copy.
enum class SimulatedLocalCopy {
    /// Write the cloud's contents when the item counts as downloaded, remove the local copy
    /// when it does not. Either way the folders above the item exist afterwards, as a sync
    /// daemon keeps every item's folders on the disk.
    FollowStatus,
    /// Write the cloud's contents (creating missing directories), whatever the status says.
    Write,
    /// Leave the disk as it is, for states the test writes itself (an outdated local copy).
    Keep,
    /// Remove the local copy (a folder with everything in it), whatever the status says; the
    /// folders above it exist afterwards (in `setItem`).
    Remove,
};

/// What `startDownloading` does for an item that needs downloading.
struct SimulatedDownloadBehavior {
    enum class Kind {
        /// The download completes before `startDownloading` returns.
        Immediate,
        /// `startDownloading` returns false with `error` (NSFileReadUnknownError when it is
        /// empty); nothing changes.
        Fail,
        /// The item starts downloading and the test advances it with `advanceDownload`.
        Progressive,
    };
    Kind kind = Kind::Immediate;
    Error error;

    static SimulatedDownloadBehavior immediate() { return {}; }
    static SimulatedDownloadBehavior failing(Error error) { return {Kind::Fail, std::move(error)}; }
    static SimulatedDownloadBehavior progressive() { return {Kind::Progressive, Error()}; }
};

/// The simulated cloud. See the top of this file; `docs/simulated-cloud.md` has a walkthrough.
///
/// Items: an item is identified by its location inside a container, whatever the spelling of
/// the URL that names it: another letter case, decomposed accents, the container's "/private"
/// form, a spelling set with `setContainerURL`, or a path through a symbolic link to the drive
/// directory all name the same item. The cloud writes an item's local copy where the item was
/// first named, under the drive directory. An item's scope is
/// NSMetadataQueryUbiquitousDocumentsScope when it lies inside a container's "Documents" folder
/// and NSMetadataQueryUbiquitousDataScope otherwise.
///
/// Members documented as "throws" throw `std::invalid_argument` or `std::logic_error` for a
/// mistake of the test (an item outside every container, advancing a download that is not
/// running) and `std::system_error` when the disk refuses a write the test asked for.
///
/// The account only decides what the UbiquityService members answer: items stay across
/// `signOut` and `switchAccount`, so a test models another account's data by changing them.
class SimulatedCloud final : public UbiquityService {
public:
    /// A cloud signed in to `account`, or signed out for nullopt. Nothing is posted.
    static std::shared_ptr<SimulatedCloud> create(
        std::optional<std::string> account = std::nullopt);
    ~SimulatedCloud() override;

    SimulatedCloud(const SimulatedCloud&) = delete;
    SimulatedCloud& operator=(const SimulatedCloud&) = delete;

    // Accounts. Each change of account posts NSUbiquityIdentityDidChangeNotification (no
    // sender) on the main thread; signing in to the account already signed in changes nothing.
    // The identity token's archived form is derived from the account name alone, so the same
    // name gives equal tokens in every cloud and run.

    /// Signs in to `account` (not empty; throws), replacing any account signed in.
    void signIn(std::string account);
    /// The same as `signIn`, for tests that read better this way.
    void switchAccount(std::string account) { signIn(std::move(account)); }
    void signOut();
    /// The account signed in, or nullopt.
    std::optional<std::string> account() const;

    // Containers.

    /// Makes `containerURL(identifier)` answer `url` instead of the generated location, to make
    /// the answer differ in spelling from it: a "/private" prefix, a file URL without the
    /// directory flag, another letter case, a symbolic link to the container. `url` must name
    /// the same directory: the cloud keeps the local copies under the generated location and
    /// accepts item URLs in both spellings. nullopt restores the generated answer.
    void setContainerURL(std::string_view identifier, std::optional<URL> url);
    /// How long `containerURL` blocks before answering, as the real lookup may. Zero by default.
    void setContainerLookupDelay(std::chrono::steady_clock::duration delay);

    // Items. Each change queues a metadata change for the running feeds whose scope holds it.

    /// Adds or replaces the item at `url` (inside a container, not the container itself;
    /// throws), keeping its conflict versions. `localCopy` says what happens on the disk; a
    /// written local copy gets `contentChangeDate` as its modification time. Throws.
    void setItem(const URL& url, SimulatedItemState state,
                 SimulatedLocalCopy localCopy = SimulatedLocalCopy::FollowStatus);
    /// Changes the item's state in place, leaving the disk alone. False when there is no such
    /// item. `change` runs on the calling thread without any lock held; a change made by
    /// another thread meanwhile is overwritten.
    bool updateItem(const URL& url, const std::function<void(SimulatedItemState&)>& change);
    /// The sync daemon picked up the local file or folder at `url`: adds or updates the item
    /// from it (contents, size, modification date; Current, uploaded), keeping the creation date
    /// and versions of an item already there. Throws when nothing is at `url` or it lies outside
    /// the containers.
    void uploadLocalItem(const URL& url);
    /// Removes the item and its versions; false when there is no such item. `localCopy` is
    /// Remove (also FollowStatus) or Keep; Write throws.
    bool removeItem(const URL& url, SimulatedLocalCopy localCopy = SimulatedLocalCopy::Remove);
    /// The item's state, or nullopt when there is no such item.
    std::optional<SimulatedItemState> item(const URL& url) const;
    /// Where the cloud keeps the item's local copy, or nullopt when there is no such item.
    std::optional<URL> localURL(const URL& url) const;

    // Metadata feeds (the subscriptions of metadata queries).
    //
    // A feed started while signed in gathers the items of its scopes present at that moment,
    // sorted by path, in batches of the gathering batch size, then finishes gathering; after
    // that it hears every change of an item of its scopes until it is stopped. A feed started
    // while signed out gathers nothing and never hears of changes. Changes queued for a feed
    // since its last delivery are merged into one feedDidChange: an item changed several times
    // is reported once, in its last state, in the order items were first changed.
    //
    // Nothing reaches an observer until the test delivers it with `deliverQueryBatches` (on the
    // calling thread), unless automatic delivery is on (on the global dispatch queue). Either
    // way a feed's calls never overlap and keep their order, and no call for a stopped feed
    // starts after `stopMetadataFeed` returns.

    /// Items per gathering batch; 0 (the default) gathers everything in one batch. Applies to
    /// feeds started afterwards.
    void setGatheringBatchSize(std::size_t itemsPerBatch);
    /// Delivers every batch queued for every feed, feed by feed in the order they started:
    /// gathering batches, the end of gathering, then one feedDidChange with the changes queued
    /// so far. Changes queued while it runs wait for the next call. A feed whose delivery is
    /// already running on this thread (the call comes from its observer) is skipped; one
    /// running on another thread is waited for. Returns the number of observer calls made.
    std::size_t deliverQueryBatches();
    /// As `deliverQueryBatches`, but at most one batch per feed: one gathering batch, or the end
    /// of gathering, or the changes so far. For tests of partial gathering.
    std::size_t deliverNextQueryBatch();
    /// The number of batches queued and not yet delivered, over all feeds.
    std::size_t pendingQueryBatchCount() const;
    /// The number of feeds started and not stopped.
    std::size_t runningFeedCount() const;
    /// On: batches are delivered as soon as they are queued, on the global dispatch queue
    /// (including those already queued). Off (the default): only `deliverQueryBatches`
    /// delivers; a delivery already running finishes the batch it is in.
    void setAutomaticDelivery(bool automatic);

    // Downloads.
    //
    // `startDownloading` of an item whose status is Current succeeds and changes nothing, even
    // when the local copy is missing: the daemon trusts its status. For an item that needs
    // downloading it fails with NSUbiquitousFileUbiquityServerNotAvailable while the network is
    // unreachable, and otherwise follows the item's download behaviour (or the default one).
    // A completed download writes the cloud's contents to the local copy and makes the item
    // Current, 100 % downloaded and not downloading.

    /// The behaviour for items without their own; Immediate to begin with.
    void setDefaultDownloadBehavior(SimulatedDownloadBehavior behavior);
    /// The behaviour for the item at `url` (which need not exist yet; throws outside the
    /// containers); nullopt returns it to the default. Kept when the item is removed.
    void setDownloadBehavior(const URL& url, std::optional<SimulatedDownloadBehavior> behavior);
    /// Moves a progressive download on to `percent` (clamped to 0...100) and queues a change;
    /// at 100 the download completes. Works whatever the network state. Throws when the item is
    /// unknown or not downloading.
    void advanceDownload(const URL& url, double percent);

    // Versions. Their contents live in a directory the cloud creates in the system's temporary
    // directory on first use and removes when it is destroyed.

    /// Stores a conflict version of the item (throws when the item is unknown) and marks the
    /// item as having unresolved conflicts. `contents` may equal the item's own contents.
    FileVersionRecord addConflictVersion(const URL& url, std::string contents,
                                         Date modificationDate,
                                         std::string savingComputer = "Simulated Computer");
    /// Stores an older, non-conflict version of the item (throws when the item is unknown).
    FileVersionRecord addOlderVersion(const URL& url, std::string contents, Date modificationDate,
                                      std::string savingComputer = "Simulated Computer");

    // Network. Reachable to begin with; each change posts
    // QNUbiquityServiceReachabilityDidChangeNotification with the cloud as sender, on the main
    // thread.

    void setNetworkReachable(bool reachable);

    // UbiquityService.

    std::optional<UbiquityIdentityToken> identityToken() override;
    /// The generated location (created on the disk when missing) or the one set with
    /// `setContainerURL`, after the lookup delay; nullopt when signed out or for an identifier
    /// that names no folder (empty, or containing "/").
    std::optional<URL> containerURL(std::string_view containerIdentifier) override;
    /// Fails with NSUbiquitousFileUnavailableError when signed out or when `url` lies outside
    /// the containers, and with NSFileReadNoSuchFileError for an unknown item. See Downloads.
    bool startDownloading(const URL& url, Error* error) override;
    /// Removes the local copy and makes the item NotDownloaded (ending any download). Fails as
    /// `startDownloading` does, and with NSFileReadNoSuchFileError for an item that is not
    /// downloaded. Works whatever the network state.
    bool evict(const URL& url, Error* error) override;
    /// NSURLUbiquitousItemIsUploadedKey, NSURLUbiquitousItemDownloadingStatusKey and
    /// NSURLUbiquitousItemIsDownloadedKey of a known item while signed in, from its state;
    /// nullopt without an error otherwise.
    std::optional<Value> resourceValue(const URL& url, std::string_view key, Error* error) override;
    /// Never calls the observer before returning.
    std::uint64_t startMetadataFeed(const std::vector<std::string>& scopes,
                                    std::shared_ptr<MetadataFeedObserver> observer) override;
    /// Waits for a delivery of the feed running on another thread; called from the feed's own
    /// observer, the running call finishes and no other follows.
    void stopMetadataFeed(std::uint64_t feed) override;
    /// Empty when signed out or the item is unknown; oldest first (by modification date, then
    /// in the order they were added).
    std::vector<FileVersionRecord> otherVersionsOfItem(const URL& url) override;
    /// Fails as `startDownloading` does, and with NSFileReadNoSuchFileError for an unknown
    /// version. The item's conflict flag follows: set while an unresolved conflict version is
    /// left, cleared (with a metadata change) when none is.
    bool setVersionResolved(const URL& url, std::string_view versionIdentifier, bool resolved,
                            Error* error) override;
    /// Also deletes the version's contents. Fails and updates the conflict flag as
    /// `setVersionResolved` does.
    bool removeVersion(const URL& url, std::string_view versionIdentifier, Error* error) override;
    /// What `setNetworkReachable` set.
    std::optional<bool> isNetworkReachable() override;

private:
    explicit SimulatedCloud(std::optional<std::string> account);

    // Where `url` lies, in any of its spellings; nullopt outside the containers.
    std::optional<simulated::ItemLocation> locate(const URL& url) const;
    // As `locate`, but throws for a URL outside the containers, naming `member` of the test API.
    simulated::ItemLocation locateInContainers(const char* member, const URL& url) const;
    // Where the item at `location` has (or would get) its local copy. Takes `mutex_`.
    std::string localPathOf(const simulated::ItemLocation& location,
                            const std::string& drive) const;
    // Runs `change(CloudState&)` under `mutex_`, then schedules the automatic deliveries of the
    // batches it queued, unlocked.
    template <typename Change>
    void changeState(Change&& change);
    // Whether a read answers only while an account is signed in, as the service members do.
    enum class AccountNeeded : bool { No, Yes };
    // What `read(const ItemRecord&)` returns for the item `url` names, under `mutex_`; nullopt
    // when there is no such item, or no account when one is needed.
    template <typename Read>
    auto readItem(const URL& url, AccountNeeded accountNeeded, Read&& read) const;
    std::size_t deliver(std::size_t batchesPerFeed);
    void runAutomaticDelivery(std::uint64_t feedId);
    // Hands the feeds that need an automatic delivery to the dispatch queue; call unlocked.
    void scheduleAutomaticDeliveries();
    // Posts `name` on the main thread later, with this cloud as sender when `withSender`.
    void postLater(const char* name, bool withSender);
    FileVersionRecord addVersion(const URL& url, std::string contents, Date modificationDate,
                                 std::string savingComputer, bool isConflict);

    mutable std::mutex mutex_;
    std::condition_variable deliveryEnded_;         // with mutex_: a feed's delivery ended
    std::unique_ptr<simulated::CloudState> state_;  // guarded by mutex_
    std::mutex operationMutex_;                     // taken before mutex_, never after it
};

}  // namespace qn
