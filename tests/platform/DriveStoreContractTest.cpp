// What every drive store promises, checked against each backend: items at revisions, changes
// conditional on the revision last seen, change tokens that return only what changed, conflict
// versions, and names the store refuses.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/TemporaryDirectory.h"
#include "support/TestStores.h"

namespace qn::test {
namespace {

constexpr const char* kAccount = "alice@example.com";

class DriveStoreContractTest : public ::testing::TestWithParam<StoreKind> {
protected:
    void SetUp() override {
        if (const auto why = TestStore::unavailable(GetParam())) {
            GTEST_SKIP() << *why;
        }
        place = std::make_unique<TestStore>(GetParam(), directory.path());
        store = place->open();
        ASSERT_NE(store, nullptr);
        Error error;
        ASSERT_TRUE(store->addAccount(kAccount, &error)) << error.description();
        ASSERT_TRUE(store->makeDirectory(kAccount, "C", DriveStore::Condition::absent(), Date(1),
                                         "test", &error))
            << error.description();
    }

    DriveStore::Item put(std::string_view path, std::string_view contents,
                         DriveStore::Condition condition = DriveStore::Condition::any()) {
        Error error;
        const auto item = uploadTo(*store, kAccount, path, contents, condition, &error);
        EXPECT_TRUE(item) << error.description();
        return item.value_or(DriveStore::Item{});
    }
    std::string get(std::string_view path) { return downloadFrom(*store, kAccount, path); }
    std::vector<std::string> paths(const std::vector<DriveStore::Item>& items) {
        std::vector<std::string> found;
        for (const auto& item : items) {
            found.push_back(item.path);
        }
        return found;
    }

