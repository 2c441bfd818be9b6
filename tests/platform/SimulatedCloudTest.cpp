#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qn/FileAttributes.h"
#include "qn/MainQueue.h"
#include "qn/MetadataAttributes.h"
#include "qn/NotificationCenter.h"
#include "qn/PathString.h"
#include "qn/SimulatedCloud.h"
#include "qn/UbiquityErrors.h"
#include "qn/util/ContainerHelpers.h"
#include "qn/util/PathNormalization.h"
#include "support/FeedRecorder.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace std::chrono_literals;
using qn::SimulatedCloud;
using qn::SimulatedDownloadingStatus;
using qn::SimulatedItemState;
using qn::SimulatedLocalCopy;
using qn::test::FeedRecorder;
using ::testing::ElementsAre;

constexpr const char* kContainer = "iCloud.com.example.Notes";

qn::Value attribute(const qn::MetadataItem& item, std::string_view key) {
    const qn::Value* value = item.valueForAttribute(key);
    return value != nullptr ? *value : qn::Value();
}

class SimulatedCloudTest : public ::testing::Test {
protected:
    SimulatedCloudTest() { qn::setUbiquityDriveDirectory(root.pathOf("Mobile Documents")); }
    ~SimulatedCloudTest() override {
        qn::MainQueue::drain();  // no notification of this test reaches the next one
        qn::setUbiquityDriveDirectory("");
    }

    static qn::URL container() { return QNiCloudContainerURLFromIdentifier(kContainer); }
    static qn::URL document(std::string_view name) {
        return container().URLByAppendingPathComponent("Documents/" + std::string(name));
    }
    // Where the drive keeps the document `name`, relative to `root`.
    static std::string local(std::string_view name) {
        return "Mobile Documents/iCloud~com~example~Notes/Documents/" + std::string(name);
    }
    // The latest report the test's observer had of the document `name`.
    std::shared_ptr<const qn::MetadataItem> latest(std::string_view name) {
        return observer->latest(document(name).path());
    }
    void startFeed(const std::shared_ptr<FeedRecorder>& observer) {
        cloud->startMetadataFeed({qn::NSMetadataQueryUbiquitousDocumentsScope}, observer);
    }

    qn::test::TemporaryDirectory root;
    std::shared_ptr<SimulatedCloud> cloud = SimulatedCloud::create("alice@example.com");
    std::shared_ptr<FeedRecorder> observer = std::make_shared<FeedRecorder>();
    qn::Error error;
};

TEST_F(SimulatedCloudTest, AccountChangesGiveTokensAndPostTheIdentityNotification) {
    int posted = 0;
    auto observation = qn::NotificationCenter::defaultCenter().addObserver(
        qn::NSUbiquityIdentityDidChangeNotification, nullptr, [&](const qn::Notification&) {
            EXPECT_TRUE(qn::MainQueue::isMainThread());
            ++posted;
        });
    const auto alice = cloud->identityToken();
    EXPECT_EQ(SimulatedCloud::create("alice@example.com")->identityToken(), alice);

    cloud->signIn("alice@example.com");  // already signed in: nothing changes
    // Another account's token and none when signed out: the presenter's account state test.
    cloud->switchAccount("bob@example.com");
    cloud->signOut();
    cloud->signIn("alice@example.com");
    EXPECT_EQ(cloud->identityToken(), alice);

    EXPECT_EQ(posted, 0) << "posted later, on the main queue";
    qn::MainQueue::drain();
    EXPECT_EQ(posted, 3);
}

TEST_F(SimulatedCloudTest, ContainerAnswersInAnotherSpellingStillNameTheSameItems) {
    // Answering the generated URL unless told otherwise, and a URL that was set, are what every
    // presenter test relies on; a symbolic link to the container the presenter's repair test.
    const qn::URL generated = container();
    EXPECT_EQ(cloud->containerURL("bad/identifier"), std::nullopt);

    // "/private", another letter case and no directory flag: one spelling the platform may use.
    const std::string odd = "/private" + root.pathOf("MOBILE Documents/icloud~com~example~notes");
    cloud->setContainerURL(kContainer, qn::URL::fileURLWithPath(odd, false));

    const qn::URL oddItem = qn::URL::fileURLWithPath(odd + "/Documents/Cafe\u0301.txt", false);
    cloud->setItem(oddItem, SimulatedItemState::downloaded("latte"));
    EXPECT_EQ(root.read(local("Caf\u00e9.txt")), "latte") << "written at the generated location";
    ASSERT_TRUE(cloud->item(document("CAF\u00c9.txt")));
    EXPECT_EQ(cloud->localURL(oddItem), document("Caf\u00e9.txt"));

    EXPECT_THROW(cloud->setItem(root.urlOf("elsewhere.txt"), {}), std::invalid_argument);
    EXPECT_THROW(cloud->setItem(generated, {}), std::invalid_argument) << "a container is no item";
}

