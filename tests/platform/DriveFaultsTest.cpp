// The drive under faults: a full disk and a store that goes away delay work but lose none, a file
// that changes while it is uploaded is uploaded again as it ends up, and bad input is refused
// with a clear error.

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "qn/DirectoryStore.h"
#include "qn/DriveService.h"
#include "qn/FileAttributes.h"
#include "qn/MainQueue.h"
#include "qn/NotificationCenter.h"
#include "qn/UbiquityErrors.h"
#include "support/ForwardingStore.h"
#include "support/TemporaryDirectory.h"

namespace qn::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kAccount = "alice@example.com";

// A directory store whose uploads can be made to fail, or to meet a change of their source just
// before they are committed.
class FaultyStore final : public ForwardingStore {
public:
    using ForwardingStore::ForwardingStore;

    std::atomic<int> failingUploads{0};  // uploads left to fail with a full disk
    std::function<void()> beforeCommit;  // run once, just before an upload's commit
    std::atomic<int> uploadsStarted{0};

    std::optional<Item> upload(std::string_view a, std::string_view p, int fd, const Condition& c,
                               Date d, std::string_view device, const Progress& progress,
                               Error* e) override {
        ++uploadsStarted;
        if (failingUploads > 0) {
            --failingUploads;
            setError(e, Error(QNDriveStoreErrorDomain, DriveStoreErrorIO,
                              {{NSLocalizedDescriptionKey, std::string("No space left on device.")},
                               {NSUnderlyingErrorKey, Error(NSPOSIXErrorDomain, ENOSPC, {})}}));
            return std::nullopt;
        }
        const auto wrapped = [&](std::uint64_t done, std::uint64_t total) {
            if (done == total && beforeCommit) {
                std::exchange(beforeCommit, nullptr)();
            }
            return !progress || progress(done, total);
        };
        return ForwardingStore::upload(a, p, fd, c, d, device, wrapped, e);
    }
};

class DriveFaultsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(DirectoryStore::create(storePath, nullptr));
        directoryStore = DirectoryStore::open(storePath);
        ASSERT_TRUE(directoryStore->addAccount(kAccount, nullptr));
        store = std::make_shared<FaultyStore>(directoryStore);
        DriveService::Options options;
        options.deviceDirectory = directory.path() + "/device";
        options.store = store;
        options.deviceName = "device";
        options.pollInterval = 20ms;
        Error error;
        drive = DriveService::open(options, &error);
        ASSERT_NE(drive, nullptr) << error.description();
        ASSERT_TRUE(drive->signIn(kAccount, &error)) << error.description();
        documents = drive->containerURL("iCloud.com.example.Faults")->path() + "/Documents";
        fs::create_directories(documents);
    }

    std::string stored(const std::string& name) {
        const std::string path = "iCloud.com.example.Faults/Documents/" + name;
        const auto item = directoryStore->itemAtPath(kAccount, path, nullptr);
        if (!item) {
            return "<none>";
        }
        return directoryStore->read(kAccount, path, item->revision, 0, 1 << 20, nullptr)
            .value_or("<unreadable>");
    }

    TemporaryDirectory directory;
    std::string storePath = directory.path() + "/store";
    std::shared_ptr<DirectoryStore> directoryStore;
    std::shared_ptr<FaultyStore> store;
    std::shared_ptr<DriveService> drive;
    std::string documents;
};

