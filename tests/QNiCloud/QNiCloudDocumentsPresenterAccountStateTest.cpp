#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <latch>
#include <thread>

#include "PresenterFixture.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"

namespace qn::test {
namespace {

class QNiCloudDocumentsPresenterAccountStateTest : public PresenterFixture {
protected:
    std::vector<std::int64_t> postedStates() const {
        std::vector<std::int64_t> states;
        for (const auto& each : received) {
            if (each.notification.name == QNiCloudAccountStateDidChangeNotification) {
                states.push_back(*each.notification.userInfo.int64ForKey(QNiCloudAccountStateKey));
            }
        }
        return states;
    }
};

TEST_F(QNiCloudDocumentsPresenterAccountStateTest, FirstStartWithAnAccountRunsInTheBackground) {
    installCloud("alice@example.com");
    auto presenter = QNiCloudDocumentsPresenter::initWithContainerIdentifier(kContainer);
    // The main thread does not pump: the account is read and the container set up elsewhere.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (log.count(LogLevel::Debug, kQueueDrained) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(log.contains(LogLevel::Info, "iCloud current state is 3."));
    EXPECT_TRUE(presenter->isContainerInitialized());
    EXPECT_TRUE(presenter->isiCloudAvailable());
    EXPECT_TRUE(received.empty());

    settleMainQueue();
    // The reset clears the cache on the spot and again once the old account's work has drained.
    EXPECT_EQ(std::erase_if(received,
                            [](const Received& r) {
                                return r.notification.name == QNiCloudDidClearCacheNotification;
                            }),
              2u);
    ASSERT_EQ(received.size(), 2u);
    // Set-up hands its notification over before the account state is announced.
    EXPECT_EQ(received[0].notification.name, QNiCloudDidInitializeContainerNotification);
    const Notification& state = received[1].notification;
    EXPECT_EQ(postedStates(), std::vector<std::int64_t>{3});
    EXPECT_EQ(state.object, presenter);
    EXPECT_EQ(*state.userInfo.urlForKey(QNiCloudContainerURLKey), presenter->containerURL());
    EXPECT_TRUE(received[0].onMainThread && received[1].onMainThread);
    EXPECT_FALSE(log.contains(LogLevel::Warn, kMainThreadSetup));

    // The presenter lived only as long as its host and its own background work needed it.
    const std::weak_ptr<QNiCloudDocumentsPresenter> weak = presenter;
    presenter.reset();
    received.clear();  // notifications hold their sender
    EXPECT_TRUE(MainQueue::runUntil([&] { return weak.expired(); }, std::chrono::seconds(10)));
}

TEST_F(QNiCloudDocumentsPresenterAccountStateTest, FollowsSwitchesRepeatsAndSignOuts) {
    installCloud("alice@example.com");
    const auto presenter = makePresenter();
    settleMainQueue();
    received.clear();

    // The old account's waiting work is dropped; the restart waits for its running work.
    std::latch started(1), proceed(1);
    bool droppedRan = false;
    const auto queue = presenter->presentedItemOperationQueue();
    queue->addOperationWithBlock([&] {
        started.count_down();
        proceed.wait();
    });
    queue->addOperationWithBlock([&] { droppedRan = true; });
    started.wait();
    cloud->switchAccount("bob@example.com");
    ASSERT_TRUE(waitForLog(LogLevel::Info, "iCloud current state is 2."));
    EXPECT_FALSE(MainQueue::runUntil([&] { return log.count(LogLevel::Debug, kQueueDrained) > 1; },
                                     std::chrono::milliseconds(50)));
    proceed.count_down();
    ASSERT_TRUE(waitForLog(LogLevel::Debug, kQueueDrained, 2));
    EXPECT_FALSE(droppedRan);
    settleMainQueue();
    EXPECT_EQ(postedStates(), std::vector<std::int64_t>{2});
    EXPECT_FALSE(presenter->isContainerInitialized());  // cleared; the main thread declined
    EXPECT_EQ(log.count(LogLevel::Warn, kMainThreadSetup), 1u);
    EXPECT_TRUE(setupInBackground(presenter));

    presenter->ubiquityIdentityDidChange({});  // the same account again
    settleMainQueue();
    EXPECT_TRUE(log.contains(LogLevel::Info, "iCloud current state is 1."));
    EXPECT_EQ(postedStates(), std::vector<std::int64_t>{2});
    EXPECT_TRUE(presenter->isContainerInitialized());

    cloud->signOut();
    ASSERT_TRUE(waitForLog(LogLevel::Debug, kQueueDrained, 3));
    settleMainQueue();
    EXPECT_EQ(postedStates(), (std::vector<std::int64_t>{2, 0}));
    const auto state = std::find_if(received.rbegin(), received.rend(), [](const Received& r) {
        return r.notification.name == QNiCloudAccountStateDidChangeNotification;
    });
    ASSERT_NE(state, received.rend());
    EXPECT_EQ(*state->notification.userInfo.urlForKey(QNiCloudContainerURLKey),
              presenter->containerURL());
    EXPECT_FALSE(presenter->isContainerInitialized());
    EXPECT_EQ(presenter->currentAccountState(), QNiCloudAccountStateUnavailable);

    cloud->signIn("alice@example.com");
    ASSERT_TRUE(waitForLog(LogLevel::Debug, kQueueDrained, 4));
    settleMainQueue();
    EXPECT_EQ(postedStates(), (std::vector<std::int64_t>{2, 0, 3}));
}

}  // namespace
}  // namespace qn::test
