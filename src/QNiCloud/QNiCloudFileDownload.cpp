#include "QNiCloud/QNiCloudFileDownload.h"

#include "QNiCloud/QNiCloudDirectoryDownload.h"
#include "qn/util/PathNormalization.h"

std::shared_ptr<QNiCloudFileDownload> QNiCloudFileDownload::fileDownloadWithPath(
    std::string_view path) {
    auto record = std::make_shared<QNiCloudFileDownload>();
    record->setPath(std::string(path));
    return record;
}

void QNiCloudFileDownload::setDirectoryDownload(
    std::shared_ptr<QNiCloudDirectoryDownload> directoryDownload) {
    _directoryDownload = std::move(directoryDownload);
}

bool QNiCloudFileDownload::isCancelled() const {
    if (_backgroundOperation != nullptr && _backgroundOperation->isCancelled()) {
        return true;
    }
    return _directoryDownload != nullptr && _directoryDownload->isCancelled();
}

bool QNiCloudFileDownload::isEqual(const qn::Object* object) const {
    if (object == this) {
        return true;
    }
    const auto* other = dynamic_cast<const QNiCloudFileDownload*>(object);
    if (other == nullptr || !isOfReceiverClass(*other) || !qn::isEqualToPath(_path, other->_path)) {
        return false;
    }
    // Tokens are compared by identity; asking an absent token answers no.
    return _backgroundOperation != nullptr && _backgroundOperation == other->_backgroundOperation;
}

std::size_t QNiCloudFileDownload::hash() const {
    return std::hash<std::string>{}(_path);
}

bool QNiCloudFileDownload::isOfReceiverClass(const QNiCloudFileDownload&) const {
    return true;
}
