#pragma once

// The library's central object: it stands for one cloud container, presents the container's
// Documents directory to file coordination, follows the user's account and tells the host on the
// main thread what happens in the container.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "QNiCloud/QNiCloud.h"
#include "QNiCloud/QNiCloudDownloadHandlers.h"
#include "qn/Date.h"
#include "qn/Dictionary.h"
#include "qn/DirectoryEnumerator.h"
#include "qn/Error.h"
#include "qn/FileAttributes.h"
#include "qn/FileCoordinator.h"
#include "qn/FilePresenter.h"
#include "qn/FileVersion.h"
#include "qn/FileVersionConflicts.h"
#include "qn/Logger.h"
#include "qn/Notification.h"
#include "qn/Object.h"
#include "qn/Operation.h"
#include "qn/OperationQueue.h"
#include "qn/URL.h"
#include "qn/UbiquityIdentityToken.h"
#include "qn/Value.h"

class QNiCloudCache;
class QNiCloudCacheEntry;
class QNiCloudDownloadsManager;
class QNiCloudMetadataItem;
class QNiCloudMetadataQuery;

/// One ubiquity container, named by its container identifier, and the documents in it.
///
/// Locations. Creation computes, without asking the platform, the container's expected location
/// (`containerURL`), its `Documents` directory (`documentsDirectoryURL`, the presented item) and
/// the library's own `iCloudMetadata` directory in the application support directory, outside
/// the container (`metadataDirectoryURL`). Set-up (`setupiCloudContainerIfSafeAndNecessary`)
/// later asks the platform where the container really is and, when the platform spells it
/// differently, replaces `containerURL` with the platform's spelling; `documentsDirectoryURL`
/// keeps the spelling made at creation, which is the one every cache path is relative to.
///
/// Account. The presenter follows the account through the platform's identity token: a first
/// token after none means "became available", another token "changed", no token "unavailable".
/// Each change resets the container flag, the queued work and the cache, sets the container up
/// again where an account is present, and posts QNiCloudAccountStateDidChangeNotification.
/// Creation reads the first token on a background thread, so the host's first account-state
/// notification (state 3 when signed in) arrives shortly after creation.
///
/// Lifetime. Create with `initWithContainerIdentifier`; one presenter per process is usually
/// installed as `defaultPresenter`. A presenter takes part in file coordination only between
/// `registerForFileChangesNotifications` and `unregisterFromFileChangesNotifications` (or its
/// replacement as default presenter). Background work it starts keeps it alive until it ends.
///
/// Threads. Every member may be called from any thread unless it says otherwise. Notifications
/// are always delivered on the main thread (see the notify operations). Set-up refuses the main
/// thread, because finding the container may block. The presenter's own work runs on
/// `presentedItemOperationQueue`, a serial queue that also receives the file-presenter callbacks.
///
/// Locks, all recursive (a holder may call back into the presenter):
///   - `containerLock`: the one-time container set-up and repair of `containerURL`;
///   - `_tagLock`: the identity token; held only around reading and replacing it;
///   - `_cacheQueryLock`: the live metadata query and its batching interval;
///   - `_cacheLock`: the metadata cache and the cache-initialised flag;
///   - the class-level lock: the default presenter.
/// `_cacheQueryLock` and `_cacheLock` are never held together. The downloads manager takes
/// `_cacheLock` to read cached snapshots, possibly inside its own lock (which comes first). No
/// notification is posted and no host code is called while the presenter holds one of them, except
/// the queued hand-over of a notification to the main thread, which never waits, and log lines: a
/// log sink must not call back into the presenter.
class QNiCloudDocumentsPresenter final : public qn::Object, public qn::FilePresenter {
public:
    /// The logger named "iCloud".
    static qn::Logger& l4Logger();

    // The process-wide default presenter.

    /// The default presenter, or null. Never creates one.
    static std::shared_ptr<QNiCloudDocumentsPresenter> defaultPresenter();
    /// Installs `presenter` (or none) as default. Installing the presenter that is already the
    /// default does nothing. Otherwise the replaced default is then unregistered from file
    /// changes, which waits for its queued work; called from an operation on the replaced
    /// presenter's queue it would wait for itself, so it throws
    /// `qn::InternalInconsistencyException` and changes nothing. The new default is not
    /// registered: the host calls `registerForFileChangesNotifications` on it.
    static void setDefaultPresenter(std::shared_ptr<QNiCloudDocumentsPresenter> presenter);
    static bool hasDefaultPresenter();

    /// The expected `Documents` directory of the container `identifier`, not standardised.
    static qn::URL documentsDirectoryURLFromContainerIdentifier(std::string_view identifier);

    // Creation and tear-down.

    /// A presenter for the container `containerIdentifier`; an empty or missing identifier means
    /// the application's default container. Null when there is no identifier to use. Returns at
    /// once; the account state is read, and the container set up, on a background thread.
    static std::shared_ptr<QNiCloudDocumentsPresenter> initWithContainerIdentifier(
        std::optional<std::string_view> containerIdentifier);

    /// A presenter needs its container identifier: use `initWithContainerIdentifier`.
    QNiCloudDocumentsPresenter() = delete;
    QNiCloudDocumentsPresenter(const QNiCloudDocumentsPresenter&) = delete;
    QNiCloudDocumentsPresenter& operator=(const QNiCloudDocumentsPresenter&) = delete;
    /// Stops observing, leaves file coordination, cancels the queued work without waiting,
    /// stops the live query and waits for any holder of `_cacheLock` to leave.
    ~QNiCloudDocumentsPresenter() override;

    // File coordination.

    /// Adds the presenter to file coordination and starts the cache query; does nothing when
    /// already registered.
    void registerForFileChangesNotifications();
    /// Leaves file coordination, cancels the queued work and waits until the queue is idle, then
    /// stops the cache query; does nothing when not registered. On the main thread it keeps
    /// running the main queue's work while it waits, since the running operation may be waiting
    /// for the main thread. Must not be called from an operation on `presentedItemOperationQueue`
    /// (it would wait for itself: throws `qn::InternalInconsistencyException`, changing nothing).
    void unregisterFromFileChangesNotifications();
    /// A new coordinator acting for this presenter, so that the presenter is not told about the
    /// changes made through it. The caller owns it.
    std::shared_ptr<qn::FileCoordinator> newFileCoordinator();

