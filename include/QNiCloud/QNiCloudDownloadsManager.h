#pragma once

// The process-wide download scheduler: it turns requests to make cloud items local into the
// platform's ubiquitous-item downloads, a few at a time, and reports back on the main thread.

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "QNiCloud/QNiCloudDirectoryDownload.h"
#include "QNiCloud/QNiCloudDownloadHandlers.h"
#include "QNiCloud/QNiCloudFileDownload.h"
#include "qn/Condition.h"
#include "qn/Error.h"
#include "qn/Logger.h"
#include "qn/Notification.h"
#include "qn/Object.h"
#include "qn/Operation.h"
#include "qn/OperationQueue.h"
#include "qn/QNReachability.h"
#include "qn/URL.h"

class QNiCloudDocumentsPresenter;
class QNiCloudMetadataItem;

/// Downloads the default presenter's cloud items on request.
///
/// Requests. A request names files or directories and may carry a token
/// (`QNBackgroundOperation`) and handlers. It is refused at once when the network is
/// unreachable (error 51 in QNiCloudErrorDomain to its error handler, nothing queued, the
/// manager `paused`); otherwise it is expanded on the manager's serial queue, which first waits
/// until the default presenter's cache is initialised. A file that is already local is completed
/// at once; any other becomes a record in the download queue. A directory request is expanded
/// through the presenter's directory enumeration, which hands over no attributes, so no file
/// ever passes the regular-file test: every directory request counts as complete at once, with
/// sizes 0. This is how the scheduler has always behaved, and it is kept.
///
/// Starting. At most `maxSimultaneousFileDownloadsCount` records are active. The record at the
/// head of the queue (priority 1 goes to the head, anything else to the end) is started unless
/// its token is cancelled (then it is dropped silently) or the presenter's metadata forbids it:
/// already downloaded (finished without error), in conflict (error 5), not reachable (error 51,
/// the manager pauses until the network returns) or not yet uploaded (error 5). A platform
/// refusal is passed on unchanged. Errors are never retried.
///
/// Following. The manager learns of progress and completion only from the presenter's
/// file-change notifications (download progress, downloaded, conflict appeared), of removals
/// from QNiCloudFileWasRemovedNotification (error 2), and of the network from the reachability
/// monitor. An account sign-out or switch drops everything without callbacks.
///
/// Callbacks. Every handler runs on the main thread, handed over asynchronously, never while a
/// lock of the library is held. The one exception to "asynchronously": the refusal of a request
/// made on the main thread calls the error handler directly, before the request returns.
///
/// Threads. Every public member may be called from any thread. Request expansion, deferred
/// starts and reactions to the presenter's notifications run one at a time on
/// `downloadOperationQueue`. `startNextFileDownloadIfPossible` also runs on whichever thread
/// calls it (the main thread when the network returns), so two threads may start downloads at
/// once; a record being started holds its place against the limit, which is therefore never
/// exceeded.
///
/// Locks:
///   - `_itemsDownloadsLock` (recursive) guards `_activeFilesDownloads`, `_filesDownloadsQueue`,
///     `_downloadingItemsPaths`, `_startingCount` and `_cancellationGeneration`. It is taken before
///     the presenter's `_cacheLock` (the directory expansion enumerates the cache while holding it)
///     and never while waiting for the main thread.
///   - `_cacheInitializedCondition` is held only around the test of the presenter's
///     `cacheInitialized` in the expansion's wait loop; nothing else is taken inside it.
/// The manager reads the presenter's cached snapshots under the presenter's `_cacheLock`.
class QNiCloudDownloadsManager final : public qn::Object {
public:
    using FileDownloadPointer = std::shared_ptr<QNiCloudFileDownload>;

    /// The one instance, made on first use and never destroyed.
    static const std::shared_ptr<QNiCloudDownloadsManager>& sharedManager();
    /// The logger named "iCloud".
    static qn::Logger& l4Logger();

    QNiCloudDownloadsManager(const QNiCloudDownloadsManager&) = delete;
    QNiCloudDownloadsManager& operator=(const QNiCloudDownloadsManager&) = delete;
    ~QNiCloudDownloadsManager() override;

    /// Drops the work still waiting on the manager's queue, then every active record, queued
    /// record and accepted path, without calling any handler. Downloads the platform has started
    /// go on.
    void cancelAllDownloads();

    /// Whether a started download has this path (as paths compare), or the item's path was
    /// accepted and not yet finished. A file of a cancelled request stays "downloading" until
    /// `cancelAllDownloads`.
    bool isDownloadingItemAtURL(const qn::URL& url);
    bool isDownloadingItemAtPath(std::string_view path);

