// Requests, cancellations, progress and network changes in a seeded random order, checked
// against what the downloads manager promises: each request ends with exactly one completion or
// error unless its token was cancelled, callbacks come on the main thread, and the queue and the
// active set empty out once the cloud is idle.

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "DownloadsFixture.h"
#include "QNiCloud/QNiCloudBackgroundOperation.h"

namespace qn::test {
namespace {

constexpr int kFiles = 6;
constexpr int kSteps = 1000;

class QNiCloudDownloadsManagerRandomTest : public DownloadsFixture,
                                           public ::testing::WithParamInterface<unsigned> {
protected:
    struct Request {
        std::shared_ptr<QNBackgroundOperation> token;
        std::string name;
        int endings = 0;
        bool cancelled = false;
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
    int nextId = 0;
    for (int step = 0; step < kSteps; ++step) {
        SCOPED_TRACE(fmt::format("seed {} step {}", GetParam(), step));
        const int what = pick(10);
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
        ASSERT_LE(manager->activeFilesDownloads().size(), limit + 1);  // +1: the network's return
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
        if (r.cancelled) {
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

INSTANTIATE_TEST_SUITE_P(Seeds, QNiCloudDownloadsManagerRandomTest, ::testing::Values(1u, 2u));

}  // namespace
}  // namespace qn::test
