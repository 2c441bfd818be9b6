// The host on the embedded cloud drive instead of the simulated cloud: a directory store holds
// the account, this process is the laptop, and a second device in the same process stands for
// the user's desktop computer. A document written on the desktop appears on the laptop as not
// downloaded; the host downloads it with progress; an edit made on the desktop reaches the
// laptop; and edits made on both at once end as a conflict that the host is told about.

#include "OnTheDrive.h"

#include <fmt/core.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "QNiCloud/QNiCloud.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/DirectoryStore.h"
#include "qn/DriveService.h"
#include "qn/FileVersion.h"
#include "qn/MainQueue.h"
#include "qn/NotificationCenter.h"
#include "qn/util/ContainerHelpers.h"

namespace {

constexpr const char* kContainer = "iCloud.com.example.Notes";
constexpr const char* kAccount = "alice@example.com";
constexpr auto kPatience = std::chrono::seconds(20);

std::shared_ptr<qn::DriveService> openDevice(const std::string& scratch, const std::string& name) {
    qn::DriveService::Options options;
    options.deviceDirectory = scratch + "/" + name;
    options.store = qn::DirectoryStore::open(scratch + "/store");
    options.deviceName = name;
    qn::Error error;
    auto drive = qn::DriveService::open(options, &error);
    if (drive == nullptr || !drive->signIn(kAccount, &error)) {
        fmt::print("cannot open the {}: {}\n", name, error.localizedDescription());
        return nullptr;
    }
    return drive;
}

void write(const std::string& path, const std::string& contents) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << contents;
}

}  // namespace

bool runOnTheDrive(const std::string& scratch) {
    qn::DirectoryStore::create(scratch + "/store", nullptr);
    qn::DirectoryStore::open(scratch + "/store")->addAccount(kAccount, nullptr);
    const auto desktop = openDevice(scratch, "desktop");
    const auto laptop = openDevice(scratch, "laptop");
    if (desktop == nullptr || laptop == nullptr) {
        return false;
    }
    // The library finds its containers where the current service keeps them.
    qn::setUbiquityDriveDirectory(laptop->driveDirectory());
    qn::UbiquityService::setCurrent(laptop);

    // Written on the desktop before the laptop's app starts.
    const std::string desktopNotes =
        desktop->containerURL(kContainer)->path() + "/Documents/Notes.txt";
    write(desktopNotes, std::string(24 << 20, 'n'));  // big enough to show progress
    desktop->waitUntilIdle(kPatience);

    std::vector<std::string> heard;
    const auto hasHeard = [&](const std::string& event) {
        return std::find(heard.begin(), heard.end(), event) != heard.end();
    };
    auto& center = qn::NotificationCenter::defaultCenter();
    const auto name = [](const qn::Notification& n) {
        const std::string* path = n.userInfo.stringForKey(QNiCloudSourcePathKey);
        return path != nullptr ? qn::URL::fileURLWithPath(*path).lastPathComponent()
                               : std::string("?");
    };
    auto appeared = center.addObserver(QNiCloudFileDidAppearNotification, nullptr,
                                       [&](const qn::Notification& n) {
                                           heard.push_back("appeared " + name(n));
                                           fmt::print("laptop: {} appeared\n", name(n));
                                       });
    auto changed = center.addObserver(
        QNiCloudFileDidChangeNotification, nullptr, [&](const qn::Notification& n) {
            const auto type = n.userInfo.int64ForKey(QNiCloudFileChangeTypeKey).value_or(0);
            heard.push_back(fmt::format("{} {}", name(n), type));
            if (type == QNiCloudFileChangeConflictAppeared) {
                fmt::print("laptop: {} is in conflict\n", name(n));
            } else if (type == QNiCloudFileChangeContentChanged ||
                       type == QNiCloudFileChangeDownloaded) {
                fmt::print("laptop: {} changed\n", name(n));
            }
        });

    auto presenter = QNiCloudDocumentsPresenter::initWithContainerIdentifier(kContainer);
    QNiCloudDocumentsPresenter::setDefaultPresenter(presenter);
    presenter->setCacheUpdatesInterval(0.1);
    presenter->setExtensionsAllowedForAutomaticDownload(std::set<std::string>{"pdf"});
    presenter->registerForFileChangesNotifications();
    const qn::URL notes =
        presenter->documentsDirectoryURL().URLByAppendingPathComponent("Notes.txt");
    bool ok = qn::MainQueue::runUntil([&] { return presenter->cacheInitialized(); }, kPatience);
    fmt::print("laptop: Notes.txt downloaded: {}\n", presenter->isFileDownloadedAtURL(notes));

    // Downloaded on request, with progress, on the main thread.
    bool done = false;
    presenter->downloadItemsAtURLs(
        {notes}, nullptr,
        [](const QNBackgroundOperationPointer&, const qn::URL& url, std::uint64_t size,
           std::uint64_t downloaded, std::uint64_t, double percent) {
            fmt::print("laptop: {} {} of {} bytes ({:.0f} %)\n", url.lastPathComponent(),
                       downloaded, size, percent);
        },
        [&](const QNBackgroundOperationPointer&, const qn::URL& url, std::uint64_t size,
            std::uint64_t) {
            fmt::print("laptop: {} downloaded, {} bytes\n", url.lastPathComponent(), size);
            done = true;
        },
        nullptr, nullptr,
        [&](const QNBackgroundOperationPointer&, const qn::Error& error) {
            fmt::print("laptop: download failed: {}\n", error.localizedDescription());
        });
    ok = ok && qn::MainQueue::runUntil([&] { return done; }, kPatience);

    // An edit on the desktop reaches the laptop.
    heard.clear();
    write(desktopNotes, "Edited on the desktop.\n");
    ok = ok && qn::MainQueue::runUntil(
                   [&] {
                       std::ifstream file(notes.path());
                       std::string line;
                       std::getline(file, line);
                       return line == "Edited on the desktop.";
                   },
                   kPatience);
    fmt::print("laptop: Notes.txt now reads the desktop's edit\n");

    // Both edit at once while the laptop is offline: the store keeps both.
    laptop->setSyncPaused(true);
    write(desktopNotes, "The desktop's plan.\n");
    desktop->waitUntilIdle(kPatience);
    write(notes.path(), "The laptop's plan.\n");
    laptop->setSyncPaused(false);
    ok = ok && qn::MainQueue::runUntil(
                   [&] {
                       return hasHeard(fmt::format(
                           "Notes.txt {}", static_cast<int>(QNiCloudFileChangeConflictAppeared)));
                   },
                   kPatience);
    for (const auto& version : qn::FileVersion::unresolvedConflictVersionsOfItemAtURL(notes)) {
        fmt::print("laptop: conflict version saved on the {}\n",
                   version->localizedNameOfSavingComputer());
    }

    QNiCloudDocumentsPresenter::setDefaultPresenter(nullptr);
    const std::weak_ptr<QNiCloudDocumentsPresenter> gone = presenter;
    presenter.reset();
    ok = qn::MainQueue::runUntil([&] { return gone.expired(); }, kPatience) && ok;
    qn::UbiquityService::setCurrent(nullptr);
    return ok;
}
