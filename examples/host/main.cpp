// A host program's first minutes with the library, on a simulated cloud in a temporary drive
// directory: it creates and installs the default presenter for its container, registers it, and
// prints each notification as it arrives on the main thread while the user signs in and then
// switches accounts, and how a conflict check tells real conflicts from repeated edits. It also
// shows how the library sums up what changed about a document between two snapshots of its cloud
// state.

#include <fmt/core.h>
#include <fmt/format.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include "QNiCloud/QNiCloud.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
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

// What a host does at start-up, with the account following the user's moves.
bool runFirstMinutes(const std::shared_ptr<qn::SimulatedCloud>& cloud) {
    auto& center = qn::NotificationCenter::defaultCenter();
    int accountChanges = 0;
    int containerSetUps = 0;
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

    // Creation returns at once; the account is read and the container set up in the background.
    auto presenter = QNiCloudDocumentsPresenter::initWithContainerIdentifier(kContainerIdentifier);
    QNiCloudDocumentsPresenter::setDefaultPresenter(presenter);
    presenter->registerForFileChangesNotifications();
    bool ok = qn::MainQueue::runUntil([&] { return accountChanges == 1 && containerSetUps == 1; },
                                      kPatience);
    fmt::print("documents live in {}\n", presenter->documentsDirectoryURL().path());

    // The identity change reaches the presenter on the main thread, which never sets the
    // container up; the next background caller (any file operation) does.
    cloud->switchAccount("bob@example.com");
    ok = ok && qn::MainQueue::runUntil([&] { return accountChanges == 2; }, kPatience);
    qn::DispatchQueue::global().async(
        [presenter] { presenter->setupiCloudContainerIfSafeAndNecessary(); });
    ok = ok && qn::MainQueue::runUntil([&] { return containerSetUps == 2; }, kPatience);

    // The same document saved on two computers: the cloud keeps the other computers' versions as
    // conflicts. One of them only repeats this computer's edit; the check removes it quietly and
    // announces the conflict that is left.
    const qn::URL plan = presenter->documentsDirectoryURL().URLByAppendingPathComponent("Plan.txt");
    cloud->setItem(plan, qn::SimulatedItemState::downloaded("Buy milk.\n"));
    cloud->addConflictVersion(plan, "Buy milk.\n", qn::Date::now(), "Office Mac");
    cloud->addConflictVersion(plan, "Buy oat milk.\n", qn::Date::now(), "iPad");
    auto changeObservation = center.addObserver(
        QNiCloudFileDidChangeNotification, nullptr, [](const qn::Notification& n) {
            const std::string* path = n.userInfo.stringForKey(QNiCloudSourcePathKey);
            const auto change = n.userInfo.int64ForKey(QNiCloudFileChangeTypeKey).value_or(0);
            fmt::print("main thread ({}): {}: {}\n", qn::MainQueue::isMainThread(),
                       path != nullptr ? *path : "(unknown)",
                       changeName(static_cast<QNiCloudFileChangeType>(change)));
        });
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

int main() {
    showSnapshotComparison();

    // The example keeps its cloud drive and support files in a scratch directory.
    std::string scratch =
        (std::filesystem::temp_directory_path() / "qnicloud-host-XXXXXX").string();
    if (::mkdtemp(scratch.data()) == nullptr) {
        return 1;
    }
    qn::setUbiquityDriveDirectory(scratch + "/Mobile Documents");
    qn::setApplicationSupportDirectory(scratch + "/Support");
    auto cloud = qn::SimulatedCloud::create("alice@example.com");
    qn::UbiquityService::setCurrent(cloud);

    const bool ok = runFirstMinutes(cloud);

    qn::UbiquityService::setCurrent(nullptr);
    std::filesystem::remove_all(scratch);
    qn::Logger::named("example").info("Example host {}.", ok ? "finished" : "gave up waiting");
    return ok ? 0 : 1;
}
