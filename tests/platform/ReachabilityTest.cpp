#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <vector>

#include "platform/NetlinkRouteMonitor.h"
#include "qn/MainQueue.h"
#include "qn/NotificationCenter.h"
#include "qn/QNReachability.h"
#include "qn/UbiquityService.h"

namespace {

using namespace std::chrono_literals;
using Snapshot = qn::NetlinkRouteMonitor::Snapshot;

/// A simulated network whose reachability the test sets.
struct FakeService : qn::UbiquityService {
    std::atomic<bool> reachable{true};

    void setReachable(bool value) {
        reachable = value;
        auto self = shared_from_this();
        qn::MainQueue::async([self] {
            qn::NotificationCenter::defaultCenter().post(
                qn::QNUbiquityServiceReachabilityDidChangeNotification, self);
        });
    }

    std::optional<bool> isNetworkReachable() override { return reachable.load(); }
    std::optional<qn::UbiquityIdentityToken> identityToken() override { return std::nullopt; }
    std::optional<qn::URL> containerURL(std::string_view) override { return std::nullopt; }
    bool startDownloading(const qn::URL&, qn::Error*) override { return false; }
    bool evict(const qn::URL&, qn::Error*) override { return false; }
    std::optional<qn::Value> resourceValue(const qn::URL&, std::string_view, qn::Error*) override {
        return std::nullopt;
    }
    std::uint64_t startMetadataFeed(const std::vector<std::string>&,
                                    std::shared_ptr<qn::MetadataFeedObserver>) override {
        return 1;
    }
    void stopMetadataFeed(std::uint64_t) override {}
    std::vector<qn::FileVersionRecord> otherVersionsOfItem(const qn::URL&) override { return {}; }
    bool setVersionResolved(const qn::URL&, std::string_view, bool, qn::Error*) override {
        return false;
    }
    bool removeVersion(const qn::URL&, std::string_view, qn::Error*) override { return false; }
};

class SimulatedReachabilityTest : public ::testing::Test {
protected:
    void SetUp() override {
        qn::UbiquityService::setCurrent(service);
        observation = qn::NotificationCenter::defaultCenter().addObserver(
            kNetworkReachabilityChangedNotification, nullptr, [this](const qn::Notification& n) {
                EXPECT_TRUE(qn::MainQueue::isMainThread());
                senders.push_back(n.object);
            });
    }
    void TearDown() override {
        observation.reset();
        qn::UbiquityService::setCurrent(nullptr);
    }

    /// Pumps long enough for every queued hand-over to run.
    static void settle() { qn::MainQueue::runFor(50ms); }

    std::shared_ptr<FakeService> service = std::make_shared<FakeService>();
    std::vector<std::shared_ptr<qn::Object>> senders;
    qn::NotificationCenter::Observation observation;
};

TEST_F(SimulatedReachabilityTest, StatusFollowsTheSimulatedNetworkWithoutANotifier) {
    const auto reachability = QNReachability::reachabilityForInternetConnection();
    EXPECT_EQ(reachability->currentReachabilityStatus(), ReachableViaWiFi);
    service->reachable = false;
    EXPECT_EQ(reachability->currentReachabilityStatus(), NotReachable);
    settle();
    EXPECT_TRUE(senders.empty());
}

TEST_F(SimulatedReachabilityTest, NotifiesEachRealChangeOnceUntilStopped) {
    const auto reachability = QNReachability::reachabilityForInternetConnection();
    ASSERT_TRUE(reachability->startNotifier());
    EXPECT_TRUE(reachability->startNotifier());  // a second start must not double the posts

    service->setReachable(true);  // the status it started with: no change
    settle();
    EXPECT_TRUE(senders.empty());

    service->setReachable(false);
    ASSERT_TRUE(qn::MainQueue::runUntil([&] { return !senders.empty(); }, 5s));
    service->setReachable(false);
    settle();
    ASSERT_EQ(senders.size(), 1u);
    EXPECT_EQ(senders[0], reachability);
    EXPECT_EQ(reachability->currentReachabilityStatus(), NotReachable);

    service->setReachable(true);
    settle();
    EXPECT_EQ(senders.size(), 2u);

    // A change already queued when the notifier stops is not reported.
    service->setReachable(false);
    reachability->stopNotifier();
    service->setReachable(true);
    settle();
    EXPECT_EQ(senders.size(), 2u);
}

TEST_F(SimulatedReachabilityTest, AMonitorReleasedWithAChangeQueuedPostsNothing) {
    auto reachability = QNReachability::reachabilityForInternetConnection();
    ASSERT_TRUE(reachability->startNotifier());
    service->setReachable(false);
    reachability.reset();
    settle();
    EXPECT_TRUE(senders.empty());
}

TEST(ReachabilityDecisionTest, NeedsADefaultRouteThroughAnUsableInterface) {
    constexpr unsigned up = IFF_UP | IFF_RUNNING;
    const Snapshot::Interface loopback{1, up | IFF_LOOPBACK, true};
    const Snapshot::Interface ethernet{2, up, true};

    EXPECT_FALSE(qn::NetlinkRouteMonitor::isReachable({}));
    EXPECT_FALSE(qn::NetlinkRouteMonitor::isReachable({{loopback}, {1}}));
    EXPECT_FALSE(qn::NetlinkRouteMonitor::isReachable({{loopback, ethernet}, {}}));
    EXPECT_TRUE(qn::NetlinkRouteMonitor::isReachable({{loopback, ethernet}, {2}}));
    // A route naming no interface (a nexthop object) leaves through any usable one.
    EXPECT_TRUE(qn::NetlinkRouteMonitor::isReachable({{loopback, ethernet}, {0}}));
    EXPECT_FALSE(qn::NetlinkRouteMonitor::isReachable({{loopback}, {0}}));

    EXPECT_FALSE(qn::NetlinkRouteMonitor::isReachable({{{2, 0, true}}, {2}}));       // down
    EXPECT_FALSE(qn::NetlinkRouteMonitor::isReachable({{{2, IFF_UP, true}}, {2}}));  // no carrier
    EXPECT_FALSE(qn::NetlinkRouteMonitor::isReachable({{{2, up, false}}, {2}}));     // no address
    // The route out must use the usable interface, not a dead one next to it.
    EXPECT_FALSE(qn::NetlinkRouteMonitor::isReachable({{ethernet, {3, 0, true}}, {3}}));
}

TEST(MachineReachabilityTest, ReadersAgreeAndTheNotifierJoinsItsThread) {
    const auto snapshot = qn::NetlinkRouteMonitor::readNetlink();
    if (!snapshot) {
        GTEST_SKIP() << "no rtnetlink on this machine";
    }
    // Every network namespace has a loopback interface, so both readers must see one.
    auto hasLoopback = [](const Snapshot& s) {
        return std::any_of(s.interfaces.begin(), s.interfaces.end(),
                           [](const auto& i) { return (i.flags & IFF_LOOPBACK) != 0; });
    };
    const auto fallback = qn::NetlinkRouteMonitor::readWithoutNetlink();
    EXPECT_TRUE(hasLoopback(*snapshot));
    EXPECT_TRUE(hasLoopback(fallback));
    EXPECT_EQ(qn::NetlinkRouteMonitor::isReachable(*snapshot),
              qn::NetlinkRouteMonitor::isReachable(fallback));

    const auto reachability = QNReachability::reachabilityForInternetConnection();
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(reachability->startNotifier());
        qn::MainQueue::runFor(10ms);
        reachability->stopNotifier();
    }
    ASSERT_TRUE(reachability->startNotifier());  // the destructor stops this one
}

}  // namespace