    // Container set-up.

    /// Makes sure the container is set up: true when it is usable. False, without a log line,
    /// when there is no account; false, with a warning, on the main thread (unless the container
    /// is already set up) or when the platform has no container for the identifier. The first
    /// successful call creates the default directories, repairs `containerURL` if the platform
    /// spells it differently (restarting the cache query when registered) and posts
    /// QNiCloudDidInitializeContainerNotification. May block while the platform looks the
    /// container up.
    bool setupiCloudContainerIfSafeAndNecessary();
    /// Creates the Documents and metadata directories with their parents; failures are ignored.
    void createDefaultDirectories();
    /// Whether the owner may read and write the Documents directory; logs why when its
    /// attributes cannot be read.
    bool canAccessDocumentsDirectory();

    /// Gives `operation`, before it is queued, the quality of service that `threadPriority`
    /// stands for: above 0.75 user-interactive, above 0.5 user-initiated, above 0.25 utility,
    /// otherwise background (0.75, 0.5 and 0.25 themselves fall into the lower class). The
    /// priority is not clamped: below 0.0 counts as background, and from 1.25 up the class index
    /// is negative and `std::out_of_range` is thrown.
    void updatePriorityForOperation(qn::Operation& operation) const;

    // Account state.

    /// QNiCloudAccountStateAvailable while an identity token is known, otherwise
    /// QNiCloudAccountStateUnavailable; never a transition state.
    QNiCloudAccountState currentAccountState() const;
    bool isiCloudAvailable() const;
    /// Observer of qn::NSUbiquityIdentityDidChangeNotification: hands the file manager's current
    /// token to `setNewUbiquityIdentityToken` on the delivering thread.
    void ubiquityIdentityDidChange(const qn::Notification& notification);
    /// Takes `token` as the account's identity. When the account situation changed, resets on
    /// the calling thread (container flag, cache query, queued work, cache), sets the container
    /// up again for a new account, queues QNiCloudAccountStateDidChangeNotification, and restarts
    /// the cache query in the background once the cancelled work has drained. The same token
    /// again changes nothing; no token after none only logs.
    void setNewUbiquityIdentityToken(std::optional<qn::UbiquityIdentityToken> token);

    // Path classification. The reference directories are read at the time of the call, and the
    // arguments are compared as given, with the utility layer's path predicates (lexical,
    // without regard to letter case).

    /// Strictly below `containerURL` (which set-up may repair). Empty: false.
    bool isiCloudItemPath(std::string_view path) const;
    bool isiCloudItemURL(const qn::URL& url) const;
    /// The Documents directory itself. Empty: false.
    bool isiCloudDocumentsDirectoryPath(std::string_view path) const;
    bool isiCloudDocumentsDirectoryURL(const qn::URL& url) const;
    /// Strictly below the Documents directory.
    bool isiCloudDocumentsDirectorySubItem(std::string_view path) const;
    /// The Documents directory or below it. Empty: false.
    bool isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryPath(std::string_view path) const;
    bool isiCloudDocumentsDirectorySubItemOrDocumentsDirectoryURL(const qn::URL& url) const;
    /// The metadata directory or below it.
    bool isiCloudMetadataSubItemPath(std::string_view path) const;
    bool isiCloudMetadataSubItemURL(const qn::URL& url) const;

    // Notifications. "Queued" ones are built on the calling thread and handed to the main
    // thread without waiting, arriving in the order of hand-over. "Synchronous" ones are posted
    // at once on the main thread; from any other thread the caller waits until the main thread
    // has run every observer, so it must not hold a lock that main-thread work may need.

    /// Queued. Sender: the presenter. QNiCloudAccountStateKey, and QNiCloudContainerURLKey when
    /// `containerURL` is given.
    void notifyiCloudAccountStateDidChange(QNiCloudAccountState state,
                                           const std::optional<qn::URL>& containerURL);
    /// Queued. Sender: the presenter. QNiCloudContainerURLKey, or no user info at all without a
    /// URL.
    void notifyDidInitializeContainerWithURL(const std::optional<qn::URL>& containerURL);
    /// Synchronous. The path as given.
    void notifyFileDidAppearAtPath(std::string_view path, bool isDirectory);
    /// Synchronous. The path as given.
    void notifyFileWasRemovedAtPath(std::string_view path, bool isDirectory);
    /// Normalises `path` and posts as `notifyFileDidChangeAtNormalizedPath`.
    void notifyFileDidChangeAtPath(std::string_view path, QNiCloudFileChangeType type);
    /// Synchronous. `path` must already be normalised.
    void notifyFileDidChangeAtNormalizedPath(std::string_view path, QNiCloudFileChangeType type);
    /// Queued.
    void notifyDidUpdateCacheWithFilesCount(std::uint64_t filesCount);
    /// Queued.
    void notifyCacheInitializedWithFilesCount(std::uint64_t filesCount,
                                              std::uint64_t filesInDocumentsDirectoryCount);
    /// Queued.
    void notifyDidClearCache();
    /// Posts `notification` on the default centre on the main thread and returns once every
    /// observer has run.
    static void postMainThreadNotification(const qn::Notification& notification);

    // Conflicts. A conflict version whose contents equal the item's own file is an invalid
    // conflict: the checks that resolve invalid conflicts remove such versions (a failed removal
    // is logged) and never count them. The checks block while they wait for coordinated access
    // and ask the ubiquity service: call them from a background thread, never from inside a
    // coordinated accessor. Items' flags are changed without `_cacheLock` (the flag is atomic).

