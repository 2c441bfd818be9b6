#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <limits>

#include "QNiCloud/QNiCloudMetadataItem.h"
#include "qn/CapturingLogSink.h"
#include "qn/FileAttributes.h"
#include "qn/ForwardingFileManager.h"
#include "qn/MetadataAttributes.h"
#include "support/TemporaryDirectory.h"

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// The state a comparison looks at; the defaults are an item that is nowhere yet.
struct State {
    bool D = false, d = false, U = false, u = false, C = false;
    double pD = 0.0, pU = 0.0;
    std::optional<qn::Date> date = qn::Date(100);
};

std::shared_ptr<QNiCloudMetadataItem> make(const State& s) {
    auto item = std::make_shared<QNiCloudMetadataItem>();
    item->setIsDownloaded(s.D);
    item->setIsDownloading(s.d);
    item->setIsUploaded(s.U);
    item->setIsUploading(s.u);
    item->setHasUnresolvedConflicts(s.C);
    item->setPercentDownloaded(s.pD);
    item->setPercentUploaded(s.pU);
    item->setFsContentChangeDate(s.date);
    return item;
}

std::size_t warnings(const qn::CapturingLogSink& sink) {
    std::size_t n = 0;
    for (const auto& line : sink.lines()) {
        n += line.level == qn::LogLevel::Warn;
    }
    return n;
}

// The order of the rules is compared with a model of its own by the randomized synchronisation
// test. Its reports never show a transfer both running and done, neighbouring or NaN percentages
// or a missing date, and it does not read the warnings; those are here.
TEST(QNiCloudMetadataItemTest, ComparisonOfStatesTheReportsNeverShow) {
    const std::optional<qn::Date> earlier = qn::Date(50), none;
    struct Case {
        const char* what;
        State old, now;
        QNiCloudFileChangeType expected;
        bool warns = false;
    };
    // clang-format off
    const Case cases[] = {
        {"downloading before downloaded", {.pD = 40}, {.D = true, .d = true, .pD = 40}, QNiCloudFileChangeDownloadingStarted},
        {"progress has no tolerance", {.pD = 40}, {.pD = std::nextafter(40.0, 41.0)}, QNiCloudFileChangeDownloadProgress},
        {"NaN differs from itself", {.pD = kNaN}, {.pD = kNaN}, QNiCloudFileChangeDownloadProgress},
        {"uploading before uploaded", {}, {.U = true, .u = true}, QNiCloudFileChangeUploadingStarted},
        {"backwards date alone", {}, {.date = earlier}, QNiCloudFileChangeNone, true},
        {"backwards date, then transfers", {}, {.d = true, .date = earlier}, QNiCloudFileChangeDownloadingStarted, true},
        {"missing old date is no content change", {.date = none}, {}, QNiCloudFileChangeNone, true},
        {"missing new date", {}, {.U = true, .date = none}, QNiCloudFileChangeUploaded, true},
    };
    // clang-format on
    for (const auto& c : cases) {
        qn::CapturingLogSink sink;
        EXPECT_EQ(make(c.old)->compareWithMetadataItem(*make(c.now)), c.expected) << c.what;
        EXPECT_EQ(warnings(sink), c.warns ? 1u : 0u) << c.what;
    }
}

TEST(QNiCloudMetadataItemTest, DatesGoingBackwardsWarnWithExactText) {
    qn::CapturingLogSink sink;
    const auto old = make({.date = qn::Date(100.5)});
    old->setFileName("a.txt");
    old->compareWithMetadataItem(*make({.date = qn::Date(50.25)}));
    make({.date = std::nullopt})->compareWithMetadataItem(*old);
    EXPECT_TRUE(sink.contains(qn::LogLevel::Warn,
                              "Unexpected metadata fsContentChangeDate value. Old = 2001-01-01 "
                              "00:01:40 +0000 (100.500000), new = 2001-01-01 00:00:50 +0000 "
                              "(50.250000)"));
    EXPECT_TRUE(sink.contains(qn::LogLevel::Warn,
                              "Unexpected metadata fsContentChangeDate value. Old = (null) "
                              "(0.000000), new = 2001-01-01 00:01:40 +0000 (100.500000)"));

    // Updating keeps the later date (the flags it takes, and the size it keeps, are compared with
    // the model by the synchronisation test).
    old->updateStateUsingMetadataItem(*make({.date = qn::Date(3)}));
    EXPECT_TRUE(sink.contains(qn::LogLevel::Warn,
                              "Unexpected metadata fsContentChangeDate value detected while "
                              "updating metadata item state. Old = 2001-01-01 00:01:40 +0000 "
                              "(100.500000), new = 2001-01-01 00:00:03 +0000 (3.000000); "
                              "fileName = 'a.txt'"));
    EXPECT_EQ(old->fsContentChangeDate(), qn::Date(100.5));
    EXPECT_EQ(old->fileName(), "a.txt");

    // A missing new date keeps the old one too; a later one, or any over a missing one, is taken.
    old->updateStateUsingMetadataItem(*make({.date = std::nullopt}));
    EXPECT_EQ(old->fsContentChangeDate(), qn::Date(100.5));
    EXPECT_EQ(warnings(sink), 4u);
    old->updateStateUsingMetadataItem(*make({.date = qn::Date(300)}));
    EXPECT_EQ(old->fsContentChangeDate(), qn::Date(300));
    const auto undated = make({.date = std::nullopt});
    undated->updateStateUsingMetadataItem(*old);
    EXPECT_EQ(undated->fsContentChangeDate(), qn::Date(300));
    EXPECT_EQ(warnings(sink), 4u);
}

