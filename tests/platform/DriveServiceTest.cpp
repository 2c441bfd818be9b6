// Two devices of the embedded drive on one store (a directory, a WebDAV server), in one process:
// documents written on one appear on the other as not downloaded, download on request with
// progress, and edits, conflicts, resolutions, moves and removals travel both ways.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "qn/DriveService.h"
#include "qn/FileAttributes.h"
#include "qn/MainQueue.h"
#include "qn/MetadataAttributes.h"
#include "qn/NotificationCenter.h"
#include "support/FeedRecorder.h"
#include "support/TemporaryDirectory.h"
#include "support/TestStores.h"

namespace qn::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kAccount = "alice@example.com";
constexpr const char* kContainer = "iCloud.com.example.Drive";

struct Device {
    std::shared_ptr<DriveService> drive;
    std::shared_ptr<FeedRecorder> reports = std::make_shared<FeedRecorder>();
    std::string documents;  // the container's Documents folder on this device

    std::string path(std::string_view relative) const {
        return documents + "/" + std::string(relative);
    }
    URL url(std::string_view relative) const { return URL::fileURLWithPath(path(relative)); }
    bool downloaded(std::string_view relative) const {
        const auto value =
            drive->resourceValue(url(relative), NSURLUbiquitousItemIsDownloadedKey, nullptr);
        return value && value->boolValue().value_or(false);
    }
    bool known(std::string_view relative) const {
        return drive->resourceValue(url(relative), NSURLUbiquitousItemIsDownloadedKey, nullptr)
            .has_value();
    }
};

class DriveServiceTest : public ::testing::TestWithParam<StoreKind> {
protected:
    void SetUp() override {
        if (const auto why = TestStore::unavailable(GetParam())) {
            GTEST_SKIP() << *why;
        }
        store = std::make_unique<TestStore>(GetParam(), directory.path());
        ASSERT_TRUE(store->open()->addAccount(kAccount, nullptr));
        a = open("A");
        b = open("B");
    }

    // Signed in to alice unless `signIn` is false (the device then keeps the account it had).
    Device open(const std::string& name, bool signIn = true) {
        Device device;
        Error error;
        DriveService::Options options;
        options.deviceDirectory = directory.path() + "/" + name;
        options.store = store->open();
        options.deviceName = name;
        options.pollInterval = 20ms;
        device.drive = DriveService::open(options, &error);
        EXPECT_NE(device.drive, nullptr) << error.description();
        EXPECT_TRUE(!signIn || device.drive->signIn(kAccount, &error)) << error.description();
        device.documents = device.drive->containerURL(kContainer)->path() + "/Documents";
        fs::create_directories(device.documents);
        device.drive->startMetadataFeed({NSMetadataQueryUbiquitousDocumentsScope}, device.reports);
        return device;
    }
    // Both devices have done everything they know of, twice over, so that what one sent the
    // other has heard.
    void settle() {
        for (int round = 0; round < 2; ++round) {
            ASSERT_TRUE(a.drive->waitUntilIdle(10s));
            ASSERT_TRUE(b.drive->waitUntilIdle(10s));
        }
    }
    static void write(const std::string& path, std::string_view contents) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
    }

    TemporaryDirectory directory;
    std::unique_ptr<TestStore> store;
    Device a;
    Device b;
};

TEST_P(DriveServiceTest, ADocumentTravelsAndDownloadsOnRequestWithProgress) {
    const std::string big(20 << 20, 'x');  // several progress reports
    write(a.path("Notes.txt"), big);
    settle();
    EXPECT_TRUE(b.known("Notes.txt"));
    EXPECT_FALSE(b.downloaded("Notes.txt"));
    EXPECT_FALSE(fs::exists(b.path("Notes.txt"))) << "an item not downloaded has no local file";
    EXPECT_FALSE(b.reports->flag(b.path("Notes.txt"), NSMetadataUbiquitousItemIsDownloadingKey));

    Error error;
    ASSERT_TRUE(b.drive->startDownloading(b.url("Notes.txt"), &error)) << error.description();
    settle();
    EXPECT_EQ(readFile(b.path("Notes.txt")), big);
    EXPECT_TRUE(b.downloaded("Notes.txt"));
    const auto percentages = b.reports->percentages(b.path("Notes.txt"));
    ASSERT_GE(percentages.size(), 3u);
    EXPECT_TRUE(std::is_sorted(percentages.begin(), percentages.end()));
    EXPECT_EQ(percentages.back(), 100.0);
    EXPECT_TRUE(std::any_of(percentages.begin(), percentages.end(),
                            [](double p) { return p > 0 && p < 100; }));

    // An edit travels back to the device that has the document.
    write(b.path("Notes.txt"), "edited on B");
    settle();
    EXPECT_EQ(readFile(a.path("Notes.txt")), "edited on B");
    EXPECT_FALSE(
        a.reports->flag(a.path("Notes.txt"), NSMetadataUbiquitousItemHasUnresolvedConflictsKey));
}