    /// Whether the item at `url` has unresolved conflict versions, after removing the invalid
    /// ones when `andResolveInvalidConflicts` is true.
    bool checkIfItemAtURLHasUnresolvedConflicts(const qn::URL& url,
                                                bool andResolveInvalidConflicts);
    /// The check with invalid conflicts resolved, stored in `metadataItem`'s flag. When the flag
    /// changes, posts the file change (QNiCloudFileChangeConflictAppeared or
    /// QNiCloudFileChangeConflictResolved) for `url`'s path, synchronously. Returns the answer.
    bool checkIfItemAtURLHasUnresolvedConflicts(const qn::URL& url,
                                                QNiCloudMetadataItem& metadataItem);
    /// The check above, run on the global queue of default quality of service; the answer goes
    /// to `completionHandler` (may be empty) on the main thread. Any thread. Throws
    /// `std::invalid_argument` without an item.
    void checkIfItemAtURLHasUnresolvedConflicts(const qn::URL& url,
                                                std::shared_ptr<QNiCloudMetadataItem> metadataItem,
                                                std::function<void(bool)> completionHandler);
    /// Confirms a true conflict flag of `metadataItem` (invalid conflicts resolved) and stores
    /// the answer; a false flag is left alone without asking. True when the flag changed. Posts
    /// nothing: the caller decides what to tell the host.
    bool updateHasUnresolvedConflictsFlagIfNecessaryForMetadataItem(
        QNiCloudMetadataItem& metadataItem, const qn::URL& url);
    /// Removes, in order, the versions of `usingUresolvedConflictVersions` whose contents equal
    /// the current file of the item at `url` (compared under a coordinated read that does not
    /// ask presenters to save first) and returns the others. Without a file at `url` every
    /// version is kept.
    std::vector<std::shared_ptr<qn::FileVersion>> resolveInvalidConflictsForItemAtURL(
        const qn::URL& url,
        const std::vector<std::shared_ptr<qn::FileVersion>>& usingUresolvedConflictVersions);

    // Resolving a conflict: the file work is qn::resolveConflictsForItemAtURL's (see
    // FileVersionConflicts.h for the handlers' arguments); the presenter keeps the cache and the
    // host in step with it. The handlers run on the thread doing the work, never under a lock of
    // the presenter.

    /// Saves `bySavingVersions` as copies in `parentURLToSaveTo` and deletes
    /// `andDeletingVersions`. Each saved copy is added to the cache as a downloaded file and
    /// announced (QNiCloudFileDidAppearNotification, not a directory) before `progressHandler`
    /// hears of it; on completion the cached item's conflict flag is cleared and
    /// QNiCloudFileChangeConflictResolved posted, whatever the flag was, before
    /// `completionHandler` runs. Errors go to `errorHandler` only. Every handler may be empty.
    /// Blocks while it coordinates and posts synchronously to the main thread: call it from a
    /// background thread; the handlers run on the calling thread.
    void resolveConflictsForItemAtURL(
        const qn::URL& url, std::vector<std::shared_ptr<qn::FileVersion>> bySavingVersions,
        std::vector<std::shared_ptr<qn::FileVersion>> andDeletingVersions,
        const qn::URL& parentURLToSaveTo, std::shared_ptr<qn::FileCoordinator> fileCoordinator,
        qn::ConflictRemoveCurrentVersionHandler removeCurrentVersionHandler,
        qn::ConflictProgressHandler progressHandler,
        qn::ConflictCompletionHandler completionHandler, qn::ConflictErrorHandler errorHandler);
    /// Keeps the item's latest version (saved as a copy in `parentURLToSaveTo` unless it is the
    /// current one) and deletes every other version, as `resolveConflictsForItemAtURL` does.
    /// Returns at once; the work and every handler run on the global queue of default quality
    /// of service. An item without any version is left alone and no handler is called. Any
    /// thread.
    void resolveConflictsBySavingLatestVersionForItemAtURL(
        const qn::URL& url, const qn::URL& parentURLToSaveTo,
        qn::ConflictRemoveCurrentVersionHandler removeCurrentVersionHandler,
        qn::ConflictProgressHandler progressHandler,
        qn::ConflictCompletionHandler completionHandler, qn::ConflictErrorHandler errorHandler);

    // Creating, writing and reading files. Each coordinates through `newFileCoordinator` (the
    // presenter hears nothing of its own changes) after asking for the container's set-up (a
    // refusal is ignored, so they still work on the main thread before set-up). They block the
    // calling thread until coordination grants access: call them from background threads. The
    // handlers run synchronously on the calling thread while access is held, so they must not
    // wait for another thread that coordinates. Creations add the new item to the cache at once;
    // writes and reads leave the cache to the query.

    /// Writes a new file at the URL it is given; true when it did.
    using FileCreationBlock = std::function<bool(const qn::URL& url)>;
    /// Writes or reads the file at the URL it is given; true on success, otherwise it may store
    /// the reason in `error` (null when the caller wants none).
    using FileWriteBlock = std::function<bool(const qn::URL& url, qn::Error* error)>;
    using FileReadBlock = std::function<bool(const qn::URL& url, qn::Error* error)>;

