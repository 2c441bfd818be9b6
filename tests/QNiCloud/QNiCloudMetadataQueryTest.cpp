#include <gtest/gtest.h>

#include "QNiCloud/QNiCloudMetadataQuery.h"

namespace {

TEST(QNiCloudMetadataQueryTest, FactoriesSetTagAndHoldTheCallersUserInfo) {
    const auto plain = QNiCloudMetadataQuery::query();
    EXPECT_EQ(plain->tag(), 0u);
    EXPECT_EQ(plain->userInfo(), nullptr);
    EXPECT_EQ(QNiCloudMetadataQuery::queryWithTag(7)->tag(), 7u);
    EXPECT_EQ(QNiCloudMetadataQuery::queryWithTag(7)->userInfo(), nullptr);

    auto userInfo = std::make_shared<qn::Dictionary>(qn::Dictionary{{"CurrentIdnex", 0}});
    const auto query = QNiCloudMetadataQuery::queryWithUserInfo(userInfo);
    EXPECT_EQ(query->tag(), 0u);
    userInfo->set("CurrentIdnex", 25);
    EXPECT_EQ(query->userInfo()->int64ForKey("CurrentIdnex"), 25);

    const auto both = QNiCloudMetadataQuery::queryWithTag(3, userInfo);
    EXPECT_EQ(both->tag(), 3u);
    EXPECT_EQ(both->userInfo(), userInfo);

    // Notifications carry the query as a plain object; observers cast it back.
    const std::shared_ptr<qn::Object> sender = both;
    EXPECT_EQ(std::dynamic_pointer_cast<QNiCloudMetadataQuery>(sender), both);
}

}  // namespace