    /// A batch of one item, without token, priority or handlers.
    void downloadItemAtURL(const qn::URL& url);
    /// A batch without token, priority or handlers.
    void downloadItemsAtURLs(const std::vector<qn::URL>& urls);
    /// A batch with priority 1 and `operation`, or a new token when it is null. Returns the
    /// token, or null when the network is unreachable.
    QNBackgroundOperationPointer downloadItemsAtURLs(
        const std::vector<qn::URL>& urls, QNBackgroundOperationPointer operation,
        QNiCloudFileDownloadProgressHandler fileDownloadProgressHandler,
        QNiCloudFileDownloadCompletionHandler fileDownloadCompletionHandler,
        QNiCloudDownloadsProgressHandler progressHandler,
        QNiCloudDownloadsCompletionHandler completionHandler,
        QNiCloudDownloadErrorHandler errorHandler);
    /// Downloads the items named (a URL the presenter has no metadata for, and which is no
    /// package, counts as a directory). Per file: `fileDownloadProgressHandler` and
    /// `fileDownloadCompletionHandler`; per batch: `progressHandler` with the running totals
    /// (items already local add to the downloaded size but not the total, so the percentage may
    /// pass 100; a total of 0 gives what dividing by 0 gives), `completionHandler` once every
    /// item is done (never for an empty list), `errorHandler` for each failure, after the token
    /// is cancelled. Returns `operation` as given (null stays null), or null when the network is
    /// unreachable.
    QNBackgroundOperationPointer downloadItemsAtURLs(
        const std::vector<qn::URL>& urls, QNBackgroundOperationPointer operation,
        std::int32_t priority, QNiCloudFileDownloadProgressHandler fileDownloadProgressHandler,
        QNiCloudFileDownloadCompletionHandler fileDownloadCompletionHandler,
        QNiCloudDownloadsProgressHandler progressHandler,
        QNiCloudDownloadsCompletionHandler completionHandler,
        QNiCloudDownloadErrorHandler errorHandler);
    /// One item with priority 1 and the handlers as given. A local item completes at once (a
    /// directory with sizes 0). Returns the token used (a new one when `operation` is null), or
    /// null when the network is unreachable.
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

    // Accepting records. Each waits until the default presenter's cache is initialised, so call
    // them from background threads. True when the record was queued. A file that is already
    // downloaded is not queued; with `callCompletionHandlerIfDownloaded` its completion handler
    // hears (size, 0) on the main thread. The same file asked for twice is queued twice.

    bool addDownload(const FileDownloadPointer& download);
    bool addDownload(const FileDownloadPointer& download, bool callCompletionHandlerIfDownloaded);
    /// Queues no wait: a directory's not-yet-downloaded regular files, each as a record pointing
    /// back to it.
    bool addDirectoryDownload(const std::shared_ptr<QNiCloudDirectoryDownload>& download,
                              bool callCompletionHandlerIfDownloaded);
    /// Queues no wait: the file unless its metadata says downloaded.
    bool addFileDownload(const FileDownloadPointer& download,
                         bool callCompletionHandlerIfDownloaded);

    /// Starts queued records, one after another, until the limit is reached or the queue is
    /// empty (see the class comment). Any thread.
    void startNextFileDownloadIfPossible();
    /// Queues `startNextFileDownloadIfPossible` on the manager's queue.
    void scheduleStartOfNextDownload();
    /// The active records whose path equals `path` (as paths compare), in the set's order. Takes
    /// `_itemsDownloadsLock` itself; callers that need the answer to stay true hold it around.
    std::vector<FileDownloadPointer> activeDownloadsForNormalizedPath(std::string_view path);

    /// True when the network is reachable. Otherwise gives `errorHandler` (when given) error 51
    /// with no token (directly on the main thread, else handed to it), pauses and answers false.
    bool checkReachabilityAndCallErrorHandlerIfNecessary(
        const QNiCloudDownloadErrorHandler& errorHandler);

    // Reactions to notifications, observed from any sender. They run on the posting thread
    // (the main thread) and move their work to the manager's queue, except the reachability
    // change, which starts downloads directly.

    void networkReachabilityChanged(const qn::Notification& notification);
    void cacheInitialized(const qn::Notification& notification);
    void fileWasRemoved(const qn::Notification& notification);
    void fileDidChange(const qn::Notification& notification);
    void accountStateDidChange(const qn::Notification& notification);

    // Finishing and progress. The path forms act on started records only, on the manager's
    // queue; the record forms report to the record's handlers, or to its directory request's.

    void didFinishDownloadForFileAtNormalizedPath(std::string_view path,
                                                  std::optional<qn::Error> withError);
    /// Takes `_itemsDownloadsLock` (also when the caller holds it). A cancelled record, or a
    /// file of a cancelled directory request, gets no callback.
    void didFinishFileDownload(const FileDownloadPointer& download,
                               const std::optional<qn::Error>& withError);
    void didChangeProgressForFileDownloadAtNormalizedPath(std::string_view path);
    void didChangeProgressForFileDownload(const FileDownloadPointer& download);

