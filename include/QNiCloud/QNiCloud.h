#pragma once

// The library's exported constants: the names of the notifications it posts, their user-info
// keys, the account states and change types they carry, its error domain and its version. Like
// the library's classes they live at global scope under their own QNiCloud prefix. Each string
// constant's value is its own name, so a host may also match notifications by the literal text.

#include <cstdint>

// Version of the library.

/// The library's version number.
inline constexpr double QNiCloudVersionNumber = 1.0;
/// The library's what(1) identification string, line feed included.
inline constexpr char QNiCloudVersionString[] = "@(#)PROGRAM:QNiCloud  PROJECT:qnicloud-1\n";

// Notification names. Every notification is posted through the default notification centre on
// the main thread.

/// For the host's own use: the library never posts or observes it.
inline constexpr const char* QNiCloudRefreshDirectoriesNotification =
    "QNiCloudRefreshDirectoriesNotification";
/// An item appeared in the container. No sender; QNiCloudSourcePathKey, QNiCloudIsDirectoryKey.
inline constexpr const char* QNiCloudFileDidAppearNotification =
    "QNiCloudFileDidAppearNotification";
/// An item left the container. No sender; QNiCloudSourcePathKey, QNiCloudIsDirectoryKey.
inline constexpr const char* QNiCloudFileWasRemovedNotification =
    "QNiCloudFileWasRemovedNotification";
/// An item's ubiquity state changed. No sender; QNiCloudSourcePathKey (normalised path),
/// QNiCloudFileChangeTypeKey.
inline constexpr const char* QNiCloudFileDidChangeNotification =
    "QNiCloudFileDidChangeNotification";
/// The account signed out, signed in or changed. The presenter as sender;
/// QNiCloudAccountStateKey and, when known, QNiCloudContainerURLKey.
inline constexpr const char* QNiCloudAccountStateDidChangeNotification =
    "QNiCloudAccountStateDidChangeNotification";
/// The container was set up and may be used. The presenter as sender; QNiCloudContainerURLKey.
inline constexpr const char* QNiCloudDidInitializeContainerNotification =
    "QNiCloudDidInitializeContainerNotification";
/// The metadata cache took in a batch of query results. No sender;
/// QNiCloudNumberOfFilesInCacheKey.
inline constexpr const char* QNiCloudDidUpdateCacheNotification =
    "QNiCloudDidUpdateCacheNotification";
/// The metadata cache holds the whole container for the first time. No sender;
/// QNiCloudNumberOfFilesInCacheKey, QNiCloudNumberOfFilesInDocumentsDirectoryKey.
inline constexpr const char* QNiCloudCacheInitializedNotification =
    "QNiCloudCacheInitializedNotification";
/// The metadata cache was emptied. No sender, no user info.
inline constexpr const char* QNiCloudDidClearCacheNotification =
    "QNiCloudDidClearCacheNotification";

// User-info keys.

/// For the host's own use with QNiCloudRefreshDirectoriesNotification; the library never sets it.
inline constexpr const char* QNiCloudRefreshTypeKey = "QNiCloudRefreshTypeKey";
/// A QNiCloudFileChangeType, as a signed integer.
inline constexpr const char* QNiCloudFileChangeTypeKey = "QNiCloudFileChangeTypeKey";
/// A QNiCloudAccountState, as a signed integer.
inline constexpr const char* QNiCloudAccountStateKey = "QNiCloudAccountStateKey";
/// A URL: the container's root.
inline constexpr const char* QNiCloudContainerURLKey = "QNiCloudContainerURLKey";
/// An unsigned integer: items in the metadata cache.
inline constexpr const char* QNiCloudNumberOfFilesInCacheKey = "QNiCloudNumberOfFilesInCacheKey";
/// An unsigned integer: items in the metadata cache below the Documents directory.
inline constexpr const char* QNiCloudNumberOfFilesInDocumentsDirectoryKey =
    "QNiCloudNumberOfFilesInDocumentsDirectoryKey";
/// A path string: the item a notification or an error is about.
inline constexpr const char* QNiCloudSourcePathKey = "QNiCloudSourcePathKey";
/// A path string: the destination of a failed move or copy. The misspelling is part of the
/// interface: hosts match on it.
inline constexpr const char* QNiCloudDestionationPathKey = "QNiCloudDestionationPathKey";
/// A boolean: whether the item is a directory.
inline constexpr const char* QNiCloudIsDirectoryKey = "QNiCloudIsDirectoryKey";

// Errors.

/// The domain of the errors the library makes itself; every other error it reports is the
/// platform's, passed through.
inline constexpr const char* QNiCloudErrorDomain = "QNiCloudErrorDomain";

// Codes in QNiCloudErrorDomain. They are the POSIX values of the conditions they stand for.

/// A file that was being downloaded was removed.
inline constexpr std::int64_t QNiCloudErrorNoSuchFile = 2;
/// A download was refused, or the item gained a conflict while it was downloaded.
inline constexpr std::int64_t QNiCloudErrorInputOutput = 5;
/// The destination of a move or copy exists, or a listed path is not in the initialised cache.
inline constexpr std::int64_t QNiCloudErrorFileExists = 17;
/// The cloud cannot be reached.
inline constexpr std::int64_t QNiCloudErrorNetworkUnreachable = 51;

/// The account situation carried by QNiCloudAccountStateDidChangeNotification. Only
/// Unavailable and Available describe a lasting state (what
/// QNiCloudDocumentsPresenter::currentAccountState answers); Changed and BecameAvailable name
/// transitions and exist only in notifications.
enum QNiCloudAccountState : std::uint64_t {
    /// No account: the user signed out, or never signed in.
    QNiCloudAccountStateUnavailable = 0,
    /// An account is signed in, the same as before.
    QNiCloudAccountStateAvailable = 1,
    /// Another account replaced the one signed in.
    QNiCloudAccountStateChanged = 2,
    /// An account is signed in where there was none.
    QNiCloudAccountStateBecameAvailable = 3,
};

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
