#include <gtest/gtest.h>

#include "QNiCloud/QNiCloudMetadataQuery.h"

namespace {

TEST(QNiCloudMetadataQueryTest, FactoriesSetTagAndShareTheCallersUserInfo) {
    EXPECT_EQ(QNiCloudMetadataQuery::query()->tag(), 0u);
    EXPECT_EQ(QNiCloudMetadataQuery::queryWithTag(7)->tag(), 7u);
    EXPECT_EQ(QNiCloudMetadataQuery::queryWithTag(7)->userInfo(), nullptr);

    // Held, not copied: a caller's later change (a batch's current index) is what the query has.
    auto userInfo = std::make_shared<qn::Dictionary>(qn::Dictionary{{"CurrentIdnex", 0}});
    const auto query = QNiCloudMetadataQuery::queryWithUserInfo(userInfo);
    EXPECT_EQ(query->tag(), 0u);
    userInfo->set("CurrentIdnex", 25);
    EXPECT_EQ(query->userInfo()->int64ForKey("CurrentIdnex"), 25);
    const auto both = QNiCloudMetadataQuery::queryWithTag(3, userInfo);
    EXPECT_EQ(both->tag(), 3u);
    EXPECT_EQ(both->userInfo(), userInfo);
}

}  // namespace
