// The qnicloud tool as a person or a script meets it: run as a program against a directory store
// in a temporary directory, judged by its exit status and what it prints.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/TemporaryDirectory.h"

extern char** environ;

namespace qn::test {
namespace {

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs the tool with `arguments`, its device in `device`.
Outcome qnicloud(const std::string& device, std::vector<std::string> arguments) {
    TemporaryDirectory captured;
    const std::string out = captured.path() + "/out";
    const std::string err = captured.path() + "/err";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    arguments.insert(arguments.begin(), {QNICLOUD_TOOL, "--device", device});
    std::vector<char*> argv;
    for (auto& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    Outcome outcome;
    if (::posix_spawn(&pid, QNICLOUD_TOOL, &actions, nullptr, argv.data(), environ) == 0) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    outcome.out = readFile(out);
    outcome.err = readFile(err);
    return outcome;
}

TEST(QnicloudToolTest, StoreAccountStatusAndListingOnTwoDevices) {
    TemporaryDirectory directory;
    const std::string device = directory.path() + "/device";
    const std::string store = directory.path() + "/store";

    // Before anything: one clear line, and a failure status.
    auto outcome = qnicloud(device, {"status"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err.find("qnicloud: "), 0u) << outcome.err;
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;

    EXPECT_EQ(qnicloud(device, {"store", "init", store}).status, 0);
    outcome = qnicloud(device, {"account", "sign-in", "alice", "--store", store});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const std::string documents =
        device + "/Mobile Documents/iCloud~com~qnicloud~Documents/Documents";
    std::filesystem::create_directories(documents + "/Folder");
    std::ofstream(documents + "/a.txt") << "a";

    outcome = qnicloud(device, {"status"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_NE(outcome.out.find("account: alice\n"), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find("(reachable)"), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find("items: 1 downloaded, 0 cloud only"), std::string::npos)
        << outcome.out;
    EXPECT_NE(outcome.out.find("1 folders"), std::string::npos) << outcome.out;

    // A second device on the same store sees the document in the cloud only.
    const std::string other = directory.path() + "/other";
    EXPECT_EQ(qnicloud(other, {"account", "sign-in", "alice", "--store", store}).status, 0);
    outcome = qnicloud(other, {"ls", "--json"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_NE(outcome.out.find(R"({"path": "a.txt", "folder": false, "state": "cloud only")"),
              std::string::npos)
        << outcome.out;
    EXPECT_NE(outcome.out.find(R"({"path": "Folder", "folder": true)"), std::string::npos)
        << outcome.out;
    outcome = qnicloud(other, {"ls", "nothere"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find("no folder at"), std::string::npos) << outcome.err;

    outcome = qnicloud(device, {"account", "switch", "nobody"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find("no account \"nobody\""), std::string::npos) << outcome.err;
    EXPECT_EQ(qnicloud(device, {"account", "sign-out"}).status, 0);
    EXPECT_NE(qnicloud(device, {"status"}).out.find("account: none"), std::string::npos);
    EXPECT_NE(qnicloud(device, {"frobnicate"}).status, 0);
}

}  // namespace
}  // namespace qn::test
