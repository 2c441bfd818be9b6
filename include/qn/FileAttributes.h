#pragma once

// The names of file attributes and URL resource values, with the platform's spellings, so that
// the library reads like its design. Attribute dictionaries (qn::Dictionary) use these keys.

#include <cstdint>

namespace qn {

// Keys of an item's attribute dictionary (FileManager::attributesOfItemAtPath).
inline constexpr const char* NSFileType = "NSFileType";  // one of the NSFileType... values
inline constexpr const char* NSFileSize = "NSFileSize";  // unsigned 64-bit byte count
inline constexpr const char* NSFileModificationDate = "NSFileModificationDate";  // Date
inline constexpr const char* NSFileCreationDate = "NSFileCreationDate";          // Date, when known
inline constexpr const char* NSFilePosixPermissions = "NSFilePosixPermissions";  // 0..07777
inline constexpr const char* NSFileOwnerAccountID = "NSFileOwnerAccountID";
inline constexpr const char* NSFileGroupOwnerAccountID = "NSFileGroupOwnerAccountID";
inline constexpr const char* NSFileOwnerAccountName = "NSFileOwnerAccountName";
inline constexpr const char* NSFileGroupOwnerAccountName = "NSFileGroupOwnerAccountName";
inline constexpr const char* NSFileReferenceCount = "NSFileReferenceCount";
inline constexpr const char* NSFileSystemNumber = "NSFileSystemNumber";
inline constexpr const char* NSFileSystemFileNumber = "NSFileSystemFileNumber";

// Values of NSFileType.
inline constexpr const char* NSFileTypeRegular = "NSFileTypeRegular";
inline constexpr const char* NSFileTypeDirectory = "NSFileTypeDirectory";
inline constexpr const char* NSFileTypeSymbolicLink = "NSFileTypeSymbolicLink";
inline constexpr const char* NSFileTypeCharacterSpecial = "NSFileTypeCharacterSpecial";
inline constexpr const char* NSFileTypeBlockSpecial = "NSFileTypeBlockSpecial";
inline constexpr const char* NSFileTypeSocket = "NSFileTypeSocket";
inline constexpr const char* NSFileTypeUnknown = "NSFileTypeUnknown";

// URL resource keys (FileManager::resourceValue).
inline constexpr const char* NSURLFileSizeKey = "NSURLFileSizeKey";  // unsigned 64-bit
inline constexpr const char* NSURLContentModificationDateKey = "NSURLContentModificationDateKey";
inline constexpr const char* NSURLIsDirectoryKey = "NSURLIsDirectoryKey";      // bool
inline constexpr const char* NSURLIsRegularFileKey = "NSURLIsRegularFileKey";  // bool
// Ubiquitous items: answered by the ubiquity service.
inline constexpr const char* NSURLUbiquitousItemIsUploadedKey = "NSURLUbiquitousItemIsUploadedKey";
inline constexpr const char* NSURLUbiquitousItemDownloadingStatusKey =
    "NSURLUbiquitousItemDownloadingStatusKey";
inline constexpr const char* NSURLUbiquitousItemIsDownloadedKey =
    "NSURLUbiquitousItemIsDownloadedKey";  // the older key, still answered
// Values of NSURLUbiquitousItemDownloadingStatusKey.
inline constexpr const char* NSURLUbiquitousItemDownloadingStatusCurrent =
    "NSURLUbiquitousItemDownloadingStatusCurrent";
inline constexpr const char* NSURLUbiquitousItemDownloadingStatusDownloaded =
    "NSURLUbiquitousItemDownloadingStatusDownloaded";
inline constexpr const char* NSURLUbiquitousItemDownloadingStatusNotDownloaded =
    "NSURLUbiquitousItemDownloadingStatusNotDownloaded";

// Directory enumeration options (bit set).
using DirectoryEnumerationOptions = std::uint64_t;
inline constexpr DirectoryEnumerationOptions NSDirectoryEnumerationSkipsSubdirectoryDescendants = 1;
inline constexpr DirectoryEnumerationOptions NSDirectoryEnumerationSkipsPackageDescendants = 2;
inline constexpr DirectoryEnumerationOptions NSDirectoryEnumerationSkipsHiddenFiles = 4;

// Item replacement options (bit set).
using ItemReplacementOptions = std::uint64_t;
inline constexpr ItemReplacementOptions NSFileManagerItemReplacementUsingNewMetadataOnly = 1;
inline constexpr ItemReplacementOptions NSFileManagerItemReplacementWithoutDeletingBackupItem = 2;

}  // namespace qn