TEST_F(SimulatedCloudTest, FeedGathersInBatchesThenFinishesThenReportsMergedChanges) {
    for (const char* name : {"c.txt", "a.txt", "b.txt"}) {
        cloud->setItem(document(name), SimulatedItemState::downloaded(name));
    }
    cloud->setGatheringBatchSize(2);
    startFeed(observer);

    // Changes after the start come after gathering, merged per item, in first-change order.
    cloud->updateItem(document("b.txt"), [](SimulatedItemState& s) { s.uploading = true; });
    cloud->setItem(document("d.txt"), SimulatedItemState::notDownloaded("d"));
    cloud->updateItem(document("b.txt"), [](SimulatedItemState& s) { s.percentUploaded = 50; });
    cloud->removeItem(document("c.txt"));
    EXPECT_TRUE(observer->calls().empty()) << "nothing is delivered unasked";
    EXPECT_EQ(cloud->pendingQueryBatchCount(), 4u);

    EXPECT_EQ(cloud->deliverNextQueryBatch(), 1u);
    EXPECT_THAT(observer->calls(), ElementsAre("gather a.txt b.txt"));
    cloud->deliverQueryBatches();
    EXPECT_THAT(observer->calls(), ElementsAre("gather a.txt b.txt", "gather c.txt", "finish",
                                               "change b.txt d.txt | -c.txt"));
    EXPECT_EQ(attribute(*latest("b.txt"), qn::NSMetadataUbiquitousItemPercentUploadedKey),
              qn::Value(50.0));
    cloud->setItem(document("e.txt"), {});

    // A change made during a call waits for the next call, for every feed alike.
    const auto changing = std::make_shared<FeedRecorder>();
    const auto other = std::make_shared<FeedRecorder>();
    startFeed(changing);
    startFeed(other);
    cloud->deliverQueryBatches();
    cloud->setItem(document("x.txt"), {});
    changing->onChange = [&] { cloud->setItem(document("y.txt"), {}); };
    cloud->deliverQueryBatches();
    cloud->deliverQueryBatches();
    EXPECT_THAT(changing->calls(), ElementsAre("gather a.txt b.txt", "gather d.txt e.txt", "finish",
                                               "change x.txt", "change y.txt"));
    EXPECT_EQ(other->calls(), changing->calls());
}

