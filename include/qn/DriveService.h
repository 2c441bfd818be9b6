#pragma once

// The embedded cloud drive: the ubiquity service that plays the operating system's sync daemon
// on Linux. It keeps one device's containers in sync with a drive store, so that several
// devices (device directories on one machine, or on several sharing a store) edit the same
// documents and the library on each sees items appear, download, upload and conflict for real.
//
//     qn::DirectoryStore::create("/srv/drive", nullptr);
//     qn::DriveService::Options options;
//     options.deviceDirectory = home + "/.local/share/QNiCloud";
//     options.store = qn::DirectoryStore::open("/srv/drive");
//     qn::Error error;
//     auto drive = qn::DriveService::open(options, &error);
//     drive->signIn("alice@example.com", &error);
//     qn::setUbiquityDriveDirectory(drive->driveDirectory());
//     qn::UbiquityService::setCurrent(drive);

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "qn/DriveStore.h"
#include "qn/UbiquityService.h"

namespace qn {

namespace drive {
class DriveEngine;
}

/// One device of the drive.
///
/// The device directory holds the device's state: a lock file (one engine per device
/// directory: a second `open` fails while the first service lives, in any process), the
/// account signed in, one journal per account, and the containers of accounts not signed in.
/// The drive directory (by default "Mobile Documents" in the device directory) holds the
/// signed-in account's containers, named as `QNiCloudContainerURLFromIdentifier` names them;
/// the store path of an item is its container identifier followed by its path in the container.
///
/// An engine thread keeps the two in step: it watches the containers (inotify) and polls the
/// store; it uploads local creations, changes, moves and removals, learns remote changes as
/// metadata (an item not downloaded has no local file), downloads on request into a temporary
/// file renamed into place, and reports every change through the metadata feeds. A local edit
/// made against an older revision than the store's is kept as a conflict version beside the
/// store's item; no edit is ever lost. `docs/drive.md` has the details and what a crash leaves.
///
/// Threads: every member may be called from any thread; notifications are posted on the main
/// thread. Feed observers are called on the engine thread.
class DriveService final : public UbiquityService {
public:
    struct Options {
        std::string deviceDirectory;
        /// Where the signed-in account's containers live; "" for "<device>/Mobile Documents".
        std::string driveDirectory;
        std::shared_ptr<DriveStore> store;
        /// The name written beside every revision this device makes; "" for the host name.
        std::string deviceName;
        /// How often the store is asked for changes while nothing else wakes the engine.
        std::chrono::milliseconds pollInterval{200};
        /// Starts with sync paused (see `setSyncPaused`): the device works offline from the
        /// first moment.
        bool syncPaused = false;
    };

    /// Opens the device, taking its lock, and starts its engine; null with the error when
    /// another engine has the device, or its state cannot be read (a damaged journal is
    /// refused, never reset).
    static std::shared_ptr<DriveService> open(Options options, Error* error);
    /// Stops the engine and lets go of the device.
    ~DriveService() override;

    DriveService(const DriveService&) = delete;
    DriveService& operator=(const DriveService&) = delete;

    const std::string& driveDirectory() const { return driveDirectory_; }
    const std::string& deviceName() const { return options_.deviceName; }

    // Accounts. The choice is kept in the device directory. A change posts
    // NSUbiquityIdentityDidChangeNotification on the main thread; the containers of the account
    // left are put aside and come back when it signs in again.

    /// Signs in to `account`, which the store must hold (`DriveStore::addAccount`).
    bool signIn(std::string_view account, Error* error);
    void signOut();
    std::optional<std::string> account() const;

    /// Wakes the engine to scan and poll now.
    void syncNow();
    /// While paused the engine neither scans, polls nor transfers; local changes made meanwhile
    /// are picked up when it goes on.
    void setSyncPaused(bool paused);
    /// Waits until the engine has done everything it knows of: nothing left to upload, no
    /// download requested and not finished, and the store's changes applied. For tests and
    /// tools; false after `timeout`.
    bool waitUntilIdle(std::chrono::milliseconds timeout);

    // UbiquityService.

    std::optional<UbiquityIdentityToken> identityToken() override;
    std::optional<URL> containerURL(std::string_view containerIdentifier) override;
    bool startDownloading(const URL& url, Error* error) override;
    /// Refused while the local copy has changes that are not uploaded yet.
    bool evict(const URL& url, Error* error) override;
    std::optional<Value> resourceValue(const URL& url, std::string_view key, Error* error) override;
    std::uint64_t startMetadataFeed(const std::vector<std::string>& scopes,
                                    std::shared_ptr<MetadataFeedObserver> observer) override;
    void stopMetadataFeed(std::uint64_t feed) override;
    std::vector<FileVersionRecord> otherVersionsOfItem(const URL& url) override;
    bool setVersionResolved(const URL& url, std::string_view versionIdentifier, bool resolved,
                            Error* error) override;
    bool removeVersion(const URL& url, std::string_view versionIdentifier, Error* error) override;
    /// Whether the store can be reached.
    std::optional<bool> isNetworkReachable() override;

private:
    struct Private {
        explicit Private() = default;
    };

public:
    /// Use `open`.
    DriveService(Private, Options options, int lockFd);

private:
    friend class drive::DriveEngine;

    const Options options_;
    const std::string driveDirectory_;
    const int lockFd_;
    std::unique_ptr<drive::DriveEngine> engine_;
};

}  // namespace qn
