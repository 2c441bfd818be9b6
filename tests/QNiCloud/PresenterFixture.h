#pragma once

// A host's surroundings for presenter tests: drive and support directories in a temporary
// directory, a simulated cloud, captured log lines (debug included) and the library's
// notifications as received. The test thread is the main thread and pumps while it waits.

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/CapturingLogSink.h"
#include "qn/MainQueue.h"
#include "qn/NotificationCenter.h"
#include "qn/SimulatedCloud.h"
#include "qn/util/ContainerHelpers.h"
#include "support/TemporaryDirectory.h"

namespace qn::test {

inline constexpr const char* kContainer = "iCloud.com.example.Notes";
inline constexpr const char* kQueueDrained = "Did cancel all running operations.";
inline constexpr const char* kNoTokens =
    "New and old ubiquity identity tokens are nil. Do not post account state change notification.";
inline constexpr const char* kMainThreadSetup =
    "Trying to setup iCloud container on main thread. Skipping.";

class PresenterFixture : public ::testing::Test {
protected:
    struct Received {
        Notification notification;
        bool onMainThread;
    };

    void SetUp() override {
        setUbiquityDriveDirectory(home.pathOf("Mobile Documents"));
        setApplicationSupportDirectory(home.pathOf("Support"));
        Logger::named("iCloud").setLevel(LogLevel::Debug);
        observation = NotificationCenter::defaultCenter().addObserver(
            "", nullptr, [this](const Notification& notification) {
                if (notification.name.starts_with("QNiCloud")) {
                    received.push_back({notification, MainQueue::isMainThread()});
                }
            });
    }

    void TearDown() override {
        QNiCloudDocumentsPresenter::setDefaultPresenter(nullptr);
        MainQueue::drain();
        observation.reset();
        Logger::named("iCloud").setLevel(LogLevel::Info);
        UbiquityService::setCurrent(nullptr);
        setUbiquityDriveDirectory("");
        setApplicationSupportDirectory("");
    }

    void installCloud(std::optional<std::string> account) {
        cloud = SimulatedCloud::create(std::move(account));
        UbiquityService::setCurrent(cloud);
    }

    // A presenter whose first reading of the account, and all that follows it (notifications
    // included), is over.
    std::shared_ptr<QNiCloudDocumentsPresenter> makePresenter(
        std::optional<std::string_view> identifier = kContainer) {
        const bool signedIn = cloud->account().has_value();
        const LogLevel level = signedIn ? LogLevel::Debug : LogLevel::Info;
        const std::string last = signedIn ? kQueueDrained : kNoTokens;
        const std::size_t before = log.count(level, last);
        auto presenter = QNiCloudDocumentsPresenter::initWithContainerIdentifier(identifier);
        EXPECT_TRUE(waitForLog(level, last, before + 1));
        settleMainQueue();  // what it queued for the main thread on the way has arrived
        return presenter;
    }

    bool waitForLog(LogLevel level, const std::string& message, std::size_t count = 1) {
        return MainQueue::runUntil([&] { return log.count(level, message) >= count; },
                                   std::chrono::seconds(10));
    }

    // Runs everything handed to the main thread so far.
    static void settleMainQueue() {
        bool marker = false;
        MainQueue::async([&] { marker = true; });
        MainQueue::runUntil([&] { return marker; }, std::chrono::seconds(10));
    }

    static bool setupInBackground(const std::shared_ptr<QNiCloudDocumentsPresenter>& presenter) {
        return std::async(std::launch::async,
                          [&] { return presenter->setupiCloudContainerIfSafeAndNecessary(); })
            .get();
    }

    TemporaryDirectory home;
    CapturingLogSink log;
    std::shared_ptr<SimulatedCloud> cloud;
    std::vector<Received> received;
    NotificationCenter::Observation observation;
};

}  // namespace qn::test
