// A host program's first minutes with the library, on a simulated cloud in a temporary drive
// directory: it creates and installs the default presenter for its container, registers it, and
// prints each notification as it arrives on the main thread while the presenter's cache fills
// from the cloud, the user switches accounts, and documents appear, download and disappear. The
// host then downloads a document and a folder on request, following them through its download
// handlers, and a conflict check tells real conflicts from repeated edits. It also shows how the
// library sums up what changed about a document between two snapshots of its cloud state.
// With --drive it runs on the embedded cloud drive instead (OnTheDrive.cpp).

#include <fmt/core.h>
#include <fmt/format.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "OnTheDrive.h"
#include "QNiCloud/QNiCloud.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudDownloadsManager.h"
#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/Dictionary.h"
#include "qn/DispatchQueue.h"
#include "qn/FileVersion.h"
#include "qn/Logger.h"
#include "qn/MainQueue.h"
#include "qn/MetadataAttributes.h"
#include "qn/MetadataItem.h"
#include "qn/NotificationCenter.h"
#include "qn/SimulatedCloud.h"
#include "qn/util/ContainerHelpers.h"

namespace {

constexpr const char* kContainerIdentifier = "iCloud.com.example.Notes";
constexpr auto kPatience = std::chrono::seconds(10);

const char* changeName(QNiCloudFileChangeType change) {
    static constexpr const char* kNames[] = {"none",
                                             "downloaded",
                                             "downloading started",
                                             "download progress",
                                             "uploaded",
                                             "uploading started",
                                             "upload progress",
                                             "conflict appeared",
                                             "conflict resolved",
                                             "content changed"};
    return change < std::size(kNames) ? kNames[change] : "unknown";
}

// A document on disk, and what a metadata query then reports about it: the cloud has a copy
// (uploaded) and is bringing the local one up to date, 40 % done, then 75 %.
void showSnapshotComparison() {
    const auto path = (std::filesystem::temp_directory_path() / "qnicloud-example.txt").string();
    std::ofstream(path) << "Hello, cloud.\n";
    const auto cached = QNiCloudMetadataItem::metadataItemWithPath(path, false, true);

    for (const double percent : {40.0, 75.0}) {
        const auto reported = QNiCloudMetadataItem::metadataItemWithMetadataItem(
            std::make_shared<qn::MetadataItem>(qn::Dictionary{
                {qn::NSMetadataItemPathKey, path},
                {qn::NSMetadataItemFSContentChangeDateKey,
                 cached->fsContentChangeDate().value_or(qn::Date::now())},
                {qn::NSMetadataUbiquitousItemIsDownloadingKey, true},
                {qn::NSMetadataUbiquitousItemPercentDownloadedKey, percent},
                {qn::NSMetadataUbiquitousItemIsUploadedKey, true},
            }),
            false);
        const QNiCloudFileChangeType change = cached->compareWithMetadataItem(*reported);
        fmt::print("{} ({} bytes)\n  query reports {}\n  change: {}\n", cached->description(),
                   cached->contentSize(), reported->description(), changeName(change));
        cached->updateStateUsingMetadataItem(*reported);  // as the cache keeps itself current
    }
    std::filesystem::remove(path);
}

const char* accountStateName(std::int64_t state) {
    static constexpr const char* kNames[] = {"unavailable", "available", "changed",
                                             "became available"};
    return state >= 0 && state < std::ssize(kNames) ? kNames[state] : "unknown";
}

// The documents path relative to the Documents directory, for short lines.
std::string shortPath(const qn::Notification& n) {
    const std::string* path = n.userInfo.stringForKey(QNiCloudSourcePathKey);
    if (path == nullptr) {
        return "(unknown)";
    }
    const auto documents = path->find("/Documents/");
    return documents == std::string::npos ? *path : path->substr(documents + 11);
}

// Downloads the host asks for, followed through their handlers, which run on the main thread:
// a document that is only in the cloud, a folder, then the folder's files by name, at most one
// download at a time. The simulated cloud moves a download only when told, so the example also
// plays the cloud's part: it takes each file the downloads manager has started halfway, then to
// the end.
bool downloadOnRequest(const std::shared_ptr<qn::SimulatedCloud>& cloud,
                       QNiCloudDocumentsPresenter& presenter, const qn::URL& document,
                       const qn::URL& folder, const std::vector<qn::URL>& folderFiles) {
    const auto& manager = QNiCloudDownloadsManager::sharedManager();
    presenter.setMaxSimultaneousFileDownloadsCount(1);
    // Shared with the handlers, which would outlive this function if a wait gave up.
    struct Heard {
        int progressReports = 0;
        int completions = 0;
        bool failed = false;
    };
    const auto heard = std::make_shared<Heard>();
    const auto progress = [heard, manager](const QNBackgroundOperationPointer&, const qn::URL& url,
                                           std::uint64_t size, std::uint64_t downloaded,
                                           std::uint64_t, double percent) {
        fmt::print("main thread ({}): {} {} of {} bytes ({:.0f} %), downloads running: {} of {}\n",
                   qn::MainQueue::isMainThread(), url.lastPathComponent(), downloaded, size,
                   percent, manager->activeFilesDownloads().size(),
                   manager->maxSimultaneousFileDownloadsCount());
        ++heard->progressReports;
    };
    const auto completion = [heard](const QNBackgroundOperationPointer&, const qn::URL& url,
                                    std::uint64_t size, std::uint64_t) {
        fmt::print("main thread ({}): {} downloaded, {} bytes\n", qn::MainQueue::isMainThread(),
                   url.lastPathComponent(), size);
        ++heard->completions;
    };
    const auto failure = [heard](const QNBackgroundOperationPointer&, const qn::Error& error) {
        fmt::print("main thread ({}): download failed: {}\n", qn::MainQueue::isMainThread(),
                   error.localizedDescription());
        heard->failed = true;
    };

    presenter.downloadItemsAtURLs({document}, nullptr, progress, completion, nullptr, nullptr,
                                  failure);
    // A folder request fetches nothing by itself: it is answered at once, with nothing to fetch.
    presenter.downloadItemAtURL(
        folder, true, nullptr, nullptr,
        [](const QNBackgroundOperationPointer&, const qn::URL& url, std::uint64_t size,
           std::uint64_t) {
            fmt::print("main thread ({}): folder {} answered, {} bytes to fetch\n",
                       qn::MainQueue::isMainThread(), url.lastPathComponent(), size);
        },
        failure);
    presenter.downloadItemsAtURLs(
        folderFiles, nullptr, progress, completion, nullptr,
        [](const QNBackgroundOperationPointer&) {
            fmt::print("main thread ({}): every file of the folder is downloaded\n",
                       qn::MainQueue::isMainThread());
        },
        failure);

    std::vector<qn::URL> waiting = folderFiles;
    waiting.push_back(document);
    const auto downloading = [&]() -> std::optional<qn::URL> {
        for (const auto& url : waiting) {
            if (const auto item = cloud->item(url); item && item->downloading) {
                return url;
            }
        }
        return std::nullopt;
    };
    while (!waiting.empty()) {
        if (!qn::MainQueue::runUntil([&] { return downloading() || heard->failed; }, kPatience) ||
            heard->failed) {
            return false;
        }
        const qn::URL url = *downloading();
        const int reports = heard->progressReports;
        const int completions = heard->completions;
        cloud->advanceDownload(url, 50);
        if (!qn::MainQueue::runUntil([&] { return heard->progressReports > reports; }, kPatience)) {
            return false;
        }
        cloud->advanceDownload(url, 100);
        if (!qn::MainQueue::runUntil([&] { return heard->completions > completions; }, kPatience)) {
            return false;
        }
        waiting.erase(std::find(waiting.begin(), waiting.end(), url));
    }
    presenter.setMaxSimultaneousFileDownloadsCount(3);
    return true;
}

// What a host does at start-up, with the account following the user's moves.
bool runFirstMinutes(const std::shared_ptr<qn::SimulatedCloud>& cloud) {
    auto& center = qn::NotificationCenter::defaultCenter();
    int accountChanges = 0;
    int containerSetUps = 0;
    int cacheReady = 0;
    std::vector<std::string> events;  // what the host heard about single documents
    const auto heard = [&](std::string event) {
        fmt::print("main thread ({}): {}\n", qn::MainQueue::isMainThread(), event);
        events.push_back(std::move(event));
    };
    const auto hasHeard = [&](const std::string& event) {
        return std::find(events.begin(), events.end(), event) != events.end();
    };
    auto readyObservation = center.addObserver(
        QNiCloudCacheInitializedNotification, nullptr, [&](const qn::Notification& n) {
            fmt::print(
                "main thread ({}): cache ready, {} items, {} below Documents\n",
                qn::MainQueue::isMainThread(),
                n.userInfo.uint64ForKey(QNiCloudNumberOfFilesInCacheKey).value_or(0),
                n.userInfo.uint64ForKey(QNiCloudNumberOfFilesInDocumentsDirectoryKey).value_or(0));
            ++cacheReady;
        });
    auto appearObservation =
        center.addObserver(QNiCloudFileDidAppearNotification, nullptr,
                           [&](const qn::Notification& n) { heard("appeared: " + shortPath(n)); });
    auto removeObservation =
        center.addObserver(QNiCloudFileWasRemovedNotification, nullptr,
                           [&](const qn::Notification& n) { heard("removed: " + shortPath(n)); });
    auto changeObservation = center.addObserver(
        QNiCloudFileDidChangeNotification, nullptr, [&](const qn::Notification& n) {
            const auto change = n.userInfo.int64ForKey(QNiCloudFileChangeTypeKey).value_or(0);
            heard(shortPath(n) + ": " + changeName(static_cast<QNiCloudFileChangeType>(change)));
        });
    auto accountObservation = center.addObserver(
        QNiCloudAccountStateDidChangeNotification, nullptr, [&](const qn::Notification& n) {
            const auto state = n.userInfo.int64ForKey(QNiCloudAccountStateKey).value_or(-1);
            fmt::print("main thread ({}): account {} ({})\n", qn::MainQueue::isMainThread(),
                       accountStateName(state), state);
            ++accountChanges;
        });
    auto containerObservation = center.addObserver(
        QNiCloudDidInitializeContainerNotification, nullptr, [&](const qn::Notification& n) {
            const qn::URL* url = n.userInfo.urlForKey(QNiCloudContainerURLKey);
            fmt::print("main thread ({}): container ready at {}\n", qn::MainQueue::isMainThread(),
                       url != nullptr ? url->path() : "(unknown)");
            ++containerSetUps;
        });

    // The cloud already holds a few documents, and its daemon reports changes as they happen.
    const qn::URL documents =
        QNiCloudDocumentsPresenter::documentsDirectoryURLFromContainerIdentifier(
            kContainerIdentifier);
    const auto document = [&](const char* name) {
        return documents.URLByAppendingPathComponent(name);
    };
    cloud->setItem(document("Welcome.txt"), qn::SimulatedItemState::downloaded("Hello.\n"));
    cloud->setItem(document("Trip/Itinerary.txt"),
                   qn::SimulatedItemState::notDownloaded("Day 1: Lisbon.\n"));
    cloud->setItem(document("Trip/Budget.numbers"), qn::SimulatedItemState::directory());
    cloud->setItem(document("Photos"), qn::SimulatedItemState::directory());
    const std::vector<qn::URL> photos = {document("Photos/Beach.jpg"),
                                         document("Photos/Harbour.jpg")};
    for (const auto& photo : photos) {
        cloud->setItem(photo, qn::SimulatedItemState::notDownloaded(std::string(2048, '*')));
    }
    cloud->setAutomaticDelivery(true);

    // Creation returns at once; the account is read and the container set up in the background.
    // Registering starts the live query that fills the presenter's cache.
    auto presenter = QNiCloudDocumentsPresenter::initWithContainerIdentifier(kContainerIdentifier);
    QNiCloudDocumentsPresenter::setDefaultPresenter(presenter);
    presenter->setCacheUpdatesInterval(0.1);
    // The library fetches PDFs on its own; everything else is downloaded when the host asks.
    presenter->setExtensionsAllowedForAutomaticDownload(std::set<std::string>{"pdf"});
    presenter->registerForFileChangesNotifications();
    // The container may be set up twice: once by the first background caller, and again when
    // the first reading of the account finds it available.
    bool ok = qn::MainQueue::runUntil(
        [&] { return accountChanges == 1 && containerSetUps >= 1 && cacheReady == 1; }, kPatience);
    fmt::print("documents live in {}\n", presenter->documentsDirectoryURL().path());

    // The identity change reaches the presenter on the main thread, which never sets the
    // container up; the next background caller (here the restarted query) does. The old account's
    // cache is dropped and the new one's gathered.
    const int setUpsBefore = containerSetUps;
    cloud->switchAccount("bob@example.com");
    ok = ok && qn::MainQueue::runUntil(
                   [&] {
                       return accountChanges == 2 && containerSetUps > setUpsBefore &&
                              cacheReady == 2;
                   },
                   kPatience);

    // The cache follows the cloud: a new document, a download on its way, a removal.
    cloud->setDefaultDownloadBehavior(qn::SimulatedDownloadBehavior::progressive());
    cloud->setItem(document("Ideas.txt"), qn::SimulatedItemState::notDownloaded("Write more.\n"));
    ok = ok && qn::MainQueue::runUntil([&] { return hasHeard("appeared: Ideas.txt"); }, kPatience);
    cloud->startDownloading(document("Trip/Itinerary.txt"), nullptr);
    ok = ok && qn::MainQueue::runUntil(
                   [&] { return hasHeard("Trip/Itinerary.txt: downloading started"); }, kPatience);
    cloud->advanceDownload(document("Trip/Itinerary.txt"), 60);
    ok = ok && qn::MainQueue::runUntil(
                   [&] { return hasHeard("Trip/Itinerary.txt: download progress"); }, kPatience);
    cloud->advanceDownload(document("Trip/Itinerary.txt"), 100);
    ok = ok && qn::MainQueue::runUntil([&] { return hasHeard("Trip/Itinerary.txt: downloaded"); },
                                       kPatience);
    fmt::print("Itinerary downloaded: {}\n",
               presenter->isFileDownloadedAtURL(document("Trip/Itinerary.txt")));
    cloud->removeItem(document("Welcome.txt"));
    ok = ok && qn::MainQueue::runUntil([&] { return hasHeard("removed: Welcome.txt"); }, kPatience);

    // From here the host follows its downloads through their handlers.
    changeObservation.reset();
    ok = ok &&
         downloadOnRequest(cloud, *presenter, document("Ideas.txt"), document("Photos"), photos);

    // The same document saved on two computers: the cloud keeps the other computers' versions as
    // conflicts. One of them only repeats this computer's edit; the check removes it quietly and
    // announces the conflict that is left.
    const qn::URL plan = presenter->documentsDirectoryURL().URLByAppendingPathComponent("Plan.txt");
    cloud->setAutomaticDelivery(false);  // the query hears of the plan only after the check
    cloud->setItem(plan, qn::SimulatedItemState::downloaded("Buy milk.\n"));
    cloud->addConflictVersion(plan, "Buy milk.\n", qn::Date::now(), "Office Mac");
    cloud->addConflictVersion(plan, "Buy oat milk.\n", qn::Date::now(), "iPad");
    std::optional<bool> hasConflicts;
    presenter->checkIfItemAtURLHasUnresolvedConflicts(plan,
                                                      std::make_shared<QNiCloudMetadataItem>(),
                                                      [&](bool answer) { hasConflicts = answer; });
    ok = ok && qn::MainQueue::runUntil([&] { return hasConflicts.has_value(); }, kPatience);
    for (const auto& version : qn::FileVersion::unresolvedConflictVersionsOfItemAtURL(plan)) {
        fmt::print("conflict left: the version saved on {}\n",
                   version->localizedNameOfSavingComputer());
    }

    // Shutting down: uninstalling unregisters the presenter; it goes once its own background
    // work has ended.
    QNiCloudDocumentsPresenter::setDefaultPresenter(nullptr);
    const std::weak_ptr<QNiCloudDocumentsPresenter> gone = presenter;
    presenter.reset();
    return qn::MainQueue::runUntil([&] { return gone.expired(); }, kPatience) && ok;
}

}  // namespace

int main(int argc, char** argv) {
    const bool onTheDrive = argc > 1 && std::string_view(argv[1]) == "--drive";
    if (!onTheDrive) {
        showSnapshotComparison();
    }

    // The example keeps its cloud drive and support files in a scratch directory.
    std::string scratch =
        (std::filesystem::temp_directory_path() / "qnicloud-host-XXXXXX").string();
    if (::mkdtemp(scratch.data()) == nullptr) {
        return 1;
    }
    qn::setApplicationSupportDirectory(scratch + "/Support");
    bool ok = false;
    if (onTheDrive) {
        ok = runOnTheDrive(scratch);
    } else {
        qn::setUbiquityDriveDirectory(scratch + "/Mobile Documents");
        auto cloud = qn::SimulatedCloud::create("alice@example.com");
        qn::UbiquityService::setCurrent(cloud);
        ok = runFirstMinutes(cloud);
        qn::UbiquityService::setCurrent(nullptr);
    }
    std::filesystem::remove_all(scratch);
    qn::Logger::named("example").info("Example host {}.", ok ? "finished" : "gave up waiting");
    return ok ? 0 : 1;
}
