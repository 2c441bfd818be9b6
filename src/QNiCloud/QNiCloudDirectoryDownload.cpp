#include "QNiCloud/QNiCloudDirectoryDownload.h"

#include <string>

std::shared_ptr<QNiCloudDirectoryDownload> QNiCloudDirectoryDownload::directoryDownloadWithPath(
    std::string_view path) {
    auto record = std::make_shared<QNiCloudDirectoryDownload>();
    record->setPath(std::string(path));
    return record;
}

bool QNiCloudDirectoryDownload::isOfReceiverClass(const QNiCloudFileDownload& record) const {
    return dynamic_cast<const QNiCloudDirectoryDownload*>(&record) != nullptr;
}
