#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <thread>
#include <utility>

#include "qn/MainQueue.h"
#include "qn/MetadataQuery.h"
#include "qn/NotificationCenter.h"
#include "qn/UbiquityService.h"

using namespace std::chrono_literals;
using ::testing::ElementsAre;

namespace {

// A service whose feed the test drives by hand.
struct FeedService : qn::UbiquityService {
    std::shared_ptr<qn::MetadataFeedObserver> observer;
    std::vector<std::string> scopes;
    std::atomic<int> stops{0};

    std::uint64_t startMetadataFeed(const std::vector<std::string>& s,
                                    std::shared_ptr<qn::MetadataFeedObserver> o) override {
        scopes = s;
        observer = std::move(o);
        return 7;
    }
    void stopMetadataFeed(std::uint64_t feed) override { stops += feed == 7; }
    std::optional<qn::UbiquityIdentityToken> identityToken() override { return std::nullopt; }
    std::optional<qn::URL> containerURL(std::string_view) override { return std::nullopt; }
    bool startDownloading(const qn::URL&, qn::Error*) override { return false; }
    bool evict(const qn::URL&, qn::Error*) override { return false; }
    std::optional<qn::Value> resourceValue(const qn::URL&, std::string_view, qn::Error*) override {
        return std::nullopt;
    }
    std::vector<qn::FileVersionRecord> otherVersionsOfItem(const qn::URL&) override { return {}; }
    bool setVersionResolved(const qn::URL&, std::string_view, bool, qn::Error*) override {
        return false;
    }
    bool removeVersion(const qn::URL&, std::string_view, qn::Error*) override { return false; }
    std::optional<bool> isNetworkReachable() override { return std::nullopt; }
};

std::shared_ptr<const qn::MetadataItem> item(const char* path, int size = 0) {
    qn::Dictionary values{{qn::NSMetadataItemFSSizeKey, qn::Value(size)}};
    if (path) {
        values.set(qn::NSMetadataItemPathKey, qn::Value(path));
    }
    return std::make_shared<qn::MetadataItem>(std::move(values));
}

std::vector<std::string> paths(const qn::MetadataQuery& query) {
    std::vector<std::string> result;
    query.enumerateResultsUsingBlock(
        [&](const auto& r, std::size_t, bool&) { result.push_back(r->path()); });
    return result;
}

class MetadataQueryTest : public testing::Test {
protected:
    void SetUp() override {
        qn::UbiquityService::setCurrent(service);
        query->setSearchScopes({qn::NSMetadataQueryUbiquitousDocumentsScope});
        query->setPredicate(*qn::MetadataPredicate::predicateWithFormat("%K like \"*\"",
                                                                        qn::NSMetadataItemPathKey));
        for (const char* name : {qn::NSMetadataQueryDidStartGatheringNotification,
                                 qn::NSMetadataQueryGatheringProgressNotification,
                                 qn::NSMetadataQueryDidFinishGatheringNotification,
                                 qn::NSMetadataQueryDidUpdateNotification}) {
            observations.push_back(qn::NotificationCenter::defaultCenter().addObserver(
                name, query.get(), [this](const qn::Notification& n) {
                    EXPECT_TRUE(qn::MainQueue::isMainThread());
                    EXPECT_EQ(n.object, query);
                    received.push_back(n.name);
                    counts.push_back(query->resultCount());
                }));
        }
    }
    void TearDown() override { qn::UbiquityService::setCurrent(nullptr); }

    // Starts the query and gathers `batches` from a worker thread, as a service would.
    void gather(std::vector<std::vector<std::shared_ptr<const qn::MetadataItem>>> batches) {
        ASSERT_TRUE(query->startQuery());
        std::thread([&] {
            for (auto& batch : batches) {
                service->observer->feedDidGather(batch);
            }
            service->observer->feedDidFinishGathering();
        }).join();
        ASSERT_TRUE(qn::MainQueue::runUntil([&] { return !query->isGathering(); }, 5s));
        qn::MainQueue::drain();
    }