TEST_P(DriveServiceTest, ConcurrentEditsEndAsAConflictVersionOnBothDevices) {
    write(a.path("Plan.txt"), "base");
    settle();
    ASSERT_TRUE(b.drive->startDownloading(b.url("Plan.txt"), nullptr));
    settle();
    ASSERT_EQ(readFile(b.path("Plan.txt")), "base");

    b.drive->setSyncPaused(true);
    write(a.path("Plan.txt"), "from A");
    ASSERT_TRUE(a.drive->waitUntilIdle(10s));
    write(b.path("Plan.txt"), "from B");
    b.drive->setSyncPaused(false);
    settle();

    // The store's item is A's; B's edit is kept beside it, and both devices see it.
    EXPECT_EQ(readFile(a.path("Plan.txt")), "from A");
    EXPECT_EQ(readFile(b.path("Plan.txt")), "from A");
    for (Device* device : {&a, &b}) {
        const auto versions = device->drive->otherVersionsOfItem(device->url("Plan.txt"));
        ASSERT_EQ(versions.size(), 1u);
        EXPECT_EQ(readFile(versions[0].url.path()), "from B");
        EXPECT_EQ(versions[0].localizedNameOfSavingComputer, "B");
        EXPECT_TRUE(versions[0].isConflict);
        EXPECT_TRUE(device->reports->flag(device->path("Plan.txt"),
                                          NSMetadataUbiquitousItemHasUnresolvedConflictsKey));
    }

    // Resolved on one device, resolved on the other.
    const auto versions = a.drive->otherVersionsOfItem(a.url("Plan.txt"));
    Error error;
    ASSERT_TRUE(
        a.drive->setVersionResolved(a.url("Plan.txt"), versions[0].identifier, true, &error))
        << error.description();
    settle();
    EXPECT_FALSE(
        b.reports->flag(b.path("Plan.txt"), NSMetadataUbiquitousItemHasUnresolvedConflictsKey));
    EXPECT_TRUE(b.drive->otherVersionsOfItem(b.url("Plan.txt"))[0].isResolved);
}

TEST_P(DriveServiceTest, MovesRemovalsAndEvictionTravel) {
    fs::create_directories(a.path("Folder"));
    write(a.path("Folder/x.txt"), "x");
    write(a.path("keep.txt"), "keep");
    settle();
    ASSERT_TRUE(b.drive->startDownloading(b.url("Folder/x.txt"), nullptr));
    settle();
    ASSERT_EQ(readFile(b.path("Folder/x.txt")), "x");

    fs::rename(a.path("Folder/x.txt"), a.path("Folder/y.txt"));
    settle();
    EXPECT_FALSE(fs::exists(b.path("Folder/x.txt")));
    EXPECT_FALSE(b.known("Folder/x.txt"));
    EXPECT_TRUE(b.known("Folder/y.txt"));
    EXPECT_EQ(readFile(a.path("Folder/y.txt")), "x");

    fs::remove(a.path("Folder/y.txt"));
    settle();
    EXPECT_FALSE(b.known("Folder/y.txt"));
    EXPECT_TRUE(fs::is_directory(b.path("Folder")));

    // Eviction frees the local copy, but never of a file with changes not uploaded.
    Error error;
    ASSERT_TRUE(a.drive->evict(a.url("keep.txt"), &error)) << error.description();
    EXPECT_FALSE(fs::exists(a.path("keep.txt")));
    EXPECT_FALSE(a.downloaded("keep.txt"));
    ASSERT_TRUE(b.drive->startDownloading(b.url("keep.txt"), nullptr));
    settle();
    b.drive->setSyncPaused(true);  // the pass under way ends first: nothing is sent after this
    write(b.path("keep.txt"), "changed");
    EXPECT_FALSE(b.drive->evict(b.url("keep.txt"), &error));
    EXPECT_NE(error.description().find("not uploaded"), std::string::npos);
    EXPECT_EQ(readFile(b.path("keep.txt")), "changed");
    b.drive->setSyncPaused(false);
}

