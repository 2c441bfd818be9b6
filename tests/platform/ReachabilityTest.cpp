#include <gtest/gtest.h>
#include <net/if.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include "platform/NetlinkRouteMonitor.h"
#include "qn/MainQueue.h"
#include "qn/NotificationCenter.h"
#include "qn/QNReachability.h"
#include "qn/SimulatedCloud.h"
#include "qn/UbiquityService.h"

namespace {

using namespace std::chrono_literals;
using Snapshot = qn::NetlinkRouteMonitor::Snapshot;

class SimulatedReachabilityTest : public ::testing::Test {
protected:
    void SetUp() override {
        qn::UbiquityService::setCurrent(cloud);
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

    // Sets the simulated network and announces it even when nothing changed, as a service may.
    void setReachable(bool reachable) {
        cloud->setNetworkReachable(reachable);
        qn::NotificationCenter::defaultCenter().post(
            qn::QNUbiquityServiceReachabilityDidChangeNotification, cloud);
    }
    /// Pumps long enough for every queued hand-over to run.
    static void settle() { qn::MainQueue::runFor(50ms); }

    std::shared_ptr<qn::SimulatedCloud> cloud = qn::SimulatedCloud::create("someone");
    std::vector<std::shared_ptr<qn::Object>> senders;
    qn::NotificationCenter::Observation observation;
};

TEST_F(SimulatedReachabilityTest,
       StatusFollowsTheServiceAndOnlyRealChangesArePostedWhileNotifying) {
    auto reachability = QNReachability::reachabilityForInternetConnection();
    EXPECT_EQ(reachability->currentReachabilityStatus(), ReachableViaWiFi);
    setReachable(false);
    EXPECT_EQ(reachability->currentReachabilityStatus(), NotReachable);
    settle();
    EXPECT_TRUE(senders.empty()) << "no notifier, no notification";

    ASSERT_TRUE(reachability->startNotifier());
    EXPECT_TRUE(reachability->startNotifier());  // a second start must not double the posts
    setReachable(false);                         // the status it started with: no change
    settle();
    EXPECT_TRUE(senders.empty());
    setReachable(true);
    ASSERT_TRUE(qn::MainQueue::runUntil([&] { return !senders.empty(); }, 5s));
    setReachable(true);
    settle();
    ASSERT_EQ(senders.size(), 1u);
    EXPECT_EQ(senders[0], reachability);
    setReachable(false);
    settle();
    EXPECT_EQ(senders.size(), 2u);

    // A change still queued when the notifier stops, or when the monitor goes away, is not posted.
    setReachable(true);
    reachability->stopNotifier();
    settle();
    EXPECT_EQ(senders.size(), 2u);
    ASSERT_TRUE(reachability->startNotifier());
    setReachable(false);
    senders.clear();  // they hold the monitor
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
