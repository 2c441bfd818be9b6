#include "QNiCloud/QNiCloudMetadataItem.h"

#include <cxxabi.h>
#include <fmt/format.h>

#include <cstdlib>
#include <typeinfo>

#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "QNiCloud/QNiCloudExtensions.h"
#include "qn/Error.h"
#include "qn/FileAttributes.h"
#include "qn/FileManager.h"
#include "qn/PathString.h"
#include "qn/URL.h"
#include "qn/Value.h"

namespace {

// Dates are logged the way the original formats an absent one: "(null)", and 0 seconds.
std::string dateText(const std::optional<qn::Date>& date) {
    return date ? date->description() : std::string("(null)");
}

double dateSeconds(const std::optional<qn::Date>& date) {
    return date ? date->timeIntervalSinceReferenceDate() : 0.0;
}

std::string className(const std::type_info& type) {
    int status = 0;
    char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    std::string name = status == 0 && demangled != nullptr ? demangled : type.name();
    std::free(demangled);
    return name;
}

}  // namespace

qn::Logger& QNiCloudMetadataItem::l4Logger() {
    static qn::Logger& logger = qn::Logger::named("iCloud");
    return logger;
}

QNiCloudMetadataItem::QNiCloudMetadataItem(const qn::MetadataItem& item) {
    const QNiCloudExtensions source(item);
    const auto size = source.fsSize();
    contentSize_ = size ? size->uint64Value().value_or(0) : 0;
    isDownloaded_ = source.isDownloaded();
    fsContentChangeDate_ = source.fsContentChangeDate();
    // A query can still report progress for an item it already calls downloaded; the snapshot
    // must not, or the comparison would see a download that is over.
    if (isDownloaded_) {
        isDownloading_ = false;
        percentDownloaded_ = 100.0;
    } else {
        isDownloading_ = source.isDownloading();
        percentDownloaded_ = source.percentDownloaded();
    }
    isUploaded_ = source.isUploaded();
    if (isUploaded_) {
        isUploading_ = false;
        percentUploaded_ = 100.0;
    } else {
        isUploading_ = source.isUploading();
        percentUploaded_ = source.percentUploaded();
    }
    setHasUnresolvedConflicts(source.hasUnresolvedConflicts());
    // The file name stays unset: query results are identified by their path, not their name.
}

std::shared_ptr<QNiCloudMetadataItem> QNiCloudMetadataItem::metadataItemWithMetadataItem(
    const std::shared_ptr<const qn::MetadataItem>& item,
    bool doubleCheckHasUnresolvedConflictsFlag) {
    if (item == nullptr) {
        return nullptr;
    }
    auto result = std::make_shared<QNiCloudMetadataItem>(*item);
    if (doubleCheckHasUnresolvedConflictsFlag && result->hasUnresolvedConflicts()) {
        // The query reports a conflict as soon as a version is stored, even a duplicate of the
        // file; the presenter's check removes those and has the last word. Without a presenter
        // or a location to ask about, the query's word stands.
        const QNiCloudExtensions source(*item);
        const auto presenter = QNiCloudDocumentsPresenter::defaultPresenter();
        auto url = source.URL();
        if (!url) {
            if (const auto path = source.path()) {
                url = qn::URL::fileURLWithPath(*path);
            }
        }
        if (presenter != nullptr && url) {
            result->setHasUnresolvedConflicts(
                presenter->checkIfItemAtURLHasUnresolvedConflicts(*url, true));
        }
    }
    return result;
}

std::shared_ptr<QNiCloudMetadataItem> QNiCloudMetadataItem::metadataItemWithPath(
    std::string_view path, bool downloaded, bool uploaded) {
    auto result = std::make_shared<QNiCloudMetadataItem>();
    const auto fileManager = qn::FileManager::defaultManager();
    const qn::URL url = qn::URL::fileURLWithPath(path);

    // An unreadable size is no reason to give up on the snapshot.
    if (const auto size = fileManager->resourceValue(url, qn::NSURLFileSizeKey)) {
        result->contentSize_ = size->uint64Value().value_or(0);
    }

    qn::Error error;
    const auto date = fileManager->resourceValue(url, qn::NSURLContentModificationDateKey, &error);
    if (!date && error) {
        l4Logger().error("Unable to initialize QNiCloudMetadataItem for path {}: {}", path, error);
        return result;
    }

    result->isDownloaded_ = downloaded;
    result->isDownloading_ = false;
    result->percentDownloaded_ = downloaded ? 100.0 : 0.0;
    result->isUploaded_ = uploaded;
    result->isUploading_ = false;
    result->percentUploaded_ = uploaded ? 100.0 : 0.0;
    result->setHasUnresolvedConflicts(false);
    // A file system that keeps no modification date answers without an error: the snapshot is
    // then complete but has no date.
    if (date && date->dateValue() != nullptr) {
        result->fsContentChangeDate_ = *date->dateValue();
    }
    result->fileName_ = qn::lastPathComponent(path);
    return result;
}