    std::shared_ptr<FeedService> service = std::make_shared<FeedService>();
    std::shared_ptr<qn::MetadataQuery> query = std::make_shared<qn::MetadataQuery>();
    std::vector<qn::NotificationCenter::Observation> observations;
    std::vector<std::string> received;
    std::vector<std::size_t> counts;  // result count seen by each notification's observer
};

TEST_F(MetadataQueryTest, GatheringReportsEachBatchThenFinishesOnTheMainThread) {
    gather({{item("/D/a"), item(nullptr)}, {item("/D/b"), item("/D/a", 5)}});
    EXPECT_THAT(service->scopes, ElementsAre(qn::NSMetadataQueryUbiquitousDocumentsScope));
    EXPECT_THAT(received, ElementsAre(qn::NSMetadataQueryDidStartGatheringNotification,
                                      qn::NSMetadataQueryGatheringProgressNotification,
                                      qn::NSMetadataQueryGatheringProgressNotification,
                                      qn::NSMetadataQueryDidFinishGatheringNotification));
    // The item without a path fails the predicate; a second report of /D/a replaces it in place.
    EXPECT_THAT(counts, ElementsAre(0, 1, 2, 2));
    EXPECT_THAT(paths(*query), ElementsAre("/D/a", "/D/b"));
    EXPECT_EQ(*query->resultAtIndex(0)->values().int64ForKey(qn::NSMetadataItemFSSizeKey), 5);
    EXPECT_FALSE(query->startQuery());
}

// Changes are reported one interval after the first unreported one arrived, however they were
// held up: queued behind gathering, or waiting for updates to be enabled again. An armed report
// that falls due while updates are disabled waits too.
TEST_F(MetadataQueryTest, ChangesAreBatchedFromTheFirstOneWhateverHeldThemUp) {
    query->setNotificationBatchingInterval(0.5);
    const auto updates = [&] {
        return std::count(received.begin(), received.end(),
                          qn::NSMetadataQueryDidUpdateNotification);
    };
    ASSERT_TRUE(query->startQuery());
    std::thread([&] {
        service->observer->feedDidGather({item("/D/a")});
        service->observer->feedDidFinishGathering();
        service->observer->feedDidChange({item("/D/b")}, {});
    }).join();
    ASSERT_TRUE(qn::MainQueue::runUntil([&] { return !query->isGathering(); }, 5s));
    qn::MainQueue::runFor(50ms);
    service->observer->feedDidChange({item("/D/c")}, {});
    ASSERT_TRUE(qn::MainQueue::runUntil([&] { return updates() == 1; }, 5s));
    EXPECT_THAT(paths(*query), ElementsAre("/D/a", "/D/b", "/D/c"));

    // Held changes merge into one update: a reported item takes its new values, removed ones go.
    service->observer->feedDidChange({item("/D/b", 9), item("/D/d")}, {"/D/a"});
    std::thread([&] { query->disableUpdates(); }).join();
    service->observer->feedDidChange({}, {"/D/c"});
    qn::MainQueue::runFor(600ms);
    EXPECT_EQ(updates(), 1);
    EXPECT_THAT(paths(*query), ElementsAre("/D/a", "/D/b", "/D/c"));
    query->enableUpdates();  // overdue: reported at once
    ASSERT_TRUE(qn::MainQueue::runUntil([&] { return updates() == 2; }, 5s));
    EXPECT_THAT(paths(*query), ElementsAre("/D/b", "/D/d"));
    EXPECT_EQ(*query->resultAtIndex(0)->values().int64ForKey(qn::NSMetadataItemFSSizeKey), 9);

    query->disableUpdates();
    service->observer->feedDidChange({item("/D/e")}, {});
    query->enableUpdates();
    qn::MainQueue::runFor(50ms);
    service->observer->feedDidChange({item("/D/f")}, {});
    ASSERT_TRUE(qn::MainQueue::runUntil([&] { return updates() == 3; }, 5s));
    qn::MainQueue::runFor(600ms);
    EXPECT_EQ(updates(), 3);
    EXPECT_THAT(paths(*query), ElementsAre("/D/b", "/D/d", "/D/e", "/D/f"));
}

// An observer that throws leaves the pumping call; the query goes on at the next turn.
TEST_F(MetadataQueryTest, AThrowingObserverDoesNotStallTheQuery) {
    bool thrown = false;
    auto thrower = qn::NotificationCenter::defaultCenter().addObserver(
        qn::NSMetadataQueryGatheringProgressNotification, query.get(), [&](const auto&) {
            if (!std::exchange(thrown, true)) {
                throw std::runtime_error("observer failed");
            }
        });
    query->setNotificationBatchingInterval(0);
    ASSERT_TRUE(query->startQuery());
    service->observer->feedDidGather({item("/D/a")});
    service->observer->feedDidFinishGathering();
    service->observer->feedDidChange({item("/D/b")}, {});
    EXPECT_THROW(qn::MainQueue::runFor(50ms), std::runtime_error);
    ASSERT_TRUE(qn::MainQueue::runUntil([&] { return query->resultCount() == 2; }, 5s));
    EXPECT_FALSE(query->isGathering());
    EXPECT_EQ(received.back(), qn::NSMetadataQueryDidUpdateNotification);
}

TEST_F(MetadataQueryTest, AStoppedQueryKeepsItsResultsAndFallsSilent) {
    gather({{item("/D/a")}});
    received.clear();
    query->setNotificationBatchingInterval(0);
    service->observer->feedDidChange({item("/D/b")}, {});
    query->stopQuery();
    qn::MainQueue::runFor(50ms);
    EXPECT_TRUE(received.empty());
    EXPECT_TRUE(query->isStopped());
    EXPECT_EQ(service->stops, 1);
    EXPECT_THAT(paths(*query), ElementsAre("/D/a"));
    EXPECT_THROW(query->resultAtIndex(1), std::out_of_range);
}

// A walk sees the results as they were when it began; what arrives meanwhile is applied once it
// ends. A result replaced again and again is still found by its path.
TEST_F(MetadataQueryTest, AWalkFreezesTheResultsUntilItEnds) {
    gather({{item("/D/a"), item("/D/b")}});
    query->setNotificationBatchingInterval(0);
    const auto updates = [&] {
        return std::count(received.begin(), received.end(),
                          qn::NSMetadataQueryDidUpdateNotification);
    };
    std::vector<std::string> walked;
    query->enumerateResultsUsingBlock([&](const auto& result, std::size_t, bool&) {
        walked.push_back(result->path());
        if (walked.size() == 1) {
            service->observer->feedDidChange({item("/D/a", 1), item("/D/c")}, {"/D/b"});
            qn::MainQueue::runFor(20ms);
            EXPECT_EQ(query->resultAtIndex(1)->path(), "/D/b");
        }
    });
    EXPECT_THAT(walked, ElementsAre("/D/a", "/D/b"));
    ASSERT_TRUE(qn::MainQueue::runUntil([&] { return updates() == 1; }, 5s));
    EXPECT_THAT(paths(*query), ElementsAre("/D/a", "/D/c"));

    for (int size = 2; size <= 3; ++size) {
        service->observer->feedDidChange({item("/D/a", size)}, {});
        ASSERT_TRUE(qn::MainQueue::runUntil([&] { return updates() == size; }, 5s));
    }
    EXPECT_THAT(paths(*query), ElementsAre("/D/a", "/D/c"));
    EXPECT_EQ(*query->resultAtIndex(0)->values().int64ForKey(qn::NSMetadataItemFSSizeKey), 3);
    service->observer->feedDidChange({}, {"/D/a"});
    ASSERT_TRUE(qn::MainQueue::runUntil([&] { return updates() == 4; }, 5s));
    EXPECT_THAT(paths(*query), ElementsAre("/D/c"));
}

TEST(MetadataPredicateTest, LikePatternsMatchTheAttributeText) {
    const auto hasPath =
        qn::MetadataPredicate::predicateWithFormat("%K like \"*\"", qn::NSMetadataItemPathKey);
    ASSERT_TRUE(hasPath);
    EXPECT_TRUE(hasPath->evaluate(*item("")));
    EXPECT_FALSE(hasPath->evaluate(*item(nullptr)));
    const auto pages = qn::MetadataPredicate::predicateWithFormat("%K LIKE \"/D/*.p?ges\"",
                                                                  qn::NSMetadataItemPathKey);
    ASSERT_TRUE(pages);
    EXPECT_TRUE(pages->evaluate(*item("/D/x/y.pages")));
    EXPECT_FALSE(pages->evaluate(*item("/D/y.pagesx")));
    // A "*" in the text does not stop the pattern's "*" from matching a run (found by fuzzing).
    const qn::MetadataPredicate starred(qn::NSMetadataItemPathKey, "*:?*");
    EXPECT_TRUE(starred.evaluate(*item("x*:y")));
    EXPECT_TRUE(qn::MetadataPredicate(qn::NSMetadataItemPathKey, "*a").evaluate(*item("*ba")));
    EXPECT_FALSE(qn::MetadataPredicate::predicateWithFormat("%K == 1", "k"));
}

}  // namespace