    /// Lets `withCreationBlock` create the file under coordinated writing for replacing; when it
    /// answers true the item is cached as a new downloaded, not uploaded file. Reports nothing.
    void createFileAtURL(const qn::URL& url, const FileCreationBlock& withCreationBlock);
    void createFileAtPath(std::string_view path, const FileCreationBlock& withCreationBlock);
    /// Creates the file with `contents` (replacing the contents of a file there), creating the
    /// missing directories above it first. `attributes`, when given, holds the attributes to
    /// create the file with and receives those read back from the new file; failing to read
    /// them makes the answer false although the file is created (and cached). No error is
    /// reported.
    bool createFileAtURL(const qn::URL& url, std::string_view contents,
                         qn::Dictionary* attributes = nullptr);
    bool createFileAtPath(std::string_view path, std::string_view contents,
                          qn::Dictionary* attributes = nullptr);
    /// Creates the directory (with the missing ones above it when `withIntermediateDirectories`)
    /// and caches it as a folder. The Documents directory itself always succeeds at once,
    /// without touching the disk. `attributes` as for `createFileAtURL`; a failure to read them
    /// back fills `error`. Otherwise `error` gets the coordination's failure in preference to
    /// the file manager's, both logged. The empty URL: false, logged, `error` untouched.
    bool createDirectoryAtURL(const qn::URL& url, bool withIntermediateDirectories,
                              qn::Dictionary* attributes = nullptr, qn::Error* error = nullptr);
    bool createDirectoryAtPath(std::string_view path, bool withIntermediateDirectories,
                               qn::Dictionary* attributes = nullptr, qn::Error* error = nullptr);
    /// Runs `withWriteBlock` under coordinated writing for replacing and answers what it
    /// answers. When coordination fails the block does not run: false, and `error` gets the
    /// coordination's failure unless it already holds an error.
    bool writeToFileAtURL(const qn::URL& url, const FileWriteBlock& withWriteBlock,
                          qn::Error* error = nullptr);
    /// As `writeToFileAtURL`, under coordinated reading that does not ask other presenters to
    /// save first.
    bool readFromFileAtURL(const qn::URL& url, const FileReadBlock& withReadBlock,
                           qn::Error* error = nullptr);

    // The cache query: one live metadata query over the Documents scope keeps the cache in step
    // with the cloud. Its notifications arrive on the main thread and only queue work; the work
    // (filling, comparing) runs on `presentedItemOperationQueue`.

    /// Queues the set-up of the live query on the presenter's queue. Refused, with an info line,
    /// while a query exists or a set-up is under way. The set-up gives up quietly without an
    /// account, when not registered for file changes or when cancelled; otherwise it sets the
    /// container up, makes the query and has the main thread register for its notifications and
    /// start it. Any thread.
    void startCacheQuery();
    /// Stops and drops the live query on the main thread (waiting for it from any other thread);
    /// nothing without a query. Must not be called while holding `_cacheQueryLock` elsewhere.
    void stopCacheQuery();
    /// Empties the cache and marks it not initialised, then queues
    /// QNiCloudDidClearCacheNotification.
    void clearCache();
    /// Observes the three gathering and update notifications of `query` (main thread).
    void registerForNotificationsWithQuery(const std::shared_ptr<QNiCloudMetadataQuery>& query);
    void unregisterFromNotificationsWithQuery(const std::shared_ptr<QNiCloudMetadataQuery>& query);
    /// Freeze and thaw the live query's results (nothing without a query); every work unit
    /// brackets its reading of the results with them.
    void disableCacheQueryUpdates();
    void enableCacheQueryUpdates();
    /// Gathering-progress and update notifications of the live query (main thread): queue a fill
    /// while the cache is not initialised, a comparison afterwards. Notifications of another
    /// query are logged and ignored; those of a stopped query, or arriving while not registered
    /// for file changes, are ignored quietly.
    void metadataQueryDidUpdate(const qn::Notification& notification);
    /// The end of the first gathering (main thread): queues the initialisation sequence (fill,
    /// silent comparison, initialised flag, initial downloads, items found only on disk, then
    /// QNiCloudCacheInitializedNotification unless cancelled).
    void metadataQueryDidFinishGathering(const qn::Notification& notification);
    /// Hands every cached item that `shouldStartDownloadForItemAtURL` accepts to the downloads
    /// manager, until `outerOperation` is cancelled.
    void startInitialDownloadWithOuterOperation(const qn::OuterOperation& outerOperation);
    /// Blocks the calling thread, looking every 0.5 seconds, until the cache is initialised; no
    /// time-out. Never call it on the presenter's queue before initialisation: the
    /// initialisation would wait behind it for good.
    void ensureCacheInitialized();

    // Filling and comparing (on the presenter's queue, inside a unit that has frozen the query's
    // results). Each stops at the next item once `outerOperation` is cancelled; an empty outer
    // operation is never cancelled. Per-file notifications are posted only when `notify` is true
    // and the outer operation is not cancelled.

    /// Adds the results from the resume index on to the cache without comparing them (items
    /// outside the Documents directory skipped, broken files evicted instead), stores where it
    /// stopped, and with `notify` queues QNiCloudDidUpdateCacheNotification with the count.
    void fillCacheWithNewCacheQueryResultsOuterOperation(const qn::OuterOperation& outerOperation,
                                                         bool notifyAboutChanges);
    /// Compares every result with the cache: changed items are updated (a conflict flag that the
    /// check corrects is told as a second change), new ones added (broken files evicted, items
    /// in no transfer state at all skipped), and cached items the results no longer have are
    /// removed once nothing is left of them on disk.
    ///
    /// Deliberate departure: the cached items no result accounts for are looked for in the
    /// cached Documents tree, by their absolute paths. The design walks the cache from the
    /// container's own path, which a cache of the Documents directory has no entry for, so no
    /// removal would ever be found.
    void updateCacheWithCacheQueryResultsOuterOperation(const qn::OuterOperation& outerOperation,
                                                        bool notifyAboutChanges);
    /// Adds the items below the Documents directory that exist on disk (packages' insides
    /// included) but have no cache entry, as downloaded and uploaded; plain folders without a
    /// snapshot.
    void fillCacheWithExistingItemsWhichAreNotPresentInCacheQueryResultsOuterOperation(
        const qn::OuterOperation& outerOperation);

    // Cache upkeep after the library's own file operations, on the thread that made them. Paths
    // are absolute; only items in (or moved into) the Documents directory touch the cache, and
    // nothing is posted.

