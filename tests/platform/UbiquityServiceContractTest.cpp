// What every ubiquity service promises, checked against each backend: the service with no
// account, the simulated cloud and the embedded drive, each signed out and signed in.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "qn/DirectoryStore.h"
#include "qn/DriveService.h"
#include "qn/FileAttributes.h"
#include "qn/MetadataAttributes.h"
#include "qn/SimulatedCloud.h"
#include "qn/UbiquityErrors.h"
#include "qn/UbiquityService.h"
#include "qn/util/ContainerHelpers.h"
#include "support/TemporaryDirectory.h"

namespace {

constexpr const char* kContainer = "iCloud.com.example.Contract";

struct Backend {
    std::string name;
    // A service whose containers live in `driveDirectory`; `scratch` is its to use.
    std::function<std::shared_ptr<qn::UbiquityService>(const std::string& driveDirectory,
                                                       const std::string& scratch)>
        make;
    bool signedIn = false;
};

// Names the backend in test listings, which would otherwise show its bytes.
std::ostream& operator<<(std::ostream& stream, const Backend& backend) {
    return stream << backend.name;
}

// A drive device on a directory store of its own, signed in to "someone" or not.
std::shared_ptr<qn::UbiquityService> makeDrive(const std::string& driveDirectory,
                                               const std::string& scratch, bool signedIn) {
    qn::DirectoryStore::create(scratch + "/store", nullptr);
    auto store = qn::DirectoryStore::open(scratch + "/store");
    store->addAccount("someone", nullptr);
    qn::DriveService::Options options;
    options.deviceDirectory = scratch + "/device";
    options.driveDirectory = driveDirectory;
    options.store = store;
    options.pollInterval = std::chrono::milliseconds(20);
    auto drive = qn::DriveService::open(options, nullptr);
    if (signedIn) {
        drive->signIn("someone", nullptr);
    }
    return drive;
}

class CountingObserver : public qn::MetadataFeedObserver {
public:
    void feedDidGather(std::vector<std::shared_ptr<const qn::MetadataItem>>) override {
        EXPECT_EQ(finished, 0) << "gathering after its end";
        ++gathered;
    }
    void feedDidFinishGathering() override { ++finished; }
    void feedDidChange(std::vector<std::shared_ptr<const qn::MetadataItem>>,
                       std::vector<std::string>) override {
        EXPECT_EQ(finished, 1) << "a change before gathering ended";
        ++changed;
    }
    int gathered = 0;
    int finished = 0;
    int changed = 0;
};

class UbiquityServiceContractTest : public ::testing::TestWithParam<Backend> {
protected:
    UbiquityServiceContractTest() {
        qn::setUbiquityDriveDirectory(root.pathOf("Mobile Documents"));
        qn::UbiquityService::setCurrent(
            GetParam().make(root.pathOf("Mobile Documents"), root.pathOf("scratch")));
        service = qn::UbiquityService::current();
        missing = QNiCloudContainerURLFromIdentifier(kContainer)
                      .URLByAppendingPathComponent("Documents/missing.txt");
    }
    ~UbiquityServiceContractTest() override {
        qn::UbiquityService::setCurrent(nullptr);
        qn::setUbiquityDriveDirectory("");
    }

    // Lets a backend that delivers on request deliver what it queued, and one that works on
    // its own finish what it knows of.
    void deliver() {
        if (auto cloud = std::dynamic_pointer_cast<qn::SimulatedCloud>(service)) {
            cloud->deliverQueryBatches();
        }
        if (auto drive = std::dynamic_pointer_cast<qn::DriveService>(service)) {
            ASSERT_TRUE(drive->waitUntilIdle(std::chrono::seconds(10)));
        }
    }