// An override replaces one computed attribute or adds its own; a path it spells differently is
// taken back from the feeds when the override goes, also when it was set before they started.
TEST_F(SimulatedCloudTest, ItemStatesAndOverridesAreReportedThroughTheAttributeKeys) {
    SimulatedItemState state = SimulatedItemState::downloaded("old", qn::Date(100));
    state.downloadingStatus = SimulatedDownloadingStatus::Downloaded;  // outdated local copy
    state.creationDate = qn::Date(50);
    state.uploaded = false;
    cloud->setItem(document("Report.txt"), state);
    // Broken: Current, with nothing on the disk; and odd: a decomposed path, no size.
    SimulatedItemState broken;
    broken.attributeOverrides.set(qn::NSMetadataItemPathKey, document("Cafe\u0301.txt").path());
    broken.omittedAttributes = {qn::NSMetadataItemFSSizeKey};
    cloud->setItem(document("Caf\u00e9.txt"), broken, SimulatedLocalCopy::Keep);
    SimulatedItemState extra = SimulatedItemState::downloaded("y");
    extra.attributeOverrides.set("QNExtraKey", true);
    cloud->setItem(document("Extra.txt"), extra);
    startFeed(observer);
    cloud->deliverQueryBatches();

    const auto report = latest("Report.txt");
    ASSERT_NE(report, nullptr);
    EXPECT_EQ(report->attributes().size(), 16u);
    // The transfer and conflict states, the size and the content date reach the presenter's
    // snapshots in the randomized synchronisation test; these keys do not.
    const std::pair<const char*, qn::Value> expected[] = {
        {qn::NSMetadataItemFSNameKey, "Report.txt"},
        {qn::NSMetadataItemURLKey, document("Report.txt")},
        {qn::NSMetadataItemFSCreationDateKey, qn::Date(50)},
        {qn::NSMetadataItemIsUbiquitousKey, true},
        {qn::NSURLUbiquitousItemDownloadingStatusKey,
         qn::NSURLUbiquitousItemDownloadingStatusDownloaded},
        {qn::NSMetadataUbiquitousItemIsDownloadedKey, true},
    };
    for (const auto& [key, value] : expected) {
        EXPECT_EQ(attribute(*report, key), value) << key;
    }
    EXPECT_EQ(qn::Date::fromTimespec(root.status(local("Report.txt")).st_mtim), qn::Date(100));

    const auto odd = latest("Cafe\u0301.txt");
    ASSERT_NE(odd, nullptr);
    EXPECT_EQ(odd->attributes().size(), 15u);  // the path replaced, the size left out
    EXPECT_EQ(odd->path(), document("Cafe\u0301.txt").path());
    EXPECT_EQ(attribute(*odd, qn::NSMetadataItemFSNameKey), qn::Value("Caf\u00e9.txt"));
    EXPECT_EQ(odd->valueForAttribute(qn::NSMetadataItemFSSizeKey), nullptr);
    EXPECT_EQ(attribute(*odd, qn::NSURLUbiquitousItemDownloadingStatusKey),
              qn::Value(qn::NSURLUbiquitousItemDownloadingStatusCurrent));
    EXPECT_TRUE(cloud->startDownloading(document("Caf\u00e9.txt"), &error)) << "trusts its status";
    EXPECT_FALSE(root.exists(local("Caf\u00e9.txt")));
    const auto added = latest("Extra.txt");
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(added->attributes().size(), 17u);
    EXPECT_EQ(added->attributes().back(), "QNExtraKey");
    EXPECT_EQ(attribute(*added, qn::NSMetadataItemFSSizeKey), qn::Value(std::uint64_t{1}));

    cloud->setItem(document("Caf\u00e9.txt"), SimulatedItemState::downloaded("x"));
    cloud->deliverQueryBatches();
    EXPECT_EQ(observer->calls().back(), "change Caf\u00e9.txt | -Cafe\u0301.txt");
}

// How a change of the network is announced is shown by the downloads manager's test, which
// pauses and resumes on it, and the reachability test reads the status.
TEST_F(SimulatedCloudTest, DownloadsFailuresEvictionAndTheNetwork) {
    // The code of the failure a call reported, 0 when it succeeded.
    const auto failure = [&](bool succeeded) { return succeeded ? 0 : error.code(); };
    const qn::URL a = document("a.txt");
    cloud->setItem(a, SimulatedItemState::notDownloaded("cloud bytes"));
    EXPECT_EQ(failure(cloud->startDownloading(root.urlOf("outside.txt"), &error)),
              qn::NSUbiquitousFileUnavailableError);
    cloud->setNetworkReachable(false);
    EXPECT_EQ(failure(cloud->startDownloading(a, &error)),
              qn::NSUbiquitousFileUbiquityServerNotAvailable);
    cloud->setNetworkReachable(true);

    cloud->setDownloadBehavior(a, qn::SimulatedDownloadBehavior::immediate());
    ASSERT_TRUE(cloud->startDownloading(a, &error)) << error.description();
    EXPECT_EQ(root.read(local("a.txt")), "cloud bytes");

    EXPECT_TRUE(cloud->evict(a, &error)) << error.description();
    EXPECT_FALSE(root.exists(local("a.txt")));
    EXPECT_EQ(failure(cloud->evict(a, &error)), qn::NSFileReadNoSuchFileError) << "nothing local";

    // What the feed reports on the way is shown by the presenter's cache query test (started,
    // progress, downloaded); here, what reaches the disk and when.
    cloud->setDownloadBehavior(a, qn::SimulatedDownloadBehavior::progressive());
    EXPECT_THROW(cloud->advanceDownload(a, 10), std::logic_error) << "not started";
    ASSERT_TRUE(cloud->startDownloading(a, &error)) << error.description();
    cloud->advanceDownload(a, 40);
    EXPECT_FALSE(root.exists(local("a.txt")));
    cloud->advanceDownload(a, 250);  // clamped: completes
    EXPECT_EQ(root.read(local("a.txt")), "cloud bytes");
}