    bool containsCacheEntryForItemAtPath(std::string_view path);
    /// Moves the entry; removes it when it left the Documents directory; builds it (a directory
    /// with its whole subtree) from the destination on disk when it came in from outside.
    void updateCacheAfterMovingOfItemAtPath(std::string_view path, std::string_view toPath);
    /// Copies the entry, or builds it from the source on disk when the source is outside.
    void updateCacheAfterCopyingOfItemAtPath(std::string_view path, std::string_view toPath);
    /// A file or package gets a snapshot (downloaded, not uploaded); a plain folder none.
    void updateCacheAfterCreationOfItemAtPath(std::string_view path);
    void updateCacheAfterCreationOfItemAtPath(std::string_view path, bool isFileOrPackage);
    /// Marks the item not uploaded and takes its new modification date from disk (logged when
    /// unreadable).
    void updateCacheAfterUpdateOfItemAtPath(std::string_view path);
    void updateCacheAfterRemovalOfItemAtPath(std::string_view path);
    void updateCacheAfterRemovalOfItemsAtPaths(const std::vector<std::string>& paths);
    /// Logs a warning and asks the platform to evict the item, whose metadata says downloaded
    /// while nothing is on disk; a failure is logged. The cache is not touched.
    void handleBrokenFileAtPath(std::string_view path);
    /// True exactly when nothing exists at `path` on the local disk.
    bool checkIfFileReallyDoesNotExistIniCloudAtPath(std::string_view path);
    /// Evicts each item in order; stops at the first failure, which fills `error`. True for an
    /// empty list. The cache is left to the query.
    bool evictUbiquitousItemsAtURLs(const std::vector<qn::URL>& urls, qn::Error* error = nullptr);

    // Metadata questions. Any thread.

    /// The cached snapshot itself once the cache is initialised (null without entry); before, a
    /// new snapshot of the item from disk and the platform. Null for an empty path or one
    /// outside the Documents directory. The cache's own snapshot changes in place whenever the
    /// presenter compares or updates (under `_cacheLock`), so reading its fields races with the
    /// presenter's queue while the query runs; only `hasUnresolvedConflicts` is atomic. The
    /// questions below read under the lock.
    std::shared_ptr<QNiCloudMetadataItem> metadataItemForURL(const qn::URL& url);
    std::shared_ptr<QNiCloudMetadataItem> metadataItemForPath(std::string_view path);
    /// Sets the cached item's field that `type` selects (1 downloaded, 2 downloading, 3 percent
    /// downloaded, 4 uploaded, 5 uploading, 6 percent uploaded, 7 and 8 conflicts, 9 content
    /// change date) to `value` and, when it changed and `notify` is true, posts the file change
    /// with `type` (synchronously, on the main thread). A path without entry, another type, or
    /// a value of the wrong kind changes nothing.
    void updateMetadataItemForURL(const qn::URL& url, const qn::Value& value,
                                  QNiCloudFileChangeType type, bool notify);
    void updateMetadataItemForPath(std::string_view path, const qn::Value& value,
                                   QNiCloudFileChangeType type, bool notify);
    /// Anything outside the Documents directory counts as downloaded. Inside, the cached state
    /// once initialised, the platform's downloading status before.
    bool isFileDownloadedAtPath(std::string_view path);
    bool isFileDownloadedAtURL(const qn::URL& url);
    /// True when every file below the directory is downloaded, false for a directory without
    /// files. Waits until the cache is initialised (see `ensureCacheInitialized`).
    bool isDirectoryDownloadedAtPath(std::string_view path);
    bool isDirectoryDownloadedAtURL(const qn::URL& url);
    /// Whether the library should download the item on its own: never for an item that is
    /// downloaded, downloading or not yet uploaded; otherwise files and packages whose extension
    /// (in lower case) `extensionsAllowedForAutomaticDownload` allows, or have none.
    bool shouldStartDownloadForItemAtURL(const qn::URL& url);
    bool shouldStartDownloadForItemAtURL(const qn::URL& url,
                                         const QNiCloudMetadataItem* withMetadataItem);
    // Downloads, forwarded to QNiCloudDownloadsManager::sharedManager() (see there for the
    // handlers, which run on the main thread, and the token returned). Any thread.

    /// Asks the downloads manager to download the item, without token or handlers. The cache's
    /// automatic downloads (the initial pass, uploads that finished) come here too.
    void downloadItemAtURL(const qn::URL& url);
    /// These first ask for the container's set-up (declined on the main thread, and then gone on
    /// without), then forward every argument and answer the manager's token (null when the
    /// network is unreachable).
    QNBackgroundOperationPointer downloadItemsAtURLs(
        const std::vector<qn::URL>& urls, QNBackgroundOperationPointer operation,
        QNiCloudFileDownloadProgressHandler fileDownloadProgressHandler,
        QNiCloudFileDownloadCompletionHandler fileDownloadCompletionHandler,
        QNiCloudDownloadsProgressHandler progressHandler,
        QNiCloudDownloadsCompletionHandler completionHandler,
        QNiCloudDownloadErrorHandler errorHandler);
    QNBackgroundOperationPointer downloadItemAtURL(
        const qn::URL& url, bool isDirectory, QNBackgroundOperationPointer operation,
        QNiCloudFileDownloadProgressHandler progressHandler,
        QNiCloudFileDownloadCompletionHandler completionHandler,
        QNiCloudDownloadErrorHandler errorHandler);
    QNBackgroundOperationPointer downloadItemAtPath(
        std::string_view path, bool isDirectory, QNBackgroundOperationPointer operation,
        QNiCloudFileDownloadProgressHandler progressHandler,
        QNiCloudFileDownloadCompletionHandler completionHandler,
        QNiCloudDownloadErrorHandler errorHandler);

    // Listings, existence, attributes, moves, copies, removals and replacements of the
    // container's items. Each runs under file coordination through `newFileCoordinator` (so the
    // presenter hears nothing of its own changes), sets the container up first where it needs it
    // (ignoring a refusal, so it still works on the main thread before set-up), and keeps the
    // cache right at once after a change. Coordinated calls block the calling thread until
    // access is granted: call them from background threads, never from an accessor of another
    // thread's coordination. None posts a notification.

