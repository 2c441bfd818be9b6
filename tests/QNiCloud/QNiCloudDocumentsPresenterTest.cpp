#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <latch>
#include <stdexcept>
#include <thread>

#include "PresenterFixture.h"
#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/Exception.h"
#include "qn/FileCoordinator.h"

namespace qn::test {
namespace {

using Presenter = QNiCloudDocumentsPresenter;

std::size_t registrations(const std::shared_ptr<Presenter>& presenter) {
    const auto presenters = FileCoordinator::filePresenters();
    return static_cast<std::size_t>(std::count(presenters.begin(), presenters.end(),
                                               std::shared_ptr<FilePresenter>(presenter)));
}

class QNiCloudDocumentsPresenterTest : public PresenterFixture {};

TEST_F(QNiCloudDocumentsPresenterTest, DefaultPresenterIsReplacedAndUnregistered) {
    installCloud(std::nullopt);
    EXPECT_FALSE(Presenter::hasDefaultPresenter());
    EXPECT_EQ(Presenter::defaultPresenter(), nullptr);
    const auto first = makePresenter();
    first->registerForFileChangesNotifications();
    first->registerForFileChangesNotifications();
    EXPECT_EQ(registrations(first), 1u);
    Presenter::setDefaultPresenter(first);
    Presenter::setDefaultPresenter(first);  // the same again: stays registered
    EXPECT_EQ(registrations(first), 1u);
    EXPECT_TRUE(Presenter::hasDefaultPresenter());

    // Replacing the default drops the old one's waiting work and waits for its running work,
    // serving that work's calls to the main thread and to the default presenter meanwhile. From
    // the old one's own queue it is refused and changes nothing.
    std::atomic<bool> started{false};
    std::latch proceed(1);
    bool finished = false, droppedRan = false;
    std::shared_ptr<Presenter> seenDefault;
    const auto queue = first->presentedItemOperationQueue();
    queue->addOperationWithBlock([&] {
        EXPECT_THROW(Presenter::setDefaultPresenter(nullptr), InternalInconsistencyException);
        started = true;
        proceed.wait();
        seenDefault = Presenter::defaultPresenter();
        MainQueue::sync([&] { finished = true; });
    });
    queue->addOperationWithBlock([&] { droppedRan = true; });
    while (!started) {
        std::this_thread::yield();
    }
    EXPECT_EQ(Presenter::defaultPresenter(), first);
    const auto second = makePresenter();
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        proceed.count_down();
    });
    Presenter::setDefaultPresenter(second);
    release.join();
    EXPECT_TRUE(finished);
    EXPECT_FALSE(droppedRan);
    EXPECT_EQ(seenDefault, second);
    EXPECT_EQ(registrations(first), 0u);
    EXPECT_EQ(registrations(second), 0u);
    EXPECT_EQ(Presenter::defaultPresenter(), second);

    Presenter::setDefaultPresenter(nullptr);
    EXPECT_FALSE(Presenter::hasDefaultPresenter());
}

TEST_F(QNiCloudDocumentsPresenterTest, SetsUpOnlyOffTheMainThreadAndWithAnAccount) {
    installCloud(std::nullopt);
    const auto presenter = makePresenter();
    // No account at start: the info line only, no notification.
    for (const auto& line : log.lines()) {
        EXPECT_TRUE(line.level == LogLevel::Debug || line.message == kNoTokens) << line.message;
    }
    settleMainQueue();
    EXPECT_TRUE(received.empty());
    log.clear();
    EXPECT_FALSE(presenter->setupiCloudContainerIfSafeAndNecessary());
    EXPECT_FALSE(setupInBackground(presenter));
    EXPECT_TRUE(log.lines().empty());

    // Signing in reaches the presenter on the main thread, where set-up declines (as the account
    // state test shows); a background caller sets up.
    cloud->signIn("alice@example.com");
    ASSERT_TRUE(waitForLog(LogLevel::Debug, kQueueDrained));
    EXPECT_FALSE(presenter->setupiCloudContainerIfSafeAndNecessary());
    settleMainQueue();
    received.clear();
    EXPECT_TRUE(setupInBackground(presenter));
    EXPECT_TRUE(home.exists("Mobile Documents/iCloud~com~example~Notes/Documents") &&
                home.exists("Support/iCloudMetadata"));
    settleMainQueue();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].notification.name, QNiCloudDidInitializeContainerNotification);
    EXPECT_EQ(received[0].notification.object, presenter);
    EXPECT_EQ(*received[0].notification.userInfo.urlForKey(QNiCloudContainerURLKey),
              presenter->containerURL());

    log.clear();
    EXPECT_TRUE(presenter->setupiCloudContainerIfSafeAndNecessary());  // already set up
    EXPECT_TRUE(setupInBackground(presenter));
    EXPECT_TRUE(log.lines().empty());
    settleMainQueue();
    EXPECT_EQ(received.size(), 1u);

    // A container the platform does not know: a warning, and nothing is set up or announced.
    const auto unknown = makePresenter("iCloud.com.example.No/Such");
    received.clear();
    EXPECT_FALSE(setupInBackground(unknown));
    EXPECT_EQ(
        log.count(LogLevel::Warn, "Unable to setup container, because iCloud became unavailable."),
        2u);  // at creation and now
    EXPECT_FALSE(unknown->isContainerInitialized());
    EXPECT_FALSE(home.exists("Mobile Documents/iCloud~com~example~No"));
    settleMainQueue();
    EXPECT_TRUE(received.empty());
}

