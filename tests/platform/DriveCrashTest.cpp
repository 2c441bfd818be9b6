// A device process killed (SIGKILL) in the middle of an upload, just after the store took one,
// in the middle of a download, or at any moment of a busy sync, restarts without losing or
// duplicating anything.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "qn/DirectoryStore.h"
#include "qn/DriveService.h"
#include "support/TemporaryDirectory.h"
#include "support/TestStores.h"

extern char** environ;

namespace qn::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kAccount = "alice@example.com";
constexpr const char* kFolder = "iCloud.com.example.Crash/Documents";

// The helper device process, with its standard output to read.
class Helper {
public:
    explicit Helper(const std::vector<std::string>& arguments) {
        int pipes[2];
        EXPECT_EQ(::pipe(pipes), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipes[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, pipes[0]);
        std::vector<char*> argv{const_cast<char*>(QN_DRIVE_DEVICE_HELPER)};
        for (const auto& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        EXPECT_EQ(
            ::posix_spawn(&pid_, QN_DRIVE_DEVICE_HELPER, &actions, nullptr, argv.data(), environ),
            0);
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipes[1]);
        out_ = pipes[0];
    }
    ~Helper() {
        kill();
        ::close(out_);
    }
    // Waits for the line `line` on the helper's output.
    bool said(const std::string& line, std::chrono::milliseconds patience = 20s) {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (text_.find(line + "\n") == std::string::npos) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd fd{out_, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&fd, 1, static_cast<int>(left.count())) <= 0) {
                return false;
            }
            char buffer[256];
            const ssize_t got = ::read(out_, buffer, sizeof buffer);
            if (got <= 0) {
                return false;
            }
            text_.append(buffer, static_cast<std::size_t>(got));
        }
        return true;
    }
    void kill() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }

private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string text_;
};

class DriveCrashTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(DirectoryStore::create(storePath, nullptr));
        store = DirectoryStore::open(storePath);
        ASSERT_TRUE(store->addAccount(kAccount, nullptr));
        fs::create_directories(documents);
    }

    Helper start(const std::string& point, const std::string& download = "") {
        std::vector<std::string> arguments{storePath, devicePath, kAccount, point};
        if (!download.empty()) {
            arguments.push_back(download);
        }
        return Helper(arguments);
    }
    // The device again, in this process, once it has done everything it knows of.
    std::shared_ptr<DriveService> restart() {
        DriveService::Options options;
        options.deviceDirectory = devicePath;
        options.store = DirectoryStore::open(storePath);
        options.deviceName = "helper";
        options.pollInterval = 10ms;
        Error error;
        auto drive = DriveService::open(options, &error);
        EXPECT_NE(drive, nullptr) << error.description();
        EXPECT_TRUE(drive && drive->waitUntilIdle(20s));
        return drive;
    }
    std::optional<DriveStore::Item> item(const std::string& name) {
        return store->itemAtPath(kAccount, std::string(kFolder) + "/" + name, nullptr);
    }
    std::string stored(const std::string& name) {
        const auto found = item(name);
        return found ? store
                           ->read(kAccount, std::string(kFolder) + "/" + name, found->revision, 0,
                                  64 << 20, nullptr)
                           .value_or("<unreadable>")
                     : "<none>";
    }
    std::size_t versions(const std::string& name) {
        return store->versions(kAccount, std::string(kFolder) + "/" + name, nullptr)
            .value_or(std::vector<DriveStore::Version>(1))
            .size();
    }
    void write(const std::string& name, const std::string& contents) {
        std::ofstream(documents + "/" + name, std::ios::binary) << contents;
    }

    TemporaryDirectory directory;
    std::string storePath = directory.path() + "/store";
    std::string devicePath = directory.path() + "/device";
    std::string documents = devicePath + "/Mobile Documents/iCloud~com~example~Crash/Documents";
    std::shared_ptr<DirectoryStore> store;
};

TEST_F(DriveCrashTest, KilledInTheMiddleOfAnUploadOrJustAfterTheStoreTookIt) {
    const std::string big(20 << 20, 'b');
    write("big.bin", big);
    {
        Helper helper = start("upload-middle");
        ASSERT_TRUE(helper.said("stalled"));
    }
    EXPECT_EQ(stored("big.bin"), "<none>");
    restart().reset();
    EXPECT_EQ(stored("big.bin"), big);
    EXPECT_EQ(versions("big.bin"), 0u);
    EXPECT_TRUE(fs::is_empty(storePath + "/accounts/alice@example.com/tmp"))
        << "the half upload's temporary file is removed";

    write("small.txt", "small");
    std::string committed;
    {
        Helper helper = start("upload-committed");
        ASSERT_TRUE(helper.said("stalled"));
        ASSERT_TRUE(item("small.txt"));
        committed = item("small.txt")->revision;
    }
    restart().reset();
    EXPECT_EQ(item("small.txt")->revision, committed) << "uploaded once, not again";
    EXPECT_EQ(versions("small.txt"), 0u) << "not taken for a conflict with itself";
}

TEST_F(DriveCrashTest, KilledInTheMiddleOfADownload) {
    const std::string big(20 << 20, 'd');
    {
        // Written by another device.
        ASSERT_TRUE(store->makeDirectory(kAccount, "iCloud.com.example.Crash",
                                         DriveStore::Condition::any(), Date(), "other", nullptr));
        ASSERT_TRUE(store->makeDirectory(kAccount, kFolder, DriveStore::Condition::any(), Date(),
                                         "other", nullptr));
        ASSERT_TRUE(uploadTo(*store, kAccount, std::string(kFolder) + "/remote.bin", big,
                             DriveStore::Condition::absent()));
    }
    {
        Helper helper = start("download-middle", documents + "/remote.bin");
        ASSERT_TRUE(helper.said("stalled"));
    }
    restart().reset();
    EXPECT_EQ(readFile(documents + "/remote.bin"), big);
    for (const auto& entry : fs::directory_iterator(documents)) {
        EXPECT_EQ(entry.path().filename(), "remote.bin") << "nothing else is left behind";
    }
    EXPECT_EQ(versions("remote.bin"), 0u);
}

TEST_F(DriveCrashTest, KilledAtAnyMomentOfABusySyncLosesAndDuplicatesNothing) {
    constexpr int kFiles = 150;
    std::mt19937 random(std::random_device{}());
    for (int i = 0; i < kFiles; ++i) {
        write(fmt::format("f{:03}.txt", i), fmt::format("contents of {}", i));
    }
    for (int round = 0; round < 3; ++round) {
        Helper helper = start("none");
        ASSERT_TRUE(helper.said("ready"));
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 150));
    }
    restart().reset();
    for (int i = 0; i < kFiles; ++i) {
        const std::string name = fmt::format("f{:03}.txt", i);
        EXPECT_EQ(stored(name), fmt::format("contents of {}", i));
        EXPECT_EQ(versions(name), 0u) << name;
    }
}

}  // namespace
}  // namespace qn::test