    /// Called for each item of a copy or removal with the item's URL, for a copy the URL it is
    /// copied to (for a removal the empty URL), and `proceed`, true on entry: leaving it false
    /// skips the item and, for a directory, everything below it.
    using FileOperationProgressHandler =
        std::function<void(const qn::URL& itemURL, const qn::URL& secondURL, bool& proceed)>;
    /// Called for each item of a directory walk with its path relative to the walked directory
    /// and, when asked for, its attributes (nullopt when unreadable); false stops the walk.
    using DirectoryEnumerationBlock = std::function<bool(
        const std::string& relativePath, const std::optional<qn::Dictionary>& attributes)>;

    // Listings. Once the cache is initialised they are answered from the cache alone under
    // `_cacheLock`, held across every callback (a callback must not wait for a thread that needs
    // the cache); a directory the cache does not hold then fails with QNiCloudErrorFileExists in
    // QNiCloudErrorDomain, even when it exists on disk. Before, they read the disk (coordinated
    // where said) and pass the platform's errors on. Nothing is filtered out: hidden items and
    // packages' insides are listed.

    /// The names of the directory's children (coordinated unless `coordinate` is false), in the
    /// cache's order (newest first) or the disk's. Nullopt on failure or for the empty URL. The
    /// Documents directory lists as empty when the cache has no entry for it.
    std::optional<std::vector<std::string>> contentsOfDirectoryAtURL(const qn::URL& url,
                                                                     bool coordinate,
                                                                     qn::Error* error = nullptr);
    std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(std::string_view path,
                                                                      bool coordinate,
                                                                      qn::Error* error = nullptr);
    std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(std::string_view path,
                                                                      qn::Error* error = nullptr);
    /// The paths of every item below the directory, relative to it ("a", "a/b"). Nullopt on
    /// failure or for an empty path. Coordinated before the cache is initialised.
    std::optional<std::vector<std::string>> subpathsOfDirectoryAtPath(std::string_view path,
                                                                      qn::Error* error = nullptr);
    std::optional<std::vector<std::string>> subpathsOfDirectoryAtURL(const qn::URL& url,
                                                                     qn::Error* error = nullptr);
    /// Walks every item below the directory, as `subpathsOfDirectoryAtPath` lists them, until
    /// `enumerator` answers false. With `extractFileAttributes` each item's attributes are read
    /// from disk (an unreadable one is logged and passed as nullopt); without, nullopt. An
    /// unknown or empty path walks nothing. Coordinated before the cache is initialised.
    void enumerateDirectoryAtPath(std::string_view path, bool extractFileAttributes,
                                  const DirectoryEnumerationBlock& enumerator);
    void enumerateDirectoryAtPath(std::string_view path,
                                  const DirectoryEnumerationBlock& withEnumerator);
    void enumerateDirectoryAtURL(const qn::URL& url, bool extractFileAttributes,
                                 const DirectoryEnumerationBlock& enumerator);
    void enumerateDirectoryAtURL(const qn::URL& url,
                                 const DirectoryEnumerationBlock& withEnumerator);
    /// An enumerator of the items below the directory, with qn::NSDirectoryEnumeration...
    /// `options`. Once the cache is initialised it yields relative path strings from the cache
    /// (nothing for an unknown directory), reading the live tree without a lock as it goes: use
    /// it only while the cache holds still. Before, it is the file manager's uncoordinated
    /// enumerator of the directory's URL, yielding URLs (null when unreadable).
    std::unique_ptr<qn::DirectoryEnumerator> enumeratorAtPath(
        std::string_view path, qn::DirectoryEnumerationOptions options = 0);

    // Existence and attributes.

    /// Whether the item exists: in the cache (downloaded or not) or on disk, and, before the
    /// cache is initialised, also when the parent directory holds a name that differs only in
    /// letter case. `existingURL` receives the spelling found (the cache's, or the parent
    /// listing's), or the empty URL when the item is found only on disk under the given
    /// spelling or not at all. `isDirectory` tells whether the found spelling names a directory
    /// on disk: an item found only under the given spelling is reported as no directory, and a
    /// cloud-only item too. The empty URL: false, outs untouched. Never reports an error.
    bool itemExistsAtURL(const qn::URL& url, bool* isDirectory, qn::URL* existingURL);
    bool itemExistsAtURL(const qn::URL& url, bool* isDirectory = nullptr);
    bool itemExistsAtPath(std::string_view path, bool* isDirectory = nullptr);
    /// The same as `itemExists...`.
    bool fileExistsAtURL(const qn::URL& url, bool* isDirectory = nullptr);
    bool fileExistsAtPath(std::string_view path, bool* isDirectory = nullptr);
    /// The item's content change date: the cached one once the cache is initialised (nullopt,
    /// without an error, for an item it does not know), before that the disk's modification
    /// date (uncoordinated). Nullopt for the empty URL.
    std::optional<qn::Date> modificationDateForItemAtURL(const qn::URL& url,
                                                         qn::Error* error = nullptr);
    /// Reads the item's attributes into `attributes` (and a symbolic link's destination's into
    /// `linkDestinationAttributes`) under coordinated reading. Two failures are answered
    /// instead: the Documents directory without permission to read it is a directory, and a
    /// missing item that `metadataItemForPath` answers for (once the cache is ready, a cached
    /// one) is a regular file (a directory when QNIsPackageFilePath says package) with that
    /// snapshot's size and content change date. Other errors are the platform's.
    bool loadAttributesOfItemAtPath(std::string_view path, qn::Dictionary* attributes,
                                    qn::Dictionary* linkDestinationAttributes,
                                    qn::Error* error = nullptr);
    /// Applies `attributes` to the item under coordinated writing; no container set-up, no cache
    /// change. `error` is filled only when the file manager failed, then with the coordination's
    /// error if coordination failed too: a coordination failure alone gives false and no error.
    bool setAttributes(const qn::Dictionary& attributes, std::string_view ofItemAtPath,
                       qn::Error* error = nullptr);