    qn::test::TemporaryDirectory root;
    std::shared_ptr<qn::UbiquityService> service;
    // Inside a container, so that a signed-in service knows where it is and reports no item.
    qn::URL missing;
};

TEST_P(UbiquityServiceContractTest, AccountAndContainerGoTogetherAndUnknownItemsFailNamingThem) {
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(service->identityToken().has_value(), GetParam().signedIn);
    const auto container = service->containerURL(kContainer);
    EXPECT_EQ(container.has_value(), GetParam().signedIn);
    EXPECT_EQ(container && std::filesystem::is_directory(container->path()), GetParam().signedIn);

    const auto expectFailure = [&](const char* call, const std::function<bool(qn::Error*)>& f) {
        qn::Error error;
        EXPECT_FALSE(f(&error)) << call;
        EXPECT_EQ(error.domain(), qn::NSCocoaErrorDomain) << call;
        EXPECT_EQ(error.code(), GetParam().signedIn ? qn::NSFileReadNoSuchFileError
                                                    : qn::NSUbiquitousFileUnavailableError)
            << call;
        const qn::URL* named = error.userInfo().urlForKey(qn::NSURLErrorKey);
        EXPECT_TRUE(named != nullptr && *named == missing) << call << ": " << error.description();
        EXPECT_FALSE(f(nullptr)) << call << " without an error pointer";
    };
    expectFailure("startDownloading",
                  [&](qn::Error* e) { return service->startDownloading(missing, e); });
    expectFailure("evict", [&](qn::Error* e) { return service->evict(missing, e); });
    expectFailure("setVersionResolved",
                  [&](qn::Error* e) { return service->setVersionResolved(missing, "1", true, e); });
    expectFailure("removeVersion",
                  [&](qn::Error* e) { return service->removeVersion(missing, "1", e); });

    qn::Error error;
    EXPECT_EQ(service->resourceValue(missing, qn::NSURLUbiquitousItemIsUploadedKey, &error),
              std::nullopt);
    EXPECT_FALSE(error) << "no value is no error";
    EXPECT_TRUE(service->otherVersionsOfItem(missing).empty());
}

TEST_P(UbiquityServiceContractTest, FeedsGatherThenFinishAndFallSilentWhenStopped) {
    auto first = std::make_shared<CountingObserver>();
    auto second = std::make_shared<CountingObserver>();
    const std::vector<std::string> scopes{qn::NSMetadataQueryUbiquitousDocumentsScope};
    const std::uint64_t one = service->startMetadataFeed(scopes, first);
    const std::uint64_t two = service->startMetadataFeed(scopes, second);
    EXPECT_TRUE(one != 0 && two != 0 && one != two) << one << " " << two;
    deliver();
    EXPECT_GE(first->gathered, 1);
    EXPECT_EQ(first->finished, 1);

    service->stopMetadataFeed(one);
    service->stopMetadataFeed(one);  // twice is harmless
    const qn::URL added =
        missing.URLByDeletingLastPathComponent().URLByAppendingPathComponent("new");
    if (auto cloud = std::dynamic_pointer_cast<qn::SimulatedCloud>(service)) {
        cloud->setItem(added, {});
    } else if (GetParam().signedIn) {
        std::filesystem::create_directories(added.URLByDeletingLastPathComponent().path());
        std::ofstream(added.path()) << "new";
    }
    deliver();
    EXPECT_EQ(first->changed, 0);
    EXPECT_EQ(second->changed > 0, GetParam().signedIn);
    EXPECT_EQ(first.use_count(), 1) << "a stopped feed's observer is released";
    service->stopMetadataFeed(two);
}

INSTANTIATE_TEST_SUITE_P(
    Backends, UbiquityServiceContractTest,
    ::testing::Values(
        // Null must replace a service set before with the one with no account.
        Backend{"NoAccount",
                [](const std::string&, const std::string&) {
                    qn::UbiquityService::setCurrent(qn::SimulatedCloud::create("someone"));
                    return nullptr;
                },
                false},
        Backend{"SimulatedSignedOut",
                [](const std::string&, const std::string&) { return qn::SimulatedCloud::create(); },
                false},
        Backend{"SimulatedSignedIn",
                [](const std::string&, const std::string&) {
                    return qn::SimulatedCloud::create("someone");
                },
                true},
        Backend{"DriveSignedOut",
                [](const std::string& drive, const std::string& scratch) {
                    return makeDrive(drive, scratch, false);
                },
                false},
        Backend{"DriveSignedIn",
                [](const std::string& drive, const std::string& scratch) {
                    return makeDrive(drive, scratch, true);
                },
                true}),
    [](const ::testing::TestParamInfo<Backend>& info) { return info.param.name; });

}  // namespace
