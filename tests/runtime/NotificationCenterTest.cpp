#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "qn/Exception.h"
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
    // A token keeps its registration when moved, and ends it when reset.
    calls.clear();
    center.removeObserver(&owner);
    qn::NotificationCenter::Observation moved = std::move(anyFromB);
    anyFromB = {};  // the moved-from token ends nothing
    const qn::Dictionary info{{"k", qn::Value(3)}};
    center.post("X", b, info);
    EXPECT_THAT(calls, ElementsAre("any/b:X"));
    moved = {};
    EXPECT_FALSE(moved);
    center.post("X", b, info);
    EXPECT_THAT(calls, ElementsAre("any/b:X"));
}

TEST(NotificationCenterTest, ObserversMayRemoveObserversAndPostAgainDuringDelivery) {
    qn::NotificationCenter center;
    int first = 0, second = 0, third = 0;
    std::vector<std::string> calls;
    center.addObserver(&first, "N", nullptr, [&](const qn::Notification&) {
        calls.push_back("first");
        center.removeObserver(&first);
        center.removeObserver(&third);
        center.post("inner");
    });
    center.addObserver(&second, "N", nullptr,
                       [&](const qn::Notification&) { calls.push_back("second"); });
    center.addObserver(&third, "N", nullptr,
                       [&](const qn::Notification&) { calls.push_back("third"); });
    center.addObserver(&second, "inner", nullptr,
                       [&](const qn::Notification&) { calls.push_back("inner"); });
    center.post("N");
    center.post("N");
    EXPECT_THAT(calls, ElementsAre("first", "inner", "second", "second"));
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

TEST(NotificationCenterTest, TwoThreadsRemovingEachOthersRunningObserverGetAnErrorNotAHang) {
    qn::NotificationCenter center;
    int ownerA = 0, ownerB = 0;
    std::latch bothInside(2);
    std::atomic<int> refused{0};
    auto removeOther = [&](const void* other) {
        bothInside.arrive_and_wait();
        try {
            center.removeObserver(other);
        } catch (const qn::InternalInconsistencyException&) {
            ++refused;
        }
    };
    center.addObserver(&ownerA, "A", nullptr,
                       [&](const qn::Notification&) { removeOther(&ownerB); });
    center.addObserver(&ownerB, "B", nullptr,
                       [&](const qn::Notification&) { removeOther(&ownerA); });
    std::thread a([&] { center.post("A"); });
    std::thread b([&] { center.post("B"); });
    a.join();
    b.join();
    // One removal closes the cycle and is refused; the other then waits for it and succeeds.
    EXPECT_EQ(refused, 1);
    int calls = 0;
    center.addObserver(&calls, "", nullptr, [&](const qn::Notification&) { ++calls; });
    center.post("A");
    center.post("B");
    EXPECT_EQ(calls, 2);  // both registrations are gone all the same
}

}  // namespace