TEST_F(QNiCloudDocumentsPresenterTest, RepairsAContainerURLThePlatformSpellsDifferently) {
    installCloud(std::nullopt);
    const URL generated = QNiCloudContainerURLFromIdentifier(kContainer);
    home.mkdir("Mobile Documents/iCloud~com~example~Notes");
    const URL link = URL::fileURLWithPath(home.symlink("Link", generated.path()), true);
    cloud->setContainerURL(kContainer, link);

    const auto presenter = makePresenter();
    const URL documents = presenter->documentsDirectoryURL();
    presenter->registerForFileChangesNotifications();
    cloud->signIn("alice@example.com");
    ASSERT_TRUE(waitForLog(LogLevel::Debug, kQueueDrained));
    EXPECT_TRUE(setupInBackground(presenter));
    // Whichever set-up found the new spelling (this one or the cache query's own), the query is
    // started again once the work it cancelled has drained.
    EXPECT_TRUE(waitForLog(LogLevel::Debug, "Initial iCloud files tree query started."));
    settleMainQueue();
    std::erase_if(received, [](const Received& r) {
        return r.notification.name != QNiCloudDidInitializeContainerNotification;
    });
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].notification.userInfo.urlForKey(QNiCloudContainerURLKey)->path(),
              link.path());

    EXPECT_TRUE(log.contains(
        LogLevel::Warn,
        fmt::format("Manually generated container URL '{}' differs from container URL '{}' "
                    "returned from URLForUbiquityContainerIdentifier:. Reparing...",
                    generated, link)));
    EXPECT_EQ(presenter->containerURL().path(), link.path());
    EXPECT_EQ(presenter->documentsDirectoryURL(), documents);
    EXPECT_EQ(registrations(presenter), 1u);
    // Classification follows the repaired container at once.
    EXPECT_TRUE(presenter->isiCloudItemPath(link.path() + "/Documents/a.txt"));
    EXPECT_FALSE(presenter->isiCloudItemPath(generated.path() + "/Documents/a.txt"));
    presenter->unregisterFromFileChangesNotifications();
}

TEST_F(QNiCloudDocumentsPresenterTest, ChecksDocumentsAccessAndMapsThreadPriorityOntoQuality) {
    installCloud(std::nullopt);
    const auto presenter = makePresenter();
    EXPECT_FALSE(presenter->canAccessDocumentsDirectory());
    EXPECT_TRUE(log.lines().back().message.starts_with(
        "Failed to get Documents directory attributes. Error: Error Domain="));
    presenter->createDefaultDirectories();
    EXPECT_TRUE(presenter->canAccessDocumentsDirectory());
    const std::string documents = presenter->documentsDirectoryURL().path();
    ASSERT_EQ(::chmod(documents.c_str(), 0500), 0);
    EXPECT_FALSE(presenter->canAccessDocumentsDirectory());
    ASSERT_EQ(::chmod(documents.c_str(), 0700), 0);

    const auto operation = BlockOperation::create([] {});
    const auto qualityFor = [&](double priority) {
        presenter->setThreadPriority(priority);
        presenter->updatePriorityForOperation(*operation);
        return operation->qualityOfService();
    };
    using Q = QualityOfService;
    // Each bound falls into the lower class; beyond 1.0 the index truncates toward zero.
    const std::pair<double, Q> expected[] = {{0.76, Q::UserInteractive}, {0.75, Q::UserInitiated},
                                             {0.5, Q::Utility},          {0.25, Q::Background},
                                             {NAN, Q::Background},       {1.2, Q::UserInteractive}};
    for (const auto& [priority, quality] : expected) {
        EXPECT_EQ(qualityFor(priority), quality) << priority;
    }
    EXPECT_THROW(qualityFor(1.25), std::out_of_range);
    EXPECT_THROW(qualityFor(INFINITY), std::out_of_range);
}

}  // namespace
}  // namespace qn::test
