// What the directory store adds to the store contract: its log survives a writer killed in the
// middle of a line, refuses a damaged one without touching it, and the store is unreachable
// while its directory is gone.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "qn/DirectoryStore.h"
#include "support/TemporaryDirectory.h"
#include "support/TestStores.h"

namespace qn::test {
namespace {

constexpr const char* kAccount = "alice@example.com";

class DirectoryStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(DirectoryStore::create(root, nullptr));
        store = DirectoryStore::open(root);
        ASSERT_TRUE(store->addAccount(kAccount, nullptr));
        ASSERT_TRUE(store->makeDirectory(kAccount, "C", DriveStore::Condition::any(), Date(),
                                         "test", nullptr));
    }

    std::optional<DriveStore::Item> put(const std::shared_ptr<DirectoryStore>& into,
                                        std::string_view path, std::string_view contents,
                                        Error* error = nullptr) {
        return uploadTo(*into, kAccount, path, contents, DriveStore::Condition::any(), error);
    }
    std::string log() const { return readFile(root + "/accounts/alice@example.com/log"); }
    void appendToLog(std::string_view bytes) const {
        std::ofstream(root + "/accounts/alice@example.com/log", std::ios::app) << bytes;
    }

    TemporaryDirectory directory;
    std::string root = directory.path() + "/store";
    std::shared_ptr<DirectoryStore> store;
};

TEST_F(DirectoryStoreTest, ATornLastLineIsCutOffByTheNextWriter) {
    ASSERT_TRUE(put(store, "C/a.txt", "a"));
    const std::string whole = log();
    appendToLog("3\tI\tC/ghost.txt\t0\t1");  // a writer killed in the middle of its line

    // Readers wait for the rest of the line; the next writer cuts it off and goes on.
    const auto reader = DirectoryStore::open(root);
    EXPECT_FALSE(reader->itemAtPath(kAccount, "C/ghost.txt", nullptr));
    Error error;
    ASSERT_TRUE(put(reader, "C/b.txt", "b", &error)) << error.description();
    EXPECT_EQ(log().substr(0, whole.size()), whole);
    EXPECT_EQ(log().find("ghost"), std::string::npos);
    EXPECT_TRUE(store->itemAtPath(kAccount, "C/b.txt", nullptr));
}

TEST_F(DirectoryStoreTest, ADamagedLogIsRefusedAndLeftAlone) {
    ASSERT_TRUE(put(store, "C/a.txt", "a"));
    std::string damaged = log();
    damaged[damaged.find("a.txt")] = 'b';  // the checksum no longer fits
    std::ofstream(root + "/accounts/alice@example.com/log", std::ios::trunc) << damaged;

    const auto fresh = DirectoryStore::open(root);
    Error error;
    EXPECT_FALSE(fresh->changesSince(kAccount, "", &error));
    EXPECT_EQ(error.code(), DriveStoreErrorCorrupt);
    EXPECT_NE(error.localizedDescription().find("is damaged"), std::string::npos);
    EXPECT_FALSE(put(fresh, "C/c.txt", "c", &error));
    EXPECT_EQ(error.code(), DriveStoreErrorCorrupt);
    EXPECT_EQ(log(), damaged);
}

TEST_F(DirectoryStoreTest, UnreachableWhileTheDirectoryIsGoneAndBackAfterwards) {
    ASSERT_TRUE(put(store, "C/a.txt", "a"));
    EXPECT_TRUE(store->isReachable());
    const std::string aside = directory.path() + "/aside";
    std::filesystem::rename(root, aside);
    EXPECT_FALSE(store->isReachable());
    Error error;
    EXPECT_FALSE(store->itemAtPath(kAccount, "C/a.txt", &error));
    EXPECT_EQ(error.code(), DriveStoreErrorUnreachable);
    EXPECT_FALSE(put(store, "C/b.txt", "b", &error));
    EXPECT_EQ(error.code(), DriveStoreErrorUnreachable);

    std::filesystem::rename(aside, root);
    EXPECT_TRUE(store->isReachable());
    EXPECT_TRUE(put(store, "C/b.txt", "b", &error)) << error.description();
    // Nothing but the log line and the contents files is left of the uploads.
    EXPECT_TRUE(std::filesystem::is_empty(root + "/accounts/alice@example.com/tmp"));

    // A directory that holds something else is no store.
    std::filesystem::create_directories(directory.path() + "/other");
    std::ofstream(directory.path() + "/other/qnicloud-store") << "hello\n";
    EXPECT_FALSE(DirectoryStore::create(directory.path() + "/other", &error));
}

}  // namespace
}  // namespace qn::test