    // Moves, copies, removals and replacements. A destination that exists (in the cache too,
    // downloaded or not) is refused with QNiCloudErrorFileExists in QNiCloudErrorDomain, carrying
    // QNiCloudSourcePathKey and QNiCloudDestionationPathKey; other errors are the platform's, or
    // the coordination's when nothing else reported one. `destinationFileAttributes` receives the
    // moved or copied item's attributes, and failing to read them fails the operation (the item
    // is moved or copied all the same). Path variants take the file URLs of their paths.

    bool moveItemAtURL(const qn::URL& url, const qn::URL& toURL,
                       qn::Dictionary* destinationFileAttributes = nullptr,
                       qn::Error* error = nullptr);
    bool moveItemAtURL(const qn::URL& url, const qn::URL& toURL, qn::Error* error);
    bool moveItemAtPath(std::string_view path, std::string_view toPath,
                        qn::Dictionary* destinationFileAttributes = nullptr,
                        qn::Error* error = nullptr);
    bool moveItemAtPath(std::string_view path, std::string_view toPath, qn::Error* error);
    /// Copies recursively. `progressHandler` hears every item before it is copied; the items it
    /// declines stay out of the copy and out of the cache.
    bool copyItemAtURL(const qn::URL& url, const qn::URL& toURL,
                       const FileOperationProgressHandler& progressHandler,
                       qn::Dictionary* destinationFileAttributes, qn::Error* error = nullptr);
    bool copyItemAtURL(const qn::URL& url, const qn::URL& toURL,
                       const FileOperationProgressHandler& progressHandler,
                       qn::Error* error = nullptr);
    bool copyItemAtURL(const qn::URL& url, const qn::URL& toURL,
                       qn::Dictionary* destinationFileAttributes, qn::Error* error = nullptr);
    bool copyItemAtURL(const qn::URL& url, const qn::URL& toURL, qn::Error* error = nullptr);
    bool copyItemAtPath(std::string_view path, std::string_view toPath,
                        qn::Dictionary* destinationFileAttributes = nullptr,
                        qn::Error* error = nullptr);
    bool copyItemAtPath(std::string_view path, std::string_view toPath, qn::Error* error);
    /// Removes recursively. `progressHandler` hears every item before it is removed; a declined
    /// item stays, with the directories above it, and stays cached. False for the empty URL.
    bool removeItemAtURL(const qn::URL& url, const FileOperationProgressHandler& progressHandler,
                         qn::Error* error = nullptr);
    bool removeItemAtURL(const qn::URL& url, qn::Error* error = nullptr);
    bool removeItemAtPath(std::string_view path, qn::Error* error = nullptr);
    /// Puts the item at `withItemAtURL` in place of the item at `url` (see
    /// qn::FileManager::replaceItemAtURL) under coordinated writing of `url`, and marks the
    /// cached item changed (not uploaded, new date), or moves its entry when the file manager
    /// reports the item at another URL. Kept as hosts know it: `resultingItemURL`
    /// is never written, and when coordination fails the answer is still true (the
    /// coordination's error in `error`). False for an empty URL or when the replacement fails.
    bool replaceItemAtURL(const qn::URL& url, const qn::URL& withItemAtURL,
                          std::string_view backupItemName, qn::ItemReplacementOptions options,
                          qn::URL* resultingItemURL, qn::Error* error = nullptr);

    // Properties.

    std::string containerIdentifier() const;
    void setContainerIdentifier(std::string containerIdentifier);
    qn::URL containerURL() const;
    void setContainerURL(qn::URL containerURL);
    qn::URL documentsDirectoryURL() const;
    void setDocumentsDirectoryURL(qn::URL documentsDirectoryURL);
    qn::URL metadataDirectoryURL() const;
    void setMetadataDirectoryURL(qn::URL metadataDirectoryURL);
    /// The directory holding every container: the parent of the container's expected location.
    qn::URL driveDirectoryURL() const;

    bool isContainerInitialized() const { return _containerInitialized.load(); }
    void setContainerInitialized(bool containerInitialized) {
        _containerInitialized.store(containerInitialized);
    }
    /// The lock that set-up holds; replacing it affects set-ups that start afterwards.
    std::shared_ptr<std::recursive_mutex> containerLock() const;
    void setContainerLock(std::shared_ptr<std::recursive_mutex> containerLock);

    /// The metadata cache of the Documents directory (its normalised path), made on first use.
    /// The getter only guards the reference: callers that touch the tree hold `_cacheLock`.
    std::shared_ptr<QNiCloudCache> cache();
    void setCache(std::shared_ptr<QNiCloudCache> cache);

    /// Priority of the presenter's background work, 0.0 to 1.0 (see
    /// `updatePriorityForOperation`). Default 0.5.
    double threadPriority() const { return _threadPriority.load(); }
    void setThreadPriority(double threadPriority) { _threadPriority.store(threadPriority); }
    /// Seconds the live query gathers changes before reporting them. Default 1.0. The setter
    /// also applies the value to the running query.
    double cacheUpdatesInterval() const { return _cacheUpdatesInterval.load(); }
    void setCacheUpdatesInterval(double cacheUpdatesInterval);
    /// True once the first gathering of the live query has filled the cache.
    bool cacheInitialized() const { return _cacheInitialized.load(); }

    /// Lower-case extensions (without the dot) of the files the library may download on its
    /// own; none or an empty set allows every file. None by default.
    std::optional<std::set<std::string>> extensionsAllowedForAutomaticDownload() const;
    void setExtensionsAllowedForAutomaticDownload(
        std::optional<std::set<std::string>> extensionsAllowedForAutomaticDownload);
    /// How many files may download at once: the shared downloads manager's limit, read and
    /// written there. Default 3.
    std::uint64_t maxSimultaneousFileDownloadsCount() const;
    void setMaxSimultaneousFileDownloadsCount(std::uint64_t maxSimultaneousFileDownloadsCount);

    // qn::FilePresenter.