TEST_F(SimulatedCloudTest, ConflictVersionsLiveOutsideTheDriveAndTheirFlagIsReported) {
    const qn::URL doc = document("Doc.txt");
    cloud->setItem(doc, SimulatedItemState::downloaded("mine"));
    startFeed(observer);
    cloud->deliverQueryBatches();

    const auto later = cloud->addConflictVersion(doc, "theirs", qn::Date(20), "Bob's laptop");
    const auto same = cloud->addConflictVersion(doc, "mine", qn::Date(10));
    const std::string versionsDirectory = qn::stringByDeletingLastPathComponent(
        qn::stringByDeletingLastPathComponent(later.url.path()));
    EXPECT_FALSE(qn::isBasePathOfPath(root.path(), versionsDirectory)) << "outside the drive";

    ASSERT_TRUE(cloud->setVersionResolved(doc, later.identifier, true, &error));
    EXPECT_TRUE(cloud->item(doc)->hasUnresolvedConflicts) << "one is left";
    ASSERT_TRUE(cloud->removeVersion(doc, same.identifier, &error));
    EXPECT_FALSE(cloud->item(doc)->hasUnresolvedConflicts);
    EXPECT_FALSE(std::filesystem::exists(same.url.path()));

    cloud->deliverQueryBatches();
    EXPECT_THAT(observer->calls(), ElementsAre("gather Doc.txt", "finish", "change Doc.txt"));
    EXPECT_EQ(attribute(*latest("Doc.txt"), qn::NSMetadataUbiquitousItemHasUnresolvedConflictsKey),
              qn::Value(false));

    cloud.reset();
    EXPECT_FALSE(std::filesystem::exists(versionsDirectory)) << "the cloud cleans up";
}

// An observer that fails the test when calls of its feed overlap or come after the feed stopped.
class StrictObserver : public qn::MetadataFeedObserver {
public:
    void feedDidGather(std::vector<std::shared_ptr<const qn::MetadataItem>>) override { enter(); }
    void feedDidFinishGathering() override { enter(); }
    void feedDidChange(std::vector<std::shared_ptr<const qn::MetadataItem>>,
                       std::vector<std::string>) override {
        enter();
    }

    std::atomic<bool> stopped{false};
    std::atomic<int> calls{0};

private:
    void enter() {
        EXPECT_FALSE(stopped.load()) << "a call after the feed stopped";
        EXPECT_FALSE(inside_.exchange(true)) << "overlapping calls";
        std::this_thread::sleep_for(200us);
        ++calls;
        inside_ = false;
    }
    std::atomic<bool> inside_{false};
};

TEST_F(SimulatedCloudTest, AutomaticDeliveryNeverOverlapsAndStopWaitsForIt) {
    cloud->setAutomaticDelivery(true);
    std::vector<std::shared_ptr<StrictObserver>> observers;
    std::vector<std::uint64_t> feeds;
    for (int i = 0; i < 3; ++i) {
        observers.push_back(std::make_shared<StrictObserver>());
        feeds.push_back(cloud->startMetadataFeed({qn::NSMetadataQueryUbiquitousDocumentsScope},
                                                 observers.back()));
    }
    std::vector<std::jthread> writers;
    for (int t = 0; t < 3; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < 40; ++i) {
                const qn::URL url = document("t" + std::to_string(t) + "-" + std::to_string(i % 5));
                cloud->setItem(url, SimulatedItemState::notDownloaded("x"));
                cloud->deliverQueryBatches();  // racing the automatic deliveries
                cloud->startDownloading(url, nullptr);
            }
        });
    }
    std::this_thread::sleep_for(5ms);
    cloud->stopMetadataFeed(feeds[0]);
    observers[0]->stopped = true;
    writers.clear();  // joins them
    for (std::size_t i = 1; i < feeds.size(); ++i) {
        cloud->stopMetadataFeed(feeds[i]);
        observers[i]->stopped = true;
        EXPECT_GE(observers[i]->calls.load(), 2) << "gathered and finished at least";
    }
}

}  // namespace