    // Properties.

    /// True while downloads are held back for lack of network.
    bool paused() const { return _paused.load(); }
    void setPaused(bool paused) { _paused.store(paused); }
    /// The most records active at once. Default 3. Setting it starts nothing by itself.
    std::uint64_t maxSimultaneousFileDownloadsCount() const {
        return _maxSimultaneousFileDownloadsCount.load();
    }
    void setMaxSimultaneousFileDownloadsCount(std::uint64_t count) {
        _maxSimultaneousFileDownloadsCount.store(count);
    }
    /// The serial queue on which requests are expanded and events handled; hosts and tests may
    /// wait on it to see the manager settle.
    const std::shared_ptr<qn::OperationQueue>& downloadOperationQueue() const {
        return _downloadOperationQueue;
    }

    /// Copies of the collections, for inspection.
    std::vector<FileDownloadPointer> activeFilesDownloads();
    std::vector<FileDownloadPointer> filesDownloadsQueue();
    std::vector<std::string> downloadingItemsPaths();

private:
    struct Private {
        explicit Private() = default;
    };

public:
    /// Use `sharedManager`.
    explicit QNiCloudDownloadsManager(Private);

private:
    // What the manager reads of an item's snapshot, copied under the presenter's `_cacheLock`.
    struct ItemState {
        bool isDownloaded = false;
        bool hasUnresolvedConflicts = false;
        bool isUploaded = false;
        double percentDownloaded = 0;
        std::uint64_t contentSize = 0;
        // For the log line of a refusal only: formatting it costs more than the rest together.
        std::shared_ptr<const QNiCloudMetadataItem> item;
    };
    static std::optional<ItemState> itemStateForPath(QNiCloudDocumentsPresenter* presenter,
                                                     std::string_view path);
    static std::string describeItem(QNiCloudDocumentsPresenter& presenter,
                                    const QNiCloudMetadataItem& item);

    void registerForNotifications();
    /// Waits until the default presenter's cache is initialised; false when `outerOperation` was
    /// cancelled meanwhile (all downloads were cancelled).
    bool waitUntilCacheInitialized(const qn::OuterOperation& outerOperation);
    // The forms used by requests: nothing is queued once `outerOperation` is cancelled, which
    // `cancelAllDownloads` does under `_itemsDownloadsLock`.
    bool addDownload(const FileDownloadPointer& download, bool callCompletionHandlerIfDownloaded,
                     const qn::OuterOperation& outerOperation);
    bool addDirectoryDownload(const std::shared_ptr<QNiCloudDirectoryDownload>& download,
                              bool callCompletionHandlerIfDownloaded,
                              const qn::OuterOperation& outerOperation);
    bool addFileDownload(const FileDownloadPointer& download,
                         bool callCompletionHandlerIfDownloaded,
                         const qn::OuterOperation& outerOperation);
    enum class StartOutcome { Started, RefusedStartNext, RefusedStop };
    // Checks the record's metadata and asks the platform to start it; a refused record is
    // finished with its error.
    StartOutcome startFileDownload(const FileDownloadPointer& record);
    void enqueueLocked(const FileDownloadPointer& download);
    void addActiveLocked(const FileDownloadPointer& download);
    void removeActiveLocked(const FileDownloadPointer& download);
    void runBatchRequest(const std::vector<qn::URL>& urls,
                         const QNBackgroundOperationPointer& operation, std::int32_t priority,
                         QNiCloudFileDownloadProgressHandler fileDownloadProgressHandler,
                         QNiCloudFileDownloadCompletionHandler fileDownloadCompletionHandler,
                         QNiCloudDownloadsProgressHandler progressHandler,
                         QNiCloudDownloadsCompletionHandler completionHandler,
                         QNiCloudDownloadErrorHandler errorHandler,
                         const qn::OuterOperation& outerOperation);

    const std::shared_ptr<qn::OperationQueue> _downloadOperationQueue;
    std::vector<FileDownloadPointer> _activeFilesDownloads;  // a set: no two equal members
    std::deque<FileDownloadPointer> _filesDownloadsQueue;    // index 0 starts next
    std::unordered_set<std::string> _downloadingItemsPaths;
    std::recursive_mutex _itemsDownloadsLock;
    std::size_t _startingCount = 0;  // records between leaving the queue and becoming active
    std::uint64_t _cancellationGeneration = 0;  // counts `cancelAllDownloads`
    qn::Condition _cacheInitializedCondition;
    const std::shared_ptr<QNReachability> _networkReachability;
    std::atomic<bool> _paused{false};
    std::atomic<std::uint64_t> _maxSimultaneousFileDownloadsCount{3};
};
