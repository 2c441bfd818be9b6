#pragma once

// The library's exported constants: the change types it reports, and (as the library grows)
// the names of the notifications it posts, their user-info keys and its error domain. Like the
// library's classes they live at global scope under their own QNiCloud prefix.

#include <cstdint>

/// What changed about one item between two snapshots of its metadata, as
/// QNiCloudMetadataItem::compareWithMetadataItem reduces it. The same value is posted to the
/// host with a file-change notification and selects the field of a metadata update, so the
/// numbers are part of the interface and never change.
enum QNiCloudFileChangeType : std::uint64_t {
    /// Nothing that matters to the host changed.
    QNiCloudFileChangeNone = 0,
    /// The item was not downloaded and now is.
    QNiCloudFileChangeDownloaded = 1,
    /// A download of the item began.
    QNiCloudFileChangeDownloadingStarted = 2,
    /// The item is still not downloaded and its download percentage moved.
    QNiCloudFileChangeDownloadProgress = 3,
    /// The item was not uploaded and now is.
    QNiCloudFileChangeUploaded = 4,
    /// An upload of the item began.
    QNiCloudFileChangeUploadingStarted = 5,
    /// The item is still not uploaded and its upload percentage moved.
    QNiCloudFileChangeUploadProgress = 6,
    /// The item gained unresolved conflict versions.
    QNiCloudFileChangeConflictAppeared = 7,
    /// The item's unresolved conflict versions are gone.
    QNiCloudFileChangeConflictResolved = 8,
    /// The item's content is newer than before.
    QNiCloudFileChangeContentChanged = 9,
};
