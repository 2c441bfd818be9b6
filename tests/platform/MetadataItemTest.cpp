#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "qn/FileAttributes.h"
#include "qn/MetadataItem.h"

using ::testing::ElementsAre;

namespace {

// The names a report lists, which share long beginnings and endings.
const std::vector<std::string> kReportNames = {
    qn::NSMetadataItemPathKey,
    qn::NSMetadataItemFSNameKey,
    qn::NSMetadataItemDisplayNameKey,
    qn::NSMetadataItemURLKey,
    qn::NSMetadataItemFSSizeKey,
    qn::NSMetadataItemFSCreationDateKey,
    qn::NSMetadataItemFSContentChangeDateKey,
    qn::NSMetadataItemIsUbiquitousKey,
    qn::NSMetadataUbiquitousItemHasUnresolvedConflictsKey,
    qn::NSURLUbiquitousItemDownloadingStatusKey,
    qn::NSMetadataUbiquitousItemIsDownloadedKey,
    qn::NSMetadataUbiquitousItemIsDownloadingKey,
    qn::NSMetadataUbiquitousItemIsUploadedKey,
    qn::NSMetadataUbiquitousItemIsUploadingKey,
    qn::NSMetadataUbiquitousItemPercentDownloadedKey,
    qn::NSMetadataUbiquitousItemPercentUploadedKey,
};

TEST(MetadataItemTest, ItemsSharingALayoutFindEachValueByNameAndNothingElse) {
    const auto layout = std::make_shared<const qn::MetadataItem::Layout>(kReportNames);
    std::vector<qn::Value> values;
    for (std::size_t i = 0; i < kReportNames.size(); ++i) {
        values.emplace_back(i);
    }
    values[0] = "/D/a.txt";
    values[1] = nullptr;  // a null value is a value
    const qn::MetadataItem item(layout, values);
    for (std::size_t i = 0; i < kReportNames.size(); ++i) {
        ASSERT_NE(item.valueForAttribute(kReportNames[i]), nullptr) << kReportNames[i];
        EXPECT_EQ(*item.valueForAttribute(kReportNames[i]), values[i]) << kReportNames[i];
    }
    for (const char* missing : {"", "NSMetadataItemPathKe", "NSMetadataItemPathKeyX",
                                "nsmetadataitempathkey", "NSMetadataUbiquitousItemIsUploadedKez"}) {
        EXPECT_EQ(item.valueForAttribute(missing), nullptr) << missing;
    }
    EXPECT_EQ(item.path(), "/D/a.txt");
    EXPECT_EQ(item.attributes(), kReportNames);
    EXPECT_EQ(item.values().size(), kReportNames.size());
    EXPECT_THROW(qn::MetadataItem(layout, {}), std::invalid_argument);

    // Many names that differ only in their middle crowd the lookup table.
    std::vector<std::string> many;
    for (int i = 0; i < 300; ++i) {
        many.push_back("NSMetadataUbiquitousItem" + std::to_string(i) + "Key");
    }
    const auto crowded = std::make_shared<const qn::MetadataItem::Layout>(many);
    for (std::size_t i = 0; i < many.size(); ++i) {
        EXPECT_EQ(crowded->indexOf(many[i]), i) << many[i];
    }
    EXPECT_EQ(crowded->indexOf("NSMetadataUbiquitousItem300Key"), qn::MetadataItem::Layout::npos);
}

TEST(MetadataItemTest, ListedNamesAndValuesMayDiffer) {
    const qn::MetadataItem item(
        {"Listed", qn::NSMetadataItemPathKey},
        qn::Dictionary{{qn::NSMetadataItemPathKey, 5}, {"Unlisted", nullptr}});
    EXPECT_THAT(item.attributes(), ElementsAre("Listed", qn::NSMetadataItemPathKey));
    EXPECT_EQ(item.valueForAttribute("Listed"), nullptr);
    ASSERT_NE(item.valueForAttribute("Unlisted"), nullptr);
    EXPECT_TRUE(item.valueForAttribute("Unlisted")->isNull());
    EXPECT_EQ(item.path(), "") << "a path that is not text is no path";
    EXPECT_EQ(item.values(),
              (qn::Dictionary{{qn::NSMetadataItemPathKey, 5}, {"Unlisted", nullptr}}));
}

}  // namespace
