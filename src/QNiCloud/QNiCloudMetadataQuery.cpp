#include "QNiCloud/QNiCloudMetadataQuery.h"

#include <utility>

QNiCloudMetadataQuery::QNiCloudMetadataQuery(std::uint64_t tag,
                                             std::shared_ptr<qn::Dictionary> userInfo) {
    setTag(tag);
    setUserInfo(std::move(userInfo));
}

QNiCloudMetadataQuery::QNiCloudMetadataQuery(std::shared_ptr<qn::Dictionary> userInfo)
    : QNiCloudMetadataQuery(0, std::move(userInfo)) {}

std::shared_ptr<QNiCloudMetadataQuery> QNiCloudMetadataQuery::query() {
    return std::make_shared<QNiCloudMetadataQuery>();
}

std::shared_ptr<QNiCloudMetadataQuery> QNiCloudMetadataQuery::queryWithTag(std::uint64_t tag) {
    return std::make_shared<QNiCloudMetadataQuery>(tag);
}

std::shared_ptr<QNiCloudMetadataQuery> QNiCloudMetadataQuery::queryWithUserInfo(
    std::shared_ptr<qn::Dictionary> userInfo) {
    return std::make_shared<QNiCloudMetadataQuery>(std::move(userInfo));
}

std::shared_ptr<QNiCloudMetadataQuery> QNiCloudMetadataQuery::queryWithTag(
    std::uint64_t tag, std::shared_ptr<qn::Dictionary> userInfo) {
    return std::make_shared<QNiCloudMetadataQuery>(tag, std::move(userInfo));
}
