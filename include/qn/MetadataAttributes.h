#pragma once

// The names of metadata attributes, query scopes and query notifications, with the platform's
// spellings. Each constant's value is its own name, as the platform's are.

namespace qn {

// Attributes of a metadata item.
inline constexpr const char* NSMetadataItemPathKey = "NSMetadataItemPathKey";
inline constexpr const char* NSMetadataItemFSNameKey = "NSMetadataItemFSNameKey";
inline constexpr const char* NSMetadataItemDisplayNameKey = "NSMetadataItemDisplayNameKey";
inline constexpr const char* NSMetadataItemURLKey = "NSMetadataItemURLKey";
inline constexpr const char* NSMetadataItemFSSizeKey = "NSMetadataItemFSSizeKey";
inline constexpr const char* NSMetadataItemFSCreationDateKey = "NSMetadataItemFSCreationDateKey";
inline constexpr const char* NSMetadataItemFSContentChangeDateKey =
    "NSMetadataItemFSContentChangeDateKey";
inline constexpr const char* NSMetadataItemIsUbiquitousKey = "NSMetadataItemIsUbiquitousKey";
inline constexpr const char* NSMetadataUbiquitousItemHasUnresolvedConflictsKey =
    "NSMetadataUbiquitousItemHasUnresolvedConflictsKey";
// The downloading status is reported under the URL resource key's name,
// NSURLUbiquitousItemDownloadingStatusKey, with its values (FileAttributes.h).
/// The older boolean "downloaded" attribute, still reported.
inline constexpr const char* NSMetadataUbiquitousItemIsDownloadedKey =
    "NSMetadataUbiquitousItemIsDownloadedKey";
inline constexpr const char* NSMetadataUbiquitousItemIsDownloadingKey =
    "NSMetadataUbiquitousItemIsDownloadingKey";
inline constexpr const char* NSMetadataUbiquitousItemIsUploadedKey =
    "NSMetadataUbiquitousItemIsUploadedKey";
inline constexpr const char* NSMetadataUbiquitousItemIsUploadingKey =
    "NSMetadataUbiquitousItemIsUploadingKey";
inline constexpr const char* NSMetadataUbiquitousItemPercentDownloadedKey =
    "NSMetadataUbiquitousItemPercentDownloadedKey";
inline constexpr const char* NSMetadataUbiquitousItemPercentUploadedKey =
    "NSMetadataUbiquitousItemPercentUploadedKey";

// Search scopes.
inline constexpr const char* NSMetadataQueryUbiquitousDocumentsScope =
    "NSMetadataQueryUbiquitousDocumentsScope";
inline constexpr const char* NSMetadataQueryUbiquitousDataScope =
    "NSMetadataQueryUbiquitousDataScope";

// Notifications of a metadata query; the sender is the query.
inline constexpr const char* NSMetadataQueryDidStartGatheringNotification =
    "NSMetadataQueryDidStartGatheringNotification";
inline constexpr const char* NSMetadataQueryGatheringProgressNotification =
    "NSMetadataQueryGatheringProgressNotification";
inline constexpr const char* NSMetadataQueryDidFinishGatheringNotification =
    "NSMetadataQueryDidFinishGatheringNotification";
inline constexpr const char* NSMetadataQueryDidUpdateNotification =
    "NSMetadataQueryDidUpdateNotification";

// Posted (no sender) when the signed-in account changes.
inline constexpr const char* NSUbiquityIdentityDidChangeNotification =
    "NSUbiquityIdentityDidChangeNotification";

}  // namespace qn
