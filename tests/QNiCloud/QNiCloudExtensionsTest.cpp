#include <gtest/gtest.h>

#include <string_view>
#include <utility>

#include "QNiCloud/QNiCloudExtensions.h"
#include "qn/FileAttributes.h"
#include "qn/MetadataAttributes.h"

namespace {

TEST(QNiCloudExtensionsTest, DownloadingStatusDecidesAndOldFlagOnlyFillsIn) {
    struct Case {
        qn::Value status;  // Null: no status attribute
        qn::Value oldFlag;
        bool expected;
    };
    const Case cases[] = {
        {qn::NSURLUbiquitousItemDownloadingStatusCurrent, false, true},
        {qn::NSURLUbiquitousItemDownloadingStatusDownloaded, true, false},  // outdated copy
        {qn::NSURLUbiquitousItemDownloadingStatusNotDownloaded, true, false},
        {nullptr, true, true},
        {nullptr, nullptr, false},
    };
    for (const auto& c : cases) {
        qn::Dictionary values;
        if (!c.status.isNull()) {
            values.set(qn::NSURLUbiquitousItemDownloadingStatusKey, c.status);
        }
        if (!c.oldFlag.isNull()) {
            values.set(qn::NSMetadataUbiquitousItemIsDownloadedKey, c.oldFlag);
        }
        const qn::MetadataItem item(values);
        EXPECT_EQ(QNiCloudExtensions(item).isDownloaded(), c.expected) << values.description();
    }
}

TEST(QNiCloudExtensionsTest, AbsentOrUnreadableAttributesGiveTheDefaults) {
    const qn::MetadataItem empty(qn::Dictionary{});
    const QNiCloudExtensions e(empty);
    EXPECT_EQ(e.percentDownloaded(), 0.0);
    EXPECT_EQ(e.percentUploaded(), 0.0);
    EXPECT_FALSE(e.isDownloading() || e.isUploaded() || e.isUploading() ||
                 e.hasUnresolvedConflicts() || e.isUbiquitous() || e.isDirectory());
    EXPECT_FALSE(e.fsSize() || e.fsContentChangeDate() || e.URL() || e.fsName() || e.path());

    // Wrong kinds read as absent; numbers are booleans by their non-zero test; the size keeps
    // its number kind.
    const qn::MetadataItem odd(qn::Dictionary{
        {qn::NSMetadataItemPathKey, "/Docs//Re\u0301sume\u0301.txt/"},
        {qn::NSMetadataItemFSContentChangeDateKey, "yesterday"},
        {qn::NSMetadataUbiquitousItemPercentDownloadedKey, "40"},
        {qn::NSMetadataUbiquitousItemIsUploadingKey, 2},
        {qn::NSMetadataItemFSSizeKey, 12.5},
        {qn::NSMetadataItemIsUbiquitousKey, nullptr},
    });
    const QNiCloudExtensions o(odd);
    EXPECT_EQ(o.path(), "/Docs//R\u00e9sum\u00e9.txt/");  // composed, otherwise as reported
    EXPECT_EQ(o.fsContentChangeDate(), std::nullopt);
    EXPECT_EQ(o.percentDownloaded(), 0.0);
    EXPECT_TRUE(o.isUploading());
    EXPECT_EQ(o.fsSize(), qn::Value(12.5));
    EXPECT_FALSE(o.isUbiquitous());
}

TEST(QNiCloudExtensionsTest, AttributesDictionaryHoldsListedAttributesThatHaveValues) {
    const qn::MetadataItem item({"b", "a", "null", "missing"},
                                qn::Dictionary{{"a", 1}, {"b", "x"}, {"null", nullptr}, {"u", 5}});
    EXPECT_EQ(QNiCloudExtensions(item).attributesDictionary(),
              (qn::Dictionary{{"a", 1}, {"b", "x"}}));
}

}  // namespace
