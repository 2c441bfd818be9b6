// Requests, cancellations, progress, removals, network and account changes in a seeded random
// order, checked against what the downloads manager promises: never more downloads active than
// the limit, each request ends with exactly one completion or error unless its token was
// cancelled or an account change dropped it, callbacks come on the main thread, and the queue and
// the active set empty out once the cloud is idle.
// QN_RANDOM_DOWNLOADS_SEED runs that seed alone; QN_RANDOM_DOWNLOADS_STEPS sets the steps per
// seed. scripts/soak.sh runs both for as long as it is told.

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>

#include "DownloadsFixture.h"
#include "QNiCloud/QNiCloudBackgroundOperation.h"

namespace qn::test {
namespace {

constexpr int kFiles = 6;

unsigned fromEnvironment(const char* name, unsigned fallback) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != 0 ? static_cast<unsigned>(std::strtoul(value, nullptr, 10))
                                           : fallback;
}

class QNiCloudDownloadsManagerRandomTest : public DownloadsFixture,
                                           public ::testing::WithParamInterface<unsigned> {
protected:
    struct Request {
        std::shared_ptr<QNBackgroundOperation> token;
        std::string name;
        int endings = 0;
        bool cancelled = false;
        bool dropped = false;  // outstanding when the account changed
    };
    struct Requests {
        std::map<int, Request> byId;
        int offMainThread = 0;
    };

    std::string name(int i) const { return fmt::format("f{}.txt", i); }

    void request(int id, const std::string& file, bool priority) {
        auto& r = state->byId[id];
        r.name = file;
        r.token = QNiCloudBackgroundOperation::operation();
        const auto end = [state = state, id] {
            state->offMainThread += MainQueue::isMainThread() ? 0 : 1;
            ++state->byId[id].endings;
        };
        const auto onCompletion = [end](const QNBackgroundOperationPointer&, const URL&,
                                        std::uint64_t, std::uint64_t) { end(); };
        const auto onError = [end](const QNBackgroundOperationPointer&, const Error&) { end(); };
        if (priority) {
            manager->downloadItemAtPath(documentPath(file), false, r.token, nullptr, onCompletion,
                                        onError);
        } else {
            manager->downloadItemsAtURLs({documentURL(file)}, r.token, 0, nullptr, onCompletion,
                                         nullptr, nullptr, onError);
        }
    }

    std::vector<std::string> downloading() const {
        std::vector<std::string> found;
        for (int i = 0; i < kFiles; ++i) {
            const auto item = cloud->item(documentURL(name(i)));
            if (item && item->downloading) {
                found.push_back(name(i));
            }
        }
        return found;
    }

    void quiesce() {
        if (cloud->pendingQueryBatchCount() > 0) {
            deliver();
        }
        settle();
    }

    std::shared_ptr<Requests> state = std::make_shared<Requests>();
};

TEST_P(QNiCloudDownloadsManagerRandomTest, EveryRequestEndsOnceAndNothingIsLeft) {
    std::mt19937 random(GetParam());
    const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    for (int i = 0; i < kFiles; ++i) {
        items.emplace_back(name(i), SimulatedItemState::notDownloaded("0123456789"));
    }
    const std::uint64_t limit = 1 + static_cast<std::uint64_t>(pick(3));
    start(limit);
    bool reachable = true;
    bool otherAccount = false;
    int nextId = 0;
    const unsigned steps = fromEnvironment("QN_RANDOM_DOWNLOADS_STEPS", 1000);
    for (unsigned step = 0; step < steps; ++step) {
        SCOPED_TRACE(fmt::format("seed {} step {}", GetParam(), step));
        const int what = pick(50) == 0 ? 10 : pick(10);
        if (what < 3) {
            request(nextId++, name(pick(kFiles)), pick(2) == 0);
        } else if (what < 6) {
            const auto running = downloading();
            if (!running.empty()) {
                const auto& file = running[static_cast<std::size_t>(pick(running.size()))];
                cloud->advanceDownload(documentURL(file), pick(3) == 0 ? 100 : 10 + pick(80));
            }
        } else if (what == 6 && nextId > 0) {
            auto& r = state->byId[pick(nextId)];
            r.cancelled = true;
            r.token->cancel();
        } else if (what == 7) {
            reachable = !reachable;
            cloud->setNetworkReachable(reachable);
        } else if (what == 10) {
            // Another account (the container keeps its items): whatever is outstanding is
            // dropped without a word, and the presenter builds its cache again.
            for (auto& [id, r] : state->byId) {
                r.dropped = r.dropped || r.endings == 0;
            }
            otherAccount = !otherAccount;
            const auto before = logCount(LogLevel::Info, "iCloud current state is 2.");
            cloud->switchAccount(otherAccount ? "bob@example.com" : "alice@example.com");
            ASSERT_TRUE(waitForLogPrefix(LogLevel::Info, "iCloud current state is 2.", before + 1));
            ASSERT_TRUE(MainQueue::runUntil([&] { return cloud->runningFeedCount() == 1; },
                                            std::chrono::seconds(10)));
            initialize();
        } else {
            // Removed (ending its downloads) or, once the removal is known, back in the cloud
            // only, to be fetched again.
            const auto file = documentURL(name(pick(kFiles)));
            if (cloud->item(file)) {
                cloud->removeItem(file);
            } else {
                cloud->setItem(file, SimulatedItemState::notDownloaded("0123456789"));
            }
        }
        quiesce();
        ASSERT_LE(manager->activeFilesDownloads().size(), limit);
        for (const auto& [id, r] : state->byId) {
            ASSERT_LE(r.endings, 1) << "request " << id;
        }
    }

    // Let everything finish: network back, every download to the end.
    cloud->setNetworkReachable(true);
    ASSERT_TRUE(MainQueue::runUntil([&] { return !manager->paused(); }, std::chrono::seconds(10)));
    for (int round = 0; round < 100 && !(manager->activeFilesDownloads().empty() &&
                                         manager->filesDownloadsQueue().empty());
         ++round) {
        for (const auto& file : downloading()) {
            cloud->advanceDownload(documentURL(file), 100);
        }
        quiesce();
        manager->startNextFileDownloadIfPossible();
        quiesce();
    }
    EXPECT_TRUE(manager->activeFilesDownloads().empty());
    EXPECT_TRUE(manager->filesDownloadsQueue().empty());
    std::set<std::string> cancelledPaths;
    for (const auto& [id, r] : state->byId) {
        if (r.cancelled || r.dropped) {
            cancelledPaths.insert(documentPath(r.name));
            EXPECT_LE(r.endings, 1) << "request " << id;
        } else {
            EXPECT_EQ(r.endings, 1) << "request " << id;
        }
    }
    // Only the paths of cancelled requests may stay accepted.
    for (const auto& path : manager->downloadingItemsPaths()) {
        EXPECT_TRUE(cancelledPaths.contains(path)) << path;
    }
    EXPECT_EQ(state->offMainThread, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Seeds, QNiCloudDownloadsManagerRandomTest,
    ::testing::ValuesIn(std::getenv("QN_RANDOM_DOWNLOADS_SEED") != nullptr
                            ? std::vector{fromEnvironment("QN_RANDOM_DOWNLOADS_SEED", 1)}
                            : std::vector{1u, 2u}));

}  // namespace
}  // namespace qn::test
