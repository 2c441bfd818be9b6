// The WebDAV store under real faults, through a proxy in front of Apache: a server without room,
// a concurrent writer's 412, a download cut in the middle and resumed by range, and a server
// killed in the middle of an upload and of a download. Nothing is lost or duplicated, and every
// failure is a clear error or a retry.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "qn/DriveService.h"
#include "qn/WebDAVStore.h"
#include "support/TemporaryDirectory.h"
#include "support/TestStores.h"

namespace qn::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kAccount = "alice";
constexpr const char* kStaging = "/store/alice/.qnicloud/staging/*";

// `size` bytes that differ from one MiB to the next, in a descriptor at offset 0.
int contents(std::size_t size, char seed) {
    const int fd = ::memfd_create("contents", 0);
    std::string block(1 << 20, '\0');
    for (std::size_t done = 0; done < size; done += block.size()) {
        for (std::size_t i = 0; i < block.size(); i += 4096) {
            block[i] = static_cast<char>(seed + done / block.size() + i / 4096);
        }
        const std::size_t now = std::min(block.size(), size - done);
        EXPECT_EQ(::write(fd, block.data(), now), static_cast<ssize_t>(now));
    }
    ::lseek(fd, 0, SEEK_SET);
    return fd;
}

class WebDAVFaultsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto why = WebDAVServer::unavailable(WebDAVServer::Kind::Apache)) {
            GTEST_SKIP() << *why;
        }
        server = WebDAVServer::start(WebDAVServer::Kind::Apache);
        proxy = std::make_unique<FaultProxy>(server->port());
        options.url = proxy->url() + "store";
        options.stallTimeout = 3s;
        options.retries = 2;
        Error error;
        ASSERT_TRUE(WebDAVStore::create(options, &error)) << error.description();
        store = WebDAVStore::open(options);
        ASSERT_TRUE(store->addAccount(kAccount, &error)) << error.description();
        ASSERT_TRUE(store->makeDirectory(kAccount, "C", DriveStore::Condition::absent(), Date(1),
                                         "test", &error))
            << error.description();
    }

    std::optional<DriveStore::Item> put(const std::string& path, int fd,
                                        DriveStore::Condition condition, Error* error) {
        ::lseek(fd, 0, SEEK_SET);
        return store->upload(kAccount, path, fd, condition, Date(2), "test", nullptr, error);
    }
    std::string get(const std::string& path) { return downloadFrom(*store, kAccount, path); }
    // Uploads the store left in its hidden collection. (Apache's own temporary file of a PUT
    // cut by its death stays there too, as it would anywhere on that server.)
    std::size_t leftovers() {
        const fs::path staging =
            fs::path(server->dataDirectory()) / "store/alice/.qnicloud/staging";
        std::size_t found = 0;
        for (const auto& entry : fs::directory_iterator(staging)) {
            found += entry.path().filename().string().starts_with(".davfs.tmp") ? 0 : 1;
        }
        return found;
    }

    TemporaryDirectory directory;
    std::unique_ptr<WebDAVServer> server;
    std::unique_ptr<FaultProxy> proxy;
    WebDAVStore::Options options;
    std::shared_ptr<WebDAVStore> store;
};

TEST_F(WebDAVFaultsTest, RefusalsAreClearErrorsThatChangeNothing) {
    const int one = contents(1000, 'a');
    const int two = contents(2000, 'b');
    Error error;

    // No room: said so, and nothing is left half-made.
    proxy->inject({"PUT", kStaging}, FaultProxy::Fault::respond(507));
    EXPECT_FALSE(put("C/a.bin", one, DriveStore::Condition::absent(), &error));
    EXPECT_EQ(error.code(), DriveStoreErrorIO);
    EXPECT_NE(error.localizedDescription().find("507 Insufficient Storage"), std::string::npos)
        << error.localizedDescription();
    EXPECT_FALSE(store->itemAtPath(kAccount, "C/a.bin", nullptr));
    const auto first = put("C/a.bin", one, DriveStore::Condition::absent(), &error);
    ASSERT_TRUE(first) << error.description();

    // A writer that got there first: the edit is refused as a conflict, the item stays.
    proxy->inject({"MOVE", kStaging}, FaultProxy::Fault::respond(412));
    EXPECT_FALSE(put("C/a.bin", two, DriveStore::Condition::atRevision(first->revision), &error));
    EXPECT_EQ(error.code(), DriveStoreErrorRevisionMismatch) << error.description();
    EXPECT_EQ(get("C/a.bin"), bytesOf(one));
    EXPECT_EQ(store->itemAtPath(kAccount, "C/a.bin", nullptr)->revision, first->revision);
    EXPECT_EQ(leftovers(), 0u);

    // The server away: unreachable, with the reason; back, and the work goes through.
    server->stop();
    EXPECT_FALSE(store->isReachable());
    EXPECT_FALSE(put("C/b.bin", two, DriveStore::Condition::absent(), &error));
    EXPECT_EQ(error.code(), DriveStoreErrorUnreachable);
    EXPECT_NE(error.localizedDescription().find("cannot be reached"), std::string::npos);
    server->restart();
    EXPECT_TRUE(store->isReachable());
    EXPECT_TRUE(put("C/b.bin", two, DriveStore::Condition::absent(), &error))
        << error.description();
    EXPECT_EQ(get("C/b.bin"), bytesOf(two));
    ::close(one);
    ::close(two);
}