TEST_F(DriveFaultsTest, AFullDiskAndAStoreThatGoesAwayDelayWorkButLoseNone) {
    store->failingUploads = 1000000;
    std::ofstream(documents + "/a.txt") << "kept";
    EXPECT_FALSE(drive->waitUntilIdle(300ms)) << "work is left while uploads fail";
    EXPECT_EQ(stored("a.txt"), "<none>");
    store->failingUploads = 0;
    ASSERT_TRUE(drive->waitUntilIdle(10s));
    EXPECT_EQ(stored("a.txt"), "kept");
    EXPECT_GE(store->uploadsStarted.load(), 3) << "tried again and again";

    // The store goes away: the service says so (and tells the main thread), refuses downloads,
    // and uploads what changed meanwhile once the store is back.
    int told = 0;
    NotificationCenter::defaultCenter().addObserver(
        this, QNUbiquityServiceReachabilityDidChangeNotification, nullptr,
        [&](const Notification&) { ++told; });
    std::ofstream(documents + "/cloud.txt") << "only in the store soon";
    ASSERT_TRUE(drive->waitUntilIdle(10s));
    ASSERT_TRUE(drive->evict(URL::fileURLWithPath(documents + "/cloud.txt"), nullptr));
    fs::rename(storePath, storePath + ".away");
    ASSERT_TRUE(MainQueue::runUntil([&] { return told == 1; }, 10s));
    EXPECT_EQ(drive->isNetworkReachable(), false);
    std::ofstream(documents + "/a.txt") << "changed while away";
    Error error;
    EXPECT_FALSE(drive->startDownloading(URL::fileURLWithPath(documents + "/cloud.txt"), &error));
    EXPECT_EQ(error.code(), NSUbiquitousFileUbiquityServerNotAvailable);

    fs::rename(storePath + ".away", storePath);
    ASSERT_TRUE(MainQueue::runUntil([&] { return told == 2; }, 10s));
    ASSERT_TRUE(drive->waitUntilIdle(10s));
    EXPECT_EQ(stored("a.txt"), "changed while away");
    NotificationCenter::defaultCenter().removeObserver(this);
}

TEST_F(DriveFaultsTest, AFileChangedWhileItIsUploadedIsUploadedAgainAsItEndsUp) {
    store->beforeCommit = [&] {
        std::ofstream(documents + "/b.txt", std::ios::app) << " and more";
    };
    drive->setSyncPaused(true);  // the file is whole before the engine looks at it
    std::ofstream(documents + "/b.txt") << "first part";
    drive->setSyncPaused(false);
    ASSERT_TRUE(drive->waitUntilIdle(10s));
    EXPECT_EQ(stored("b.txt"), "first part and more");
    const auto versions =
        directoryStore->versions(kAccount, "iCloud.com.example.Faults/Documents/b.txt", nullptr);
    ASSERT_TRUE(versions);
    EXPECT_TRUE(versions->empty()) << "the first attempt left nothing behind";
}

TEST_F(DriveFaultsTest, BadInputIsRefusedWithAClearError) {
    // A name the store cannot hold stays on this device.
    std::ofstream(documents + "/bad\x01name.txt") << "local only";
    ASSERT_TRUE(drive->waitUntilIdle(10s));
    EXPECT_EQ(stored("bad\x01name.txt"), "<none>");
    EXPECT_TRUE(fs::exists(documents + "/bad\x01name.txt"));

    // Outside every container.
    Error error;
    EXPECT_FALSE(drive->startDownloading(URL::fileURLWithPath(directory.path() + "/x"), &error));
    EXPECT_EQ(error.code(), NSUbiquitousFileUnavailableError);

    // A damaged journal is refused when the device opens, and left as it was.
    drive.reset();
    const std::string journal = directory.path() + "/device/journals/alice@example.com.sqlite";
    ASSERT_TRUE(fs::exists(journal));
    fs::remove(journal + "-wal");
    fs::remove(journal + "-shm");
    std::ofstream(journal, std::ios::trunc) << std::string(10000, 'j');
    DriveService::Options options;
    options.deviceDirectory = directory.path() + "/device";
    options.store = store;
    EXPECT_EQ(DriveService::open(options, &error), nullptr);
    EXPECT_NE(error.localizedDescription().find("cannot be used"), std::string::npos);
    EXPECT_EQ(readFile(journal), std::string(10000, 'j'));
}

}  // namespace
}  // namespace qn::test