std::shared_ptr<QNiCloudMetadataItem> QNiCloudMetadataItem::metadataItemWithQNiCloudMetadataItem(
    const QNiCloudMetadataItem* item) {
    if (item == nullptr) {
        return nullptr;
    }
    auto result = std::make_shared<QNiCloudMetadataItem>();
    result->isDownloaded_ = item->isDownloaded_;
    result->isDownloading_ = item->isDownloading_;
    result->percentDownloaded_ = item->percentDownloaded_;
    result->isUploaded_ = item->isUploaded_;
    result->isUploading_ = item->isUploading_;
    result->percentUploaded_ = item->percentUploaded_;
    result->setHasUnresolvedConflicts(item->hasUnresolvedConflicts());
    result->fsContentChangeDate_ = item->fsContentChangeDate_;
    result->contentSize_ = item->contentSize_;
    // The file name is deliberately not carried over.
    return result;
}

std::shared_ptr<QNiCloudMetadataItem> QNiCloudMetadataItem::copy() const {
    return metadataItemWithQNiCloudMetadataItem(this);
}

QNiCloudFileChangeType QNiCloudMetadataItem::compareWithMetadataItem(
    const QNiCloudMetadataItem& newer) const {
    const bool oldConflicts = hasUnresolvedConflicts();
    const bool newConflicts = newer.hasUnresolvedConflicts();
    if (newConflicts && !oldConflicts) {
        return QNiCloudFileChangeConflictAppeared;
    }
    if (oldConflicts && !newConflicts) {
        return QNiCloudFileChangeConflictResolved;
    }

    const auto& oldDate = fsContentChangeDate_;
    const auto& newDate = newer.fsContentChangeDate_;
    // A missing date is never equal to anything, not even to another missing date.
    const bool sameDate = oldDate && newDate && *oldDate == *newDate;
    if (!sameDate) {
        if (oldDate && newDate && *oldDate < *newDate) {
            // New content makes the transfer state of the old content irrelevant.
            return QNiCloudFileChangeContentChanged;
        }
        // A date that goes backwards (or cannot be compared) is worth knowing about, but the
        // transfer state may still have moved.
        if (l4Logger().isEnabledFor(qn::LogLevel::Warn)) {
            l4Logger().warn(
                "Unexpected metadata fsContentChangeDate value. Old = {} ({:f}), new = {} ({:f})",
                dateText(oldDate), dateSeconds(oldDate), dateText(newDate), dateSeconds(newDate));
        }
    }

    // Only transitions towards "in progress" or "done" are reported, downloads before uploads,
    // and a percentage only while the transfer is not done. `!=` is deliberate: any difference
    // is progress, and not-a-number differs from everything.
    if (!isDownloading_ && newer.isDownloading_) {
        return QNiCloudFileChangeDownloadingStarted;
    }
    if (!isDownloaded_ && newer.isDownloaded_) {
        return QNiCloudFileChangeDownloaded;
    }
    if (!isDownloaded_ && percentDownloaded_ != newer.percentDownloaded_) {
        return QNiCloudFileChangeDownloadProgress;
    }
    if (!isUploading_ && newer.isUploading_) {
        return QNiCloudFileChangeUploadingStarted;
    }
    if (!isUploaded_ && newer.isUploaded_) {
        return QNiCloudFileChangeUploaded;
    }
    if (!isUploaded_ && percentUploaded_ != newer.percentUploaded_) {
        return QNiCloudFileChangeUploadProgress;
    }
    return QNiCloudFileChangeNone;
}

void QNiCloudMetadataItem::updateStateUsingMetadataItem(const QNiCloudMetadataItem& newer) {
    changed();
    isDownloaded_ = newer.isDownloaded_;
    isDownloading_ = newer.isDownloading_;
    percentDownloaded_ = newer.percentDownloaded_;
    isUploaded_ = newer.isUploaded_;
    isUploading_ = newer.isUploading_;
    percentUploaded_ = newer.percentUploaded_;
    setHasUnresolvedConflicts(newer.hasUnresolvedConflicts());

    // The cached date never goes backwards: a late report of older content must not make the
    // next comparison announce the current content as changed again.
    const auto& newDate = newer.fsContentChangeDate_;
    const bool keepOwnDate = fsContentChangeDate_ && (!newDate || *fsContentChangeDate_ > *newDate);
    if (keepOwnDate) {
        if (l4Logger().isEnabledFor(qn::LogLevel::Warn)) {
            l4Logger().warn(
                "Unexpected metadata fsContentChangeDate value detected while updating metadata "
                "item state. Old = {} ({:f}), new = {} ({:f}); fileName = '{}'",
                dateText(fsContentChangeDate_), dateSeconds(fsContentChangeDate_),
                dateText(newDate), dateSeconds(newDate), fileName_.value_or("(null)"));
        }
    } else {
        fsContentChangeDate_ = newDate;
    }
    // contentSize_ and fileName_ stay those of the first snapshot.
}

std::string QNiCloudMetadataItem::description() const {
    return fmt::format(
        "<{} {}: {}{}{}{}{}, %D = {:f}, %U = {:f}, fsCD = {}>", className(typeid(*this)),
        static_cast<const void*>(this), isDownloaded_ ? "D" : "-", isDownloading_ ? "d" : "-",
        isUploaded_ ? "U" : "-", isUploading_ ? "u" : "-", hasUnresolvedConflicts() ? "C" : "-",
        percentDownloaded_, percentUploaded_, dateText(fsContentChangeDate_));
}
