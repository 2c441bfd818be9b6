#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "qn/NotificationCenter.h"

using namespace std::chrono_literals;
using ::testing::ElementsAre;

namespace {

struct Sender : qn::Object {};

TEST(NotificationCenterTest, ObserversAreChosenByNameAndSender) {
    qn::NotificationCenter center;
    auto a = std::make_shared<Sender>();
    auto b = std::make_shared<Sender>();
    std::vector<std::string> calls;
    int owner = 0;
    center.addObserver(&owner, "X", nullptr, [&](const qn::Notification& n) {
        calls.push_back("X/any:" + std::string(n.object == a ? "a" : "b"));
    });
    center.addObserver(&owner, "X", a.get(),
                       [&](const qn::Notification&) { calls.push_back("X/a"); });
    auto anyFromB = center.addObserver("", b.get(), [&](const qn::Notification& n) {
        calls.push_back("any/b:" + n.name);
        EXPECT_EQ(n.objectAs<Sender>(), b);
        EXPECT_EQ(n.userInfo.size(), 1u);
    });

    center.post("X", a);
    center.post("X", b, qn::Dictionary{{"k", qn::Value(1)}});
    center.post("Y", b, qn::Dictionary{{"k", qn::Value(2)}});
    center.post("Y");
    EXPECT_THAT(calls, ElementsAre("X/any:a", "X/a", "X/any:b", "any/b:X", "any/b:Y"));

    // Removing by owner, name and sender takes only the matching registration.
    calls.clear();
    center.removeObserver(&owner, "X", a.get());
    center.post("X", a);
    EXPECT_THAT(calls, ElementsAre("X/any:a"));
    calls.clear();
    center.removeObserver(&owner);
    anyFromB.reset();
    center.post("X", b);
    EXPECT_TRUE(calls.empty());
}

TEST(NotificationCenterTest, ObserversMayRemoveThemselvesAndOthersDuringDelivery) {
    qn::NotificationCenter center;
    int first = 0, second = 0, third = 0;
    std::vector<std::string> calls;
    center.addObserver(&first, "N", nullptr, [&](const qn::Notification&) {
        calls.push_back("first");
        center.removeObserver(&first);
        center.removeObserver(&third);
    });
    center.addObserver(&second, "N", nullptr,
                       [&](const qn::Notification&) { calls.push_back("second"); });
    center.addObserver(&third, "N", nullptr,
                       [&](const qn::Notification&) { calls.push_back("third"); });
    center.post("N");
    center.post("N");
    EXPECT_THAT(calls, ElementsAre("first", "second", "second"));
}

TEST(NotificationCenterTest, TokenRegistrationLastsAsLongAsItsToken) {
    qn::NotificationCenter center;
    int calls = 0;
    qn::NotificationCenter::Observation kept;
    {
        auto token = center.addObserver("N", nullptr, [&](const qn::Notification&) { ++calls; });
        kept = std::move(token);
    }  // the moved-from token ends nothing
    center.post("N");
    EXPECT_EQ(calls, 1);
    kept = {};
    center.post("N");
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(kept);
}

TEST(NotificationCenterTest, DeliveryRunsOnThePostingThreadAndRemovalWaitsForRunningCalls) {
    qn::NotificationCenter center;
    std::latch entered(1);
    std::latch release(1);
    std::thread::id deliveredOn;
    int owner = 0;
    center.addObserver(&owner, "N", nullptr, [&](const qn::Notification&) {
        deliveredOn = std::this_thread::get_id();
        entered.count_down();
        release.wait();
    });
    std::thread poster([&] { center.post("N"); });
    const auto posterId = poster.get_id();
    entered.wait();
    std::atomic<bool> removed{false};
    std::thread remover([&] {
        center.removeObserver(&owner);
        removed = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(removed) << "removal returned while the observer was still running";
    release.count_down();
    remover.join();
    poster.join();
    EXPECT_TRUE(removed);
    EXPECT_EQ(deliveredOn, posterId);
}

TEST(NotificationCenterTest, ObserversMayPostAgainWhileBeingDelivered) {
    qn::NotificationCenter center;
    std::vector<std::string> calls;
    auto outer = center.addObserver("outer", nullptr, [&](const qn::Notification&) {
        calls.push_back("outer");
        center.post("inner");
    });
    auto inner = center.addObserver("inner", nullptr,
                                    [&](const qn::Notification&) { calls.push_back("inner"); });
    center.post("outer");
    EXPECT_THAT(calls, ElementsAre("outer", "inner"));
}

}  // namespace