TEST_P(DriveServiceTest, AFolderMovesWholeAndItsRemovalSparesWhatOthersAddedMeanwhile) {
    fs::create_directories(a.path("Trip/Photos"));
    write(a.path("Trip/plan.txt"), "plan");
    write(a.path("Trip/Photos/beach.jpg"), "beach");
    settle();
    fs::rename(a.path("Trip"), a.path("Journey"));
    settle();
    EXPECT_TRUE(b.known("Journey/Photos/beach.jpg"));
    EXPECT_FALSE(b.known("Trip/plan.txt"));
    for (Device* device : {&a, &b}) {
        EXPECT_TRUE(device->drive->otherVersionsOfItem(device->url("Journey/plan.txt")).empty())
            << "moved, not taken for new items in conflict with themselves";
    }

    // B adds a file that A has not heard of when A removes the folder: only what A knew goes.
    a.drive->setSyncPaused(true);
    write(b.path("Journey/late.txt"), "late");
    ASSERT_TRUE(b.drive->waitUntilIdle(10s));
    fs::remove_all(a.path("Journey"));
    a.drive->setSyncPaused(false);
    settle();
    EXPECT_FALSE(b.known("Journey/plan.txt"));
    EXPECT_FALSE(b.known("Journey/Photos/beach.jpg"));
    EXPECT_TRUE(b.known("Journey/late.txt"));
    EXPECT_TRUE(a.known("Journey/late.txt"));
    EXPECT_TRUE(fs::is_directory(a.path("Journey"))) << "the folder is back for what it holds";
}

TEST_P(DriveServiceTest, AccountsSwitchWithTheirContainersAndTheDeviceRemembersTheChoice) {
    write(a.path("mine.txt"), "alice's");
    settle();
    ASSERT_TRUE(store->open()->addAccount("bob", nullptr));
    const auto token = a.drive->identityToken();
    int told = 0;
    NotificationCenter::defaultCenter().addObserver(this, NSUbiquityIdentityDidChangeNotification,
                                                    nullptr, [&](const Notification&) { ++told; });

    // Another account: alice's containers are put aside, bob's (none yet) take their place.
    Error error;
    ASSERT_TRUE(a.drive->signIn("bob", &error)) << error.description();
    EXPECT_NE(a.drive->identityToken(), token);
    EXPECT_FALSE(fs::exists(a.path("mine.txt")));
    EXPECT_FALSE(a.drive->signIn("nobody", &error)) << "the store must hold the account";
    a.drive->signOut();
    EXPECT_FALSE(a.drive->identityToken());
    EXPECT_FALSE(a.drive->containerURL(kContainer));
    ASSERT_TRUE(MainQueue::runUntil([&] { return told == 2; }, 10s));

    // Back to alice, also after the device is opened again: her files are where they were.
    ASSERT_TRUE(a.drive->signIn(kAccount, &error));
    a.drive.reset();
    a = open("A", false);
    EXPECT_EQ(a.drive->account(), kAccount);
    EXPECT_EQ(a.drive->identityToken(), token);
    EXPECT_EQ(readFile(a.path("mine.txt")), "alice's");
    ASSERT_TRUE(a.drive->waitUntilIdle(10s));
    EXPECT_TRUE(a.downloaded("mine.txt"));
    NotificationCenter::defaultCenter().removeObserver(this);
}

INSTANTIATE_TEST_SUITE_P(Stores, DriveServiceTest,
                         ::testing::Values(StoreKind::Directory, StoreKind::WebDAVApache,
                                           StoreKind::WebDAVRclone),
                         [](const auto& info) { return nameOf(info.param); });

}  // namespace
}  // namespace qn::test
