#pragma once

// The library's own snapshot of one item's ubiquity state, independent of the platform's
// metadata records: what every cache entry holds and what the synchronisation compares.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "QNiCloud/QNiCloud.h"
#include "qn/Date.h"
#include "qn/Logger.h"
#include "qn/MetadataItem.h"
#include "qn/Object.h"

/// One item's file name, content size, content change date, download and upload state with
/// their percentages (0.0 to 100.0) and whether it has unresolved conflict versions.
///
/// Snapshots are made from a metadata-query result (`metadataItemWithMetadataItem`), from a file
/// on disk (`metadataItemWithPath`) or from another snapshot
/// (`metadataItemWithQNiCloudMetadataItem`, `copy`). Two operations matter to the synchronisation:
/// `compareWithMetadataItem` reduces the difference between an older and a newer snapshot to the
/// one change the host is told about, and `updateStateUsingMetadataItem` folds a newer snapshot
/// into a cached one without ever letting its content change date go backwards.
///
/// Shared through `std::shared_ptr`: the cache holds snapshots and updates them in place. A
/// default-constructed snapshot has every flag false, both percentages 0.0, size 0, and no name
/// and no date. The C++ copy is deleted because a copy does not carry the file name; use `copy()`.
///
/// Threads: the snapshot has no lock. Callers serialise access to one snapshot (the cache does
/// so under its lock); only `hasUnresolvedConflicts` may be read and written from several threads
/// at once. Logs through `l4Logger()`.
class QNiCloudMetadataItem : public qn::Object {
public:
    /// The logger named "iCloud".
    static qn::Logger& l4Logger();

    /// A snapshot of a metadata-query result, read through QNiCloudExtensions; null when `item`
    /// is null. Downloaded (uploaded) results report no transfer in progress and 100.0 percent,
    /// whatever the query says. The file name is not set. `doubleCheckHasUnresolvedConflictsFlag`
    /// asks the default presenter to confirm a reported conflict for the item's URL (or its path)
    /// with `checkIfItemAtURLHasUnresolvedConflicts`, which also removes invalid conflict versions,
    /// and keeps its answer; without a default presenter the reported flag stands. The check
    /// blocks on file coordination: ask for it from a background thread only.
    static std::shared_ptr<QNiCloudMetadataItem> metadataItemWithMetadataItem(
        const std::shared_ptr<const qn::MetadataItem>& item,
        bool doubleCheckHasUnresolvedConflictsFlag);

    /// A snapshot of the local file or directory at `path` (absolute), with the download and
    /// upload state the caller knows: no transfer in progress, percentages 100.0 or 0.0 to match,
    /// no conflicts, the size (0 when it cannot be read) and content modification date read from
    /// disk, and the path's last component as file name. When the date cannot be read, logs the
    /// error and returns the snapshot as it stands: size perhaps set, everything else as
    /// default-constructed. Never null. Blocks on the file system.
    static std::shared_ptr<QNiCloudMetadataItem> metadataItemWithPath(std::string_view path,
                                                                      bool downloaded,
                                                                      bool uploaded);

    /// A new snapshot with the state, date and size of `item`, but no file name; null when
    /// `item` is null.
    static std::shared_ptr<QNiCloudMetadataItem> metadataItemWithQNiCloudMetadataItem(
        const QNiCloudMetadataItem* item);

    QNiCloudMetadataItem() = default;
    /// The snapshot `metadataItemWithMetadataItem(item, false)` makes, as a value: for reading a
    /// result without allocating.
    explicit QNiCloudMetadataItem(const qn::MetadataItem& item);
    QNiCloudMetadataItem(const QNiCloudMetadataItem&) = delete;
    QNiCloudMetadataItem& operator=(const QNiCloudMetadataItem&) = delete;

    /// Always a plain QNiCloudMetadataItem made as metadataItemWithQNiCloudMetadataItem makes it,
    /// so without the file name.
    std::shared_ptr<QNiCloudMetadataItem> copy() const;

    /// The change from this snapshot (the older) to `newer`. The first rule that holds decides:
    ///  1. conflicts appeared; 2. conflicts resolved;
    ///  3. the content date moved forward: content changed, hiding every transfer change. A date
    ///     that is not later (backwards, or missing on either side) only logs a warning and the
    ///     rules go on;
    ///  4. downloading started; 5. downloaded; 6. still not downloaded and the percentage
    ///     differs (exactly; not-a-number always differs);
    ///  7. uploading started; 8. uploaded; 9. as 6 for the upload;
    ///  10. none.
    /// Only changes from false to true count: an item that stops downloading gives none.
    QNiCloudFileChangeType compareWithMetadataItem(const QNiCloudMetadataItem& newer) const;