    /// `documentsDirectoryURL`.
    std::optional<qn::URL> presentedItemURL() const override;
    /// The presenter's serial queue (one operation at a time).
    std::shared_ptr<qn::OperationQueue> presentedItemOperationQueue() const override;
    /// Another process or coordinator changed `url`: when the item is cached and gone from disk,
    /// its entry is removed and QNiCloudFileWasRemovedNotification posted. Items that still
    /// exist are left to the query. Runs on the presenter's queue.
    void presentedSubitemDidChangeAtURL(const qn::URL& url) override;

private:
    // The downloads manager reads cached snapshots under `_cacheLock`.
    friend class QNiCloudDownloadsManager;

    struct Private {
        explicit Private() = default;
    };

public:
    /// Use `initWithContainerIdentifier`.
    QNiCloudDocumentsPresenter(Private, std::string containerIdentifier);

private:
    std::shared_ptr<QNiCloudDocumentsPresenter> self();
    /// Throws `qn::InternalInconsistencyException` on an operation of the presenter's own queue,
    /// where waiting for the queue would never end.
    void refuseWaitingFromOwnQueue() const;
    /// Finishes an account change once the calling thread's reset is done: queues, behind the
    /// cancelled work of the old account, one unit that stops any query, clears the cache again
    /// and, for a present account, starts the cache query. It runs on the serial queue rather
    /// than after a background wait for the queue to drain, so that no cache work can run beside
    /// the clearing (a host registering meanwhile would otherwise see a half-filled listing).
    void restartAfterAccountChange(QNiCloudAccountState state);
    void postQueued(qn::Notification notification);
    /// After a repair of the container's location: once the queue has drained (the set-up unit
    /// that found the new location may be among the cancelled work), starts the query again.
    void restartCacheQueryWhenIdle();

    // The cache query's own steps.

    /// Queues `work` on the presenter's queue in a block operation of its own, with the priority
    /// `updatePriorityForOperation` gives; the work gets the operation as outer operation.
    void enqueueCacheWork(
        std::function<void(QNiCloudDocumentsPresenter&, const qn::OuterOperation&)> work);
    /// The set-up unit that `startCacheQuery` queues for set-up number `setup`.
    void setUpCacheQuery(std::uint64_t setup, const qn::OuterOperation& outerOperation);
    /// Ends set-up number `setup`, if it is still the one under way. True when a start was
    /// turned away meanwhile and no query exists: the caller starts one again, unless it makes
    /// one itself.
    bool endCacheQuerySetup(std::uint64_t setup);
    /// The unit queued at the end of the first gathering.
    void initializeCache(const qn::OuterOperation& outerOperation);
    std::shared_ptr<QNiCloudMetadataQuery> cacheQuery();
    /// A new number for a comparison run, never 0.
    std::uint32_t nextComparisonRun();
    // With `_cacheLock` held: whether `query`'s runs may use the hints, taking them over (empty
    // and not vouched for) when `query` is the current cache query and another query had them.
    bool takeComparisonHintsLocked(const std::shared_ptr<QNiCloudMetadataQuery>& query,
                                   bool isCurrentQuery);
    /// Runs `change(QNiCloudCache&)` under `_cacheLock`, logging (instead of throwing) an index
    /// the cache's hash collisions make refuse a change.
    template <class Change>
    void changeCache(std::string_view path, Change&& change);

    /// The key of the query's user info holding the fill's resume index, spelled as it always was.
    static constexpr const char* kCacheQueryResumeIndexKey = "CurrentIdnex";

    // Fields, as the other units of the presenter use them.

    std::recursive_mutex _cacheQueryLock;
    std::shared_ptr<QNiCloudMetadataQuery> _cacheQuery;  // guarded by _cacheQueryLock
    bool _performingCacheQuerySetup = false;             // guarded by _cacheQueryLock
    // A start turned away while a set-up was under way: a set-up that ends without a query (it
    // ran before registration, say) must not lose it. Guarded by _cacheQueryLock.
    bool _cacheQueryStartWanted = false;
    std::uint64_t _cacheQuerySetup = 0;  // number of the last set-up; guarded by _cacheQueryLock
    std::recursive_mutex _cacheLock;
    std::optional<qn::UbiquityIdentityToken> _tag;  // guarded by _tagLock
    mutable std::recursive_mutex _tagLock;
    std::atomic<bool> _registeredForFileChanges{false};
    std::atomic<bool> _cacheInitialized{false};
    std::atomic<bool> _containerInitialized{false};
    const std::shared_ptr<qn::OperationQueue> _presentedItemOperationQueue;
    std::atomic<double> _threadPriority{0.5};
    std::atomic<double> _cacheUpdatesInterval{1.0};
    std::atomic<std::uint32_t> _comparisonRun{0};
    // What the last comparison found for each result position: the entry the result at that
    // position was looked up at. Valid while `_comparisonHintsCache` is the cache and entries
    // have left its index `_comparisonHintsIndexRemovals` times: then every entry named here is
    // still where it was found. Guarded by `_cacheLock`.
    std::vector<QNiCloudCacheEntry*> _comparisonHints;
    std::weak_ptr<QNiCloudCache> _comparisonHintsCache;
    std::uint64_t _comparisonHintsIndexRemovals = 0;
    // The query whose result positions the hints index. Runs of one query follow each other on
    // its queue; a run of another query (the current one taking over from one being replaced,
    // whose run may still be finishing on another thread) starts the hints afresh, and a run of
    // a query that no longer has them neither reads, writes nor vouches for them. Guarded by
    // `_cacheLock`.
    std::weak_ptr<QNiCloudMetadataQuery> _comparisonHintsQuery;

    // Guards the properties below, which are whole values read and replaced from any thread. A
    // leaf lock: nothing but making the cache runs while it is held.
    mutable std::mutex _propertyLock;
    std::string _containerIdentifier;
    qn::URL _driveDirectoryURL;
    qn::URL _containerURL;
    qn::URL _documentsDirectoryURL;
    qn::URL _metadataDirectoryURL;
    std::optional<std::set<std::string>> _extensionsAllowedForAutomaticDownload;
    std::shared_ptr<std::recursive_mutex> _containerLock;
    std::shared_ptr<QNiCloudCache> _cache;
};
