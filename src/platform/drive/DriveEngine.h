#pragma once

// The engine of one drive device: the signed-in account with its journal, the in-memory view of
// every item, the engine thread that syncs the containers with the store, and the metadata
// feeds it reports to. Private to the drive; `DriveService` is its public face.
//
// Units: DriveEngine.cpp (accounts, requests from other threads, feeds, the thread's loop) and
// DriveSync.cpp (one pass of the loop: the store's changes, the local scan, transfers).
//
// Locks, in the order they are taken:
//   - `accountMutex_`: the account, its journal and the containers on the disk. The engine
//     thread holds it for a whole pass; signing in and out take it, so they wait for the pass.
//   - `mutex_`: the views, the feeds, requests, flags; held briefly, never while the store, the
//     disk or an observer is called.

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "DriveWatcher.h"
#include "Journal.h"
#include "qn/DriveService.h"
#include "qn/MetadataFeed.h"

namespace qn::drive {

class DriveEngine {
public:
    DriveEngine(const DriveService::Options& options, std::string driveDirectory);
    ~DriveEngine();

    /// Reads the device's account and opens its journal, then starts the thread. `owner` is the
    /// sender of the notifications the engine posts.
    bool start(std::weak_ptr<Object> owner, Error* error);

    bool signIn(std::string_view account, Error* error);
    void signOut();
    std::optional<std::string> account() const;

    void wake();
    void setPaused(bool paused);
    bool waitUntilIdle(std::chrono::milliseconds timeout);

    std::optional<URL> containerURL(std::string_view identifier);
    bool startDownloading(const URL& url, Error* error);
    bool evict(const URL& url, Error* error);
    std::optional<Value> resourceValue(const URL& url, std::string_view key, Error* error);
    std::uint64_t startFeed(const std::vector<std::string>& scopes,
                            std::shared_ptr<MetadataFeedObserver> observer);
    void stopFeed(std::uint64_t id);
    std::vector<FileVersionRecord> otherVersions(const URL& url);
    bool setVersionResolved(const URL& url, std::string_view identifier, bool resolved,
                            Error* error);
    bool removeVersion(const URL& url, std::string_view identifier, Error* error);
    bool reachable();

private:
    // What the engine knows of an item: the journal's entry and what happened since.
    struct View {
        JournalEntry entry;
        std::optional<LocalIdentity> current;  // the local copy now (folders: inode only)
        bool downloadRequested = false;
        bool downloading = false;
        double percentDownloaded = 0;
        bool uploading = false;
        double percentUploaded = 0;
    };
    struct Feed {
        std::uint64_t id = 0;
        bool documents = false;
        bool data = false;
        std::shared_ptr<MetadataFeedObserver> observer;
        bool gathered = false;     // the items were delivered
        bool hearsChanges = true;  // false once the account it started with is gone
        bool delivering = false;
    };

    // Where an item lives: its store path, or nullopt outside the drive's containers.
    std::optional<std::string> storePathOf(const URL& url) const;
    std::string localPathOf(std::string_view storePath) const;
    // Containers: folder name <-> identifier.
    static std::string folderOfContainer(std::string_view identifier);
    static std::optional<std::string> containerOfFolder(std::string_view folder);

    // Accounts (with `accountMutex_` held).
    bool switchAccountLocked(std::optional<std::string> account, Error* error);
    void parkContainersLocked(const std::string& account);
    void unparkContainersLocked(const std::string& account);
    bool loadJournalLocked(Error* error);

    // The thread.
    void run();
    void pass();
    void deliverFeeds();
    bool stopping() const;
    // Whether a transfer under way should stop: the engine is stopping or sync was paused.
    bool stopTransfers() const;

    // One pass (DriveSync.cpp), with `accountMutex_` held.
    void applyRemoteChanges();
    void recoverPendingWork();
    void scanLocal(bool everything);
    // Records in `appeared` the items whose local copy is new or changed; the store paths of the
    // folders listed go to `scanned`, when given.
    void scanFolder(const std::string& storeFolder, bool recursive,
                    std::vector<std::string>* appeared, std::set<std::string>* scanned);
    void handleLocalChanges(const std::vector<std::string>& appeared,
                            const std::vector<std::string>& vanished);
    void upload(const std::string& path);
    void uploadFolder(const std::string& path);
    void removeRemotely(const std::string& path);
    bool moveRemotely(const std::string& from, const std::string& to);
    void keepAsConflict(const std::string& path, int fd, const LocalIdentity& identity);
    void performDownloads();
    bool download(const std::string& path);
    void applyRemoteItem(const DriveStore::Item& item);
    void applyRemoteRemoval(const std::string& path);
    void removeLocalCopy(const std::string& path);
    void record(const std::string& path);  // journal and feeds hear of the view's change
    void forget(const std::string& path);  // the item and all below it are gone
    std::optional<LocalIdentity> identityOfLocal(const std::string& storePath, bool* isDirectory);
    void watchTree(const std::string& localFolder);

    // Reports.
    std::shared_ptr<const MetadataItem> reportOf(const std::string& path, const View& view) const;

    const DriveService::Options& options_;
    const std::string driveDirectory_;
    const std::string stateDirectory_;
    std::weak_ptr<Object> owner_;

    mutable std::mutex accountMutex_;
    std::optional<std::string> account_;  // guarded by both mutexes: either suffices to read
    std::unique_ptr<Journal> journal_;    // guarded by accountMutex_
    std::string token_;                   // the store's change token; accountMutex_
    bool scannedAll_ = false;             // accountMutex_
    std::set<std::string> retry_;         // items whose sync failed, looked at again; accountMutex_
    bool pollFailed_ = false;             // the last request for the store's changes failed
    std::set<std::string> insideRemovedFolder_;  // during a pass: known items of removed folders
    DriveWatcher watcher_;                       // engine thread, accountMutex_

    mutable std::mutex mutex_;
    std::condition_variable changed_;  // with mutex_: work done, a delivery ended, a wake
    std::map<std::string, View, std::less<>> views_;
    std::set<std::string> changedPaths_;  // to report to the feeds
    std::set<std::string> removedPaths_;
    std::vector<std::shared_ptr<Feed>> feeds_;
    std::uint64_t lastFeedId_ = 0;
    bool woken_ = false;
    bool paused_ = false;
    bool inPass_ = false;  // the engine thread is in a pass; a pause waits for it to end
    bool stopping_ = false;
    bool busy_ = false;  // work is known to be left (a failed transfer to retry, a wake)
    std::uint64_t passes_ = 0;
    std::uint64_t passesWanted_ = 0;  // passes a waiter for idleness wants made without delay
    std::optional<bool> reachable_;
    std::thread::id engineThread_;

    int wakeFd_ = -1;
    std::thread thread_;
};

}  // namespace qn::drive