TEST(QNiCloudMetadataItemTest, UnreadableDateLogsAndGivesAPartialSnapshot) {
    qn::test::TemporaryDirectory dir;
    const std::string file = dir.write("a.txt", "abc");
    struct NoDates final : qn::ForwardingFileManager {
        using ForwardingFileManager::ForwardingFileManager;
        std::optional<qn::Value> resourceValue(const qn::URL& url, std::string_view key,
                                               qn::Error* error) override {
            if (key == qn::NSURLContentModificationDateKey) {
                qn::setError(error,
                             qn::Error("Test", 7, {{qn::NSLocalizedDescriptionKey, "No date"}}));
                return std::nullopt;
            }
            return ForwardingFileManager::resourceValue(url, key, error);
        }
    };
    qn::FileManager::setDefaultManager(
        std::make_shared<NoDates>(qn::FileManager::defaultManager()));
    qn::CapturingLogSink sink;
    const auto item = QNiCloudMetadataItem::metadataItemWithPath(file, true, true);
    qn::FileManager::setDefaultManager(nullptr);

    EXPECT_TRUE(sink.contains(qn::LogLevel::Error,
                              "Unable to initialize QNiCloudMetadataItem for path " + file +
                                  ": Error Domain=Test Code=7 \"No date\" "
                                  "UserInfo={NSLocalizedDescription=No date}"));
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->contentSize(), 3u);
    EXPECT_FALSE(item->isDownloaded() || item->isUploaded());
    EXPECT_EQ(item->percentDownloaded(), 0.0);
    EXPECT_EQ(item->fsContentChangeDate(), std::nullopt);
    EXPECT_EQ(item->fileName(), std::nullopt);
}

// How reported transfers become the snapshot's state is compared with a model by the randomized
// synchronisation test; here, the size's number kind and the name a result never gives.
TEST(QNiCloudMetadataItemTest, SnapshotOfAQueryResult) {
    EXPECT_EQ(QNiCloudMetadataItem::metadataItemWithMetadataItem(nullptr, false), nullptr);
    const auto item = QNiCloudMetadataItem::metadataItemWithMetadataItem(
        std::make_shared<qn::MetadataItem>(qn::Dictionary{
            {qn::NSMetadataItemPathKey, "/c/Docs/a.txt"},
            {qn::NSMetadataItemFSSizeKey, 12.9},
        }),
        true);
    EXPECT_EQ(item->contentSize(), 12u);
    EXPECT_EQ(item->fileName(), std::nullopt);
}

TEST(QNiCloudMetadataItemTest, DescriptionFormat) {
    const auto item = make({.D = true, .U = true, .C = true, .pD = 100, .pU = 12.5});
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(item.get()));
    EXPECT_EQ(item->description(), std::string("<QNiCloudMetadataItem ") + address +
                                       ": D-U-C, %D = 100.000000, %U = 12.500000, fsCD = "
                                       "2001-01-01 00:01:40 +0000>");
    const auto empty = std::make_shared<QNiCloudMetadataItem>();
    empty->setIsDownloading(true);
    empty->setIsUploading(true);
    EXPECT_TRUE(
        empty->description().ends_with(": -d-u-, %D = 0.000000, %U = 0.000000, fsCD = (null)>"));
}

}  // namespace