    TemporaryDirectory directory;
    std::unique_ptr<TestStore> place;
    std::shared_ptr<DriveStore> store;
};

TEST_P(DriveStoreContractTest, WritesAreConditionalOnTheRevisionLastSeen) {
    const auto first = put("C/a.txt", "one", DriveStore::Condition::absent());
    EXPECT_EQ(first.size, 3u);
    EXPECT_EQ(first.device, "test");
    EXPECT_EQ(get("C/a.txt"), "one");

    // Another device wrote in between: the stale write is refused and changes nothing.
    const auto second = put("C/a.txt", "two", DriveStore::Condition::atRevision(first.revision));
    EXPECT_NE(second.revision, first.revision);
    MemoryFile stale("stale");
    Error error;
    EXPECT_FALSE(store->upload(kAccount, "C/a.txt", stale.fd(),
                               DriveStore::Condition::atRevision(first.revision), Date(3), "test",
                               nullptr, &error));
    EXPECT_EQ(error.domain(), QNDriveStoreErrorDomain);
    EXPECT_EQ(error.code(), DriveStoreErrorRevisionMismatch);
    EXPECT_EQ(*error.userInfo().stringForKey(DriveStoreCurrentRevisionKey), second.revision);
    EXPECT_FALSE(store->upload(kAccount, "C/a.txt", stale.fd(), DriveStore::Condition::absent(),
                               Date(3), "test", nullptr, &error));
    EXPECT_EQ(error.code(), DriveStoreErrorRevisionMismatch);
    EXPECT_EQ(get("C/a.txt"), "two");

    // Ranged reads of a revision; a replaced revision is gone.
    EXPECT_EQ(store->read(kAccount, "C/a.txt", second.revision, 1, 10, nullptr), "wo");
    EXPECT_FALSE(store->read(kAccount, "C/a.txt", first.revision, 0, 10, &error));
    EXPECT_EQ(error.code(), DriveStoreErrorNotFound);

    // Removal and moves are conditional too; a folder moves with what it holds.
    EXPECT_FALSE(store->remove(kAccount, "C/a.txt",
                               DriveStore::Condition::atRevision(first.revision), &error));
    ASSERT_TRUE(store->makeDirectory(kAccount, "C/F", DriveStore::Condition::absent(), Date(4),
                                     "test", nullptr));
    put("C/F/b.txt", "bee");
    const auto moved = store->move(kAccount, "C/F", "C/G", DriveStore::Condition::any(), &error);
    ASSERT_TRUE(moved) << error.description();
    EXPECT_TRUE(moved->isDirectory);
    EXPECT_EQ(get("C/G/b.txt"), "bee");
    EXPECT_FALSE(store->itemAtPath(kAccount, "C/F/b.txt", &error));
    EXPECT_EQ(error.code(), DriveStoreErrorNotFound);
    EXPECT_FALSE(store->move(kAccount, "C/G", "C/a.txt", DriveStore::Condition::any(), &error));
    EXPECT_EQ(error.code(), DriveStoreErrorExists);
    EXPECT_FALSE(store->move(kAccount, "C/G", "C/G/H", DriveStore::Condition::any(), &error));
    // A folder goes only once it is empty.
    EXPECT_FALSE(store->remove(kAccount, "C/G", DriveStore::Condition::any(), &error));
    EXPECT_EQ(error.code(), DriveStoreErrorNotEmpty);
    EXPECT_TRUE(store->remove(kAccount, "C/G/b.txt", DriveStore::Condition::any(), &error));
    EXPECT_TRUE(
        store->remove(kAccount, "C/G", DriveStore::Condition::atRevision(moved->revision), &error))
        << error.description();
    EXPECT_FALSE(store->itemAtPath(kAccount, "C/G", nullptr));

    // Folders: made twice is no conflict, but a file is in the way of one, and a file needs its
    // parent folder.
    EXPECT_TRUE(store->makeDirectory(kAccount, "C", DriveStore::Condition::absent(), Date(5),
                                     "test", nullptr));
    EXPECT_FALSE(store->makeDirectory(kAccount, "C/a.txt", DriveStore::Condition::any(), Date(5),
                                      "test", &error));
    EXPECT_EQ(error.code(), DriveStoreErrorNotAFolder);
    MemoryFile orphan("x");
    EXPECT_FALSE(store->upload(kAccount, "C/none/x.txt", orphan.fd(), DriveStore::Condition::any(),
                               Date(5), "test", nullptr, &error));
    EXPECT_EQ(error.code(), DriveStoreErrorNotAFolder);
}

TEST_P(DriveStoreContractTest, ChangeTokensReturnOnlyWhatChanged) {
    put("C/a.txt", "a");
    put("C/b.txt", "b");
    Error error;
    auto all = store->changesSince(kAccount, "", &error);
    ASSERT_TRUE(all) << error.description();
    EXPECT_TRUE(all->reset);
    EXPECT_EQ(paths(all->items), (std::vector<std::string>{"C", "C/a.txt", "C/b.txt"}));

    const auto none = store->changesSince(kAccount, all->token, nullptr);
    ASSERT_TRUE(none);
    EXPECT_FALSE(none->reset);
    EXPECT_TRUE(none->items.empty() && none->removedPaths.empty());
    EXPECT_EQ(none->token, all->token);

    put("C/a.txt", "A");
    ASSERT_TRUE(store->move(kAccount, "C/b.txt", "C/c.txt", DriveStore::Condition::any(), nullptr));
    const auto some = store->changesSince(kAccount, all->token, nullptr);
    ASSERT_TRUE(some);
    EXPECT_FALSE(some->reset);
    EXPECT_EQ(paths(some->items), (std::vector<std::string>{"C/a.txt", "C/c.txt"}));
    EXPECT_EQ(some->removedPaths, (std::vector<std::string>{"C/b.txt"}));

    // A token the store cannot place gives everything again.
    const auto unknown = store->changesSince(kAccount, "not a token", nullptr);
    ASSERT_TRUE(unknown);
    EXPECT_TRUE(unknown->reset);
    EXPECT_EQ(paths(unknown->items), (std::vector<std::string>{"C", "C/a.txt", "C/c.txt"}));

    // A second store on the same place (another device, another process) sees the same.
    const auto other = place->open();
    Error otherError;
    const auto seen = other->changesSince(kAccount, "", &otherError);
    ASSERT_TRUE(seen) << otherError.description();
    EXPECT_EQ(seen->items, unknown->items);
}

TEST_P(DriveStoreContractTest, ConflictVersionsStayBesideTheItemUntilResolved) {
    const auto item = put("C/a.txt", "mine");
    MemoryFile theirs("theirs");
    Error error;
    const auto version =
        store->addConflictVersion(kAccount, "C/a.txt", theirs.fd(), Date(9), "laptop", &error);
    ASSERT_TRUE(version) << error.description();
    EXPECT_EQ(version->size, 6u);
    EXPECT_EQ(version->device, "laptop");
    const auto token = store->changesSince(kAccount, "", nullptr)->token;
    auto now = store->itemAtPath(kAccount, "C/a.txt", nullptr);
    EXPECT_EQ(now->unresolvedConflicts, 1u);
    EXPECT_EQ(now->revision, item.revision) << "a version leaves the item's revision alone";

    MemoryFile into;
    ASSERT_TRUE(
        store->downloadVersion(kAccount, "C/a.txt", version->identifier, into.fd(), &error));
    EXPECT_EQ(into.contents(), "theirs");
    ASSERT_TRUE(store->setVersionResolved(kAccount, "C/a.txt", version->identifier, true, &error));
    const auto changed = store->changesSince(kAccount, token, nullptr);
    ASSERT_EQ(changed->items.size(), 1u);
    EXPECT_EQ(changed->items[0].unresolvedConflicts, 0u);
    EXPECT_TRUE(store->versions(kAccount, "C/a.txt", nullptr)->at(0).resolved);

    ASSERT_TRUE(store->removeVersion(kAccount, "C/a.txt", version->identifier, &error));
    EXPECT_TRUE(store->versions(kAccount, "C/a.txt", nullptr)->empty());
    EXPECT_FALSE(store->removeVersion(kAccount, "C/a.txt", version->identifier, &error));
    EXPECT_EQ(error.code(), DriveStoreErrorNotFound);
}

TEST_P(DriveStoreContractTest, RefusesNamesItCannotHoldAndUnknownAccounts) {
    MemoryFile source("x");
    for (const std::string& path : std::vector<std::string>{
             "", "/C/a", "C//a", "C/./a", "C/../a", "C/a\n", std::string("C/\xff"),
             "C/" + std::string(256, 'n'), "C/" + std::string(1100, 'n')}) {
        Error error;
        EXPECT_FALSE(store->upload(kAccount, path, source.fd(), DriveStore::Condition::any(),
                                   Date(), "test", nullptr, &error))
            << path;
        EXPECT_EQ(error.code(), DriveStoreErrorInvalidName) << path;
        EXPECT_NE(error.localizedDescription().find("cannot hold the name"), std::string::npos);
    }
    EXPECT_FALSE(DriveStore::validatePath("C/caf\u00e9 \u65e5\u672c.txt"));
    Error error;
    EXPECT_FALSE(store->itemAtPath("nobody", "C", &error));
    EXPECT_EQ(error.code(), DriveStoreErrorNotFound);
    EXPECT_TRUE(store->addAccount("bob/../..", nullptr));
    EXPECT_EQ(store->accounts(nullptr),
              (std::vector<std::string>{"alice@example.com", "bob/../.."}));
}

TEST_P(DriveStoreContractTest, ConcurrentWritersOnTheSameRevisionExactlyOneWins) {
    const auto base = put("C/a.txt", "base");
    constexpr int kWriters = 8;
    std::vector<int> won(kWriters, 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < kWriters; ++i) {
        threads.emplace_back([&, i] {
            // Each its own store object, as separate processes would be.
            const auto mine = place->open();
            MemoryFile source("writer " + std::to_string(i));
            Error error;
            won[i] = mine->upload(kAccount, "C/a.txt", source.fd(),
                                  DriveStore::Condition::atRevision(base.revision), Date(), "t",
                                  nullptr, &error)
                         ? 1
                         : 0;
            if (won[i] == 0 && error.code() != DriveStoreErrorRevisionMismatch) {
                ADD_FAILURE() << error.description();
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    int winners = 0;
    std::string expected;
    for (int i = 0; i < kWriters; ++i) {
        winners += won[i];
        if (won[i] != 0) {
            expected = "writer " + std::to_string(i);
        }
    }
    EXPECT_EQ(winners, 1);
    EXPECT_EQ(get("C/a.txt"), expected);
}

INSTANTIATE_TEST_SUITE_P(Stores, DriveStoreContractTest,
                         ::testing::Values(StoreKind::Directory, StoreKind::WebDAVApache,
                                           StoreKind::WebDAVRclone),
                         [](const auto& info) { return nameOf(info.param); });

}  // namespace
}  // namespace qn::test
