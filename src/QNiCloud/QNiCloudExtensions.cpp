#include "QNiCloud/QNiCloudExtensions.h"

#include <string_view>

#include "qn/FileAttributes.h"
#include "qn/MetadataAttributes.h"
#include "qn/util/PathNormalization.h"

const qn::Value* QNiCloudExtensions::valueFor(const char* name) const {
    const qn::Value* value = item_.valueForAttribute(name);
    return value != nullptr && !value->isNull() ? value : nullptr;
}

bool QNiCloudExtensions::boolFor(const char* name) const {
    const qn::Value* value = valueFor(name);
    return value != nullptr && value->boolValue().value_or(false);
}

double QNiCloudExtensions::doubleFor(const char* name) const {
    const qn::Value* value = valueFor(name);
    return value != nullptr ? value->doubleValue().value_or(0.0) : 0.0;
}

std::optional<std::string> QNiCloudExtensions::stringFor(const char* name) const {
    const qn::Value* value = valueFor(name);
    if (value == nullptr || value->stringValue() == nullptr) {
        return std::nullopt;
    }
    return *value->stringValue();
}

std::optional<qn::Date> QNiCloudExtensions::dateFor(const char* name) const {
    const qn::Value* value = valueFor(name);
    if (value == nullptr || value->dateValue() == nullptr) {
        return std::nullopt;
    }
    return *value->dateValue();
}

qn::Dictionary QNiCloudExtensions::attributesDictionary() const {
    qn::Dictionary result;
    for (const std::string& name : item_.attributes()) {
        if (const qn::Value* value = valueFor(name.c_str())) {
            result.set(name, *value);
        }
    }
    return result;
}

std::optional<std::string> QNiCloudExtensions::fsName() const {
    return stringFor(qn::NSMetadataItemFSNameKey);
}

std::optional<std::string> QNiCloudExtensions::displayName() const {
    return stringFor(qn::NSMetadataItemDisplayNameKey);
}

std::optional<qn::URL> QNiCloudExtensions::URL() const {
    const qn::Value* value = valueFor(qn::NSMetadataItemURLKey);
    if (value == nullptr || value->urlValue() == nullptr) {
        return std::nullopt;
    }
    return *value->urlValue();
}

std::optional<std::string> QNiCloudExtensions::path() const {
    const qn::Value* value = valueFor(qn::NSMetadataItemPathKey);
    if (value == nullptr || value->stringValue() == nullptr) {
        return std::nullopt;
    }
    // Composed only: standardising would change the reported spelling beyond its composition.
    return qn::composedNFC(*value->stringValue());
}

std::optional<qn::Value> QNiCloudExtensions::fsSize() const {
    const qn::Value* value = valueFor(qn::NSMetadataItemFSSizeKey);
    if (value == nullptr || !value->isNumber()) {
        return std::nullopt;
    }
    return *value;
}

std::optional<qn::Date> QNiCloudExtensions::fsCreationDate() const {
    return dateFor(qn::NSMetadataItemFSCreationDateKey);
}

std::optional<qn::Date> QNiCloudExtensions::fsContentChangeDate() const {
    return dateFor(qn::NSMetadataItemFSContentChangeDateKey);
}

bool QNiCloudExtensions::isUbiquitous() const {
    return boolFor(qn::NSMetadataItemIsUbiquitousKey);
}

bool QNiCloudExtensions::hasUnresolvedConflicts() const {
    return boolFor(qn::NSMetadataUbiquitousItemHasUnresolvedConflictsKey);
}

bool QNiCloudExtensions::isDownloaded() const {
    // The status is read under the URL resource key's name, which is how the downloading status
    // reaches metadata items; the older flag only speaks for items that report no status.
    if (const qn::Value* status = valueFor(qn::NSURLUbiquitousItemDownloadingStatusKey)) {
        const std::string* text = status->stringValue();
        return text != nullptr && *text == qn::NSURLUbiquitousItemDownloadingStatusCurrent;
    }
    return boolFor(qn::NSMetadataUbiquitousItemIsDownloadedKey);
}

bool QNiCloudExtensions::isDownloading() const {
    return boolFor(qn::NSMetadataUbiquitousItemIsDownloadingKey);
}

bool QNiCloudExtensions::isUploaded() const {
    return boolFor(qn::NSMetadataUbiquitousItemIsUploadedKey);
}

bool QNiCloudExtensions::isUploading() const {
    return boolFor(qn::NSMetadataUbiquitousItemIsUploadingKey);
}

double QNiCloudExtensions::percentDownloaded() const {
    return doubleFor(qn::NSMetadataUbiquitousItemPercentDownloadedKey);
}

double QNiCloudExtensions::percentUploaded() const {
    return doubleFor(qn::NSMetadataUbiquitousItemPercentUploadedKey);
}