    /// Takes every flag and percentage of `newer` and its content date, unless this snapshot's
    /// date is later (or `newer` has none): then the date stays and a warning is logged. The size
    /// and the file name always stay those of this snapshot.
    void updateStateUsingMetadataItem(const QNiCloudMetadataItem& newer);

    /// "<QNiCloudMetadataItem 0x...: DdUuC, %D = 100.000000, %U = 0.000000, fsCD = 2024-...>",
    /// each letter replaced by "-" when its flag is false (D downloaded, d downloading, U
    /// uploaded, u uploading, C conflicts); a missing date prints as "(null)". The class name is
    /// that of the dynamic type. Name and size are not shown.
    std::string description() const;

    std::uint64_t contentSize() const { return contentSize_; }
    void setContentSize(std::uint64_t contentSize) { contentSize_ = contentSize; }
    const std::optional<std::string>& fileName() const { return fileName_; }
    void setFileName(std::optional<std::string> fileName) { fileName_ = std::move(fileName); }
    bool isDownloaded() const { return isDownloaded_; }
    void setIsDownloaded(bool isDownloaded) { isDownloaded_ = isDownloaded, changed(); }
    bool isDownloading() const { return isDownloading_; }
    void setIsDownloading(bool isDownloading) { isDownloading_ = isDownloading, changed(); }
    double percentDownloaded() const { return percentDownloaded_; }
    void setPercentDownloaded(double percent) { percentDownloaded_ = percent, changed(); }
    bool isUploaded() const { return isUploaded_; }
    void setIsUploaded(bool isUploaded) { isUploaded_ = isUploaded, changed(); }
    bool isUploading() const { return isUploading_; }
    void setIsUploading(bool isUploading) { isUploading_ = isUploading, changed(); }
    double percentUploaded() const { return percentUploaded_; }
    void setPercentUploaded(double percent) { percentUploaded_ = percent, changed(); }
    /// Atomic: may be set by a conflict check on another thread.
    bool hasUnresolvedConflicts() const { return hasUnresolvedConflicts_.load(); }
    void setHasUnresolvedConflicts(bool value) { hasUnresolvedConflicts_.store(value); }
    const std::optional<qn::Date>& fsContentChangeDate() const { return fsContentChangeDate_; }
    void setFsContentChangeDate(std::optional<qn::Date> date) {
        fsContentChangeDate_ = date;
        changed();
    }

    /// Notes that comparing this snapshot with `report` found no change, with equal content
    /// dates. Until one of the compared fields changes (the conflict flag included), comparing
    /// it with that very report again would find the same: `isUnchangedSince(report)` answers
    /// true. The cache's comparison uses this to skip re-reading reports that did not change
    /// (a query replaces a result's record when the item changes). The report is held weakly,
    /// by identity, so a later record at the same address is never taken for it.
    void markUnchangedSince(const std::shared_ptr<const qn::MetadataItem>& report) {
        comparedReport_ = report;
        comparedConflicts_ = hasUnresolvedConflicts();
    }
    bool isUnchangedSince(const std::shared_ptr<const qn::MetadataItem>& report) const {
        return !comparedReport_.owner_before(report) && !report.owner_before(comparedReport_) &&
               report != nullptr && comparedConflicts_ == hasUnresolvedConflicts();
    }

private:
    // The flags together after the values (112 bytes without the compared report, 128 with
    // it): the cache holds one snapshot per file, and the report saves reading every unchanged
    // result again on each comparison.
    std::uint64_t contentSize_ = 0;
    std::optional<std::string> fileName_;
    double percentDownloaded_ = 0.0;
    double percentUploaded_ = 0.0;
    std::optional<qn::Date> fsContentChangeDate_;
    bool isDownloaded_ = false;
    bool isDownloading_ = false;
    bool isUploaded_ = false;
    bool isUploading_ = false;
    std::atomic<bool> hasUnresolvedConflicts_{false};
    bool comparedConflicts_ = false;
    std::weak_ptr<const qn::MetadataItem> comparedReport_;

    void changed() { comparedReport_.reset(); }
};