TEST_F(WebDAVFaultsTest, ADownloadCutOrHeldWhileTheServerRestartsResumesByRange) {
    const int big = contents(24 << 20, 'c');
    Error error;
    ASSERT_TRUE(put("C/big.bin", big, DriveStore::Condition::absent(), &error))
        << error.description();

    proxy->inject({"GET", "/store/alice/C/big.bin"}, FaultProxy::Fault::dropResponseAfter(3 << 20));
    EXPECT_EQ(get("C/big.bin"), bytesOf(big));
    int ranged = 0;
    for (const auto& request : proxy->requests()) {
        ranged +=
            request.method == "GET" && request.head.find("Range: bytes=") != std::string::npos;
    }
    EXPECT_EQ(ranged, 1) << "the rest was asked for, not the whole again";

    // Held after a few bytes while the server is killed and started again.
    proxy->inject({"GET", "/store/alice/C/big.bin"}, FaultProxy::Fault::stallResponseAfter(1000));
    auto downloaded = std::async(std::launch::async, [&] { return get("C/big.bin"); });
    ASSERT_TRUE(proxy->waitUntilStalled(10s));
    server->kill();
    server->restart();
    proxy->releaseStalls();
    EXPECT_EQ(downloaded.get(), bytesOf(big));
    ::close(big);
}

TEST_F(WebDAVFaultsTest, AServerKilledInTheMiddleOfAnUploadLosesAndDuplicatesNothing) {
    const int big = contents(24 << 20, 'd');
    proxy->inject({"PUT", kStaging}, FaultProxy::Fault::stallRequestAfter(1 << 20));
    Error error;
    auto uploaded = std::async(std::launch::async, [&] {
        return put("C/big.bin", big, DriveStore::Condition::absent(), &error);
    });
    ASSERT_TRUE(proxy->waitUntilStalled(10s));
    server->kill();
    server->restart();
    proxy->releaseStalls();
    // Sent again whole once the server is back, or given up with a clear error.
    if (!uploaded.get()) {
        EXPECT_TRUE(error.code() == DriveStoreErrorUnreachable || error.code() == DriveStoreErrorIO)
            << error.description();
        EXPECT_FALSE(store->itemAtPath(kAccount, "C/big.bin", nullptr));
        ASSERT_TRUE(put("C/big.bin", big, DriveStore::Condition::absent(), &error))
            << error.description();
    }
    EXPECT_EQ(get("C/big.bin"), bytesOf(big));
    const auto all = store->changesSince(kAccount, "", nullptr);
    ASSERT_TRUE(all);
    EXPECT_EQ(all->items.size(), 2u) << "C and C/big.bin, once";
    EXPECT_EQ(leftovers(), 0u);
    ::close(big);
}

// A device keeps what it could not send, and sends it when the server has room again.
TEST_F(WebDAVFaultsTest, ADeviceTriesAgainAfterTheServerRanOutOfRoom) {
    for (int i = 0; i < 3; ++i) {
        proxy->inject({"PUT", kStaging}, FaultProxy::Fault::respond(507));
    }
    DriveService::Options device;
    device.deviceDirectory = directory.path() + "/device";
    device.store = WebDAVStore::open(options);
    device.deviceName = "device";
    device.pollInterval = 20ms;
    Error error;
    const auto drive = DriveService::open(device, &error);
    ASSERT_NE(drive, nullptr) << error.description();
    ASSERT_TRUE(drive->signIn(kAccount, &error)) << error.description();
    const std::string documents = drive->containerURL("iCloud.com.example.Faults")->path();
    fs::create_directories(documents + "/Documents");
    std::ofstream(documents + "/Documents/note.txt") << "kept";
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (!drive->waitUntilIdle(100ms) && std::chrono::steady_clock::now() < end) {
    }
    EXPECT_EQ(proxy->pendingFaults(), 0u);
    EXPECT_EQ(get("iCloud.com.example.Faults/Documents/note.txt"), "kept");
}

}  // namespace
}  // namespace qn::test
