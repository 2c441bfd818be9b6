#pragma once

// The store port of the embedded cloud drive: what a device's sync engine needs of the server
// that holds every account's items. It is written for a remote with revisions, so that a
// network store fits behind it as well as a directory: nothing here assumes the store is a
// local path, and every change is conditional on what the device last saw.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qn/Date.h"
#include "qn/Error.h"
#include "qn/Object.h"

namespace qn {

/// The domain of the errors a store reports. Each error's localized description says what
/// failed and names the item; `NSFilePathErrorKey` holds the store path when there is one.
inline constexpr const char* QNDriveStoreErrorDomain = "QNDriveStoreErrorDomain";

/// Codes in QNDriveStoreErrorDomain.
enum DriveStoreError : std::int64_t {
    /// The store cannot be reached (a directory store whose directory has gone away).
    DriveStoreErrorUnreachable = 1,
    /// No such account, item, revision or version.
    DriveStoreErrorNotFound = 2,
    /// The item is not at the revision the change was made against: someone else changed it.
    /// `DriveStoreCurrentRevisionKey` holds the store's revision ("" when there is no item).
    DriveStoreErrorRevisionMismatch = 3,
    /// The path is not one the store can hold (see `DriveStore::validatePath`).
    DriveStoreErrorInvalidName = 4,
    /// The store's own records are damaged; nothing was changed.
    DriveStoreErrorCorrupt = 5,
    /// Reading or writing failed (disk full, permissions); the underlying error is under
    /// NSUnderlyingErrorKey.
    DriveStoreErrorIO = 6,
    /// The caller's progress handler asked to stop; nothing was changed.
    DriveStoreErrorCancelled = 7,
    /// A folder is in the way of a file, a file in the way of a folder, or the parent is a file.
    DriveStoreErrorNotAFolder = 8,
    /// Something is already at the place an item is moved to.
    DriveStoreErrorExists = 9,
    /// A folder to remove still holds items.
    DriveStoreErrorNotEmpty = 10,
};

/// With DriveStoreErrorRevisionMismatch: the store's current revision of the item.
inline constexpr const char* DriveStoreCurrentRevisionKey = "DriveStoreCurrentRevision";

/// An account's items and their conflict versions, at revisions.
///
/// Paths are relative to the account: components separated by "/", the first one naming the
/// container ("iCloud.com.example.App/Documents/Notes.txt"). Folders are items of their own;
/// an item's parent folder must exist before it is written.
///
/// Revisions are opaque texts that change with every write, move or removal of an item; a
/// folder's revision changes only with the folder itself. Every change names the revision it
/// was made against, so an edit made on an older revision is refused and never overwrites
/// another device's work: the device then keeps its edit as a conflict version.
///
/// Threads: every member may be called from any thread at any time, also by several processes
/// on one store. Members block on the store (a disk, a network) and never call back into the
/// store from a handler.
class DriveStore : public Object {
public:
    struct Item {
        std::string path;
        bool isDirectory = false;
        std::uint64_t size = 0;  // 0 for folders
        std::string revision;
        Date modificationDate;
        /// The device that wrote this revision.
        std::string device;
        /// Conflict versions of the item not yet resolved.
        std::uint32_t unresolvedConflicts = 0;

        bool operator==(const Item&) const = default;
    };

    /// Another version of an item kept beside it: an edit made against an older revision.
    struct Version {
        std::string identifier;
        std::uint64_t size = 0;
        Date modificationDate;
        std::string device;
        bool resolved = false;

        bool operator==(const Version&) const = default;
    };

    /// What changed in an account since a change token.
    struct Changes {
        /// True when `items` is the whole account (the token was empty or too old); the caller
        /// then forgets every item it knew that is not listed.
        bool reset = false;
        /// Items created or changed (contents, place, conflicts), in path order.
        std::vector<Item> items;
        /// Paths of items that are gone, moved away included, in path order.
        std::vector<std::string> removedPaths;
        /// Hand it to the next call to hear only of later changes.
        std::string token;
    };

    /// What a change must find: any state, no item at the path, or the item at a revision.
    struct Condition {
        enum class Kind { Any, Absent, AtRevision };
        Kind kind = Kind::Any;
        std::string revision;

        static Condition any() { return {}; }
        static Condition absent() { return {Kind::Absent, {}}; }
        static Condition atRevision(std::string revision) {
            return {Kind::AtRevision, std::move(revision)};
        }
    };

    /// Told of the bytes moved so far out of the total; answers false to stop. An upload's last
    /// call (done == total) comes before the write is committed, so a caller that finds its
    /// source changed meanwhile can still drop it.
    using Progress = std::function<bool(std::uint64_t done, std::uint64_t total)>;

    ~DriveStore() override = default;

    /// Null when `path` is a path this store can hold: not empty, UTF-8, no empty, "." or ".."
    /// component, no control characters, components of at most 255 bytes, 1024 bytes in all.
    /// Otherwise the error (DriveStoreErrorInvalidName) that says why.
    static std::optional<Error> validatePath(std::string_view path);

    // The store.

    /// Whether the store can be reached now. Cheap enough to ask before every batch of work.
    virtual bool isReachable() = 0;
    /// The accounts the store holds, sorted.
    virtual std::optional<std::vector<std::string>> accounts(Error* error) = 0;
    /// Creates the account when the store does not hold it yet.
    virtual bool addAccount(std::string_view account, Error* error) = 0;

    // Items of an account.

    /// The items changed since `token` (empty: everything, with `reset`).
    virtual std::optional<Changes> changesSince(std::string_view account, std::string_view token,
                                                Error* error) = 0;
    /// The item at `path`; nullopt with DriveStoreErrorNotFound when there is none.
    virtual std::optional<Item> itemAtPath(std::string_view account, std::string_view path,
                                           Error* error) = 0;
    /// Up to `length` bytes of the item's contents at `revision` from `offset` (fewer at the
    /// end). DriveStoreErrorNotFound once the revision has been replaced.
    virtual std::optional<std::string> read(std::string_view account, std::string_view path,
                                            std::string_view revision, std::uint64_t offset,
                                            std::size_t length, Error* error) = 0;
    /// Writes the item's contents at `revision` to `fd` from its current offset. The default
    /// reads in ranges; stores that can copy faster do.
    virtual bool download(std::string_view account, std::string_view path,
                          std::string_view revision, int fd, const Progress& progress,
                          Error* error);
    /// Writes the file `path` with the contents of `fd` from its current offset to its end,
    /// when the item meets `condition`; the new revision's item is returned.
    virtual std::optional<Item> upload(std::string_view account, std::string_view path, int fd,
                                       const Condition& condition, Date modificationDate,
                                       std::string_view device, const Progress& progress,
                                       Error* error) = 0;
    /// Creates the folder `path` when the item meets `condition` (a folder already there meets
    /// `absent` too: creating a folder twice is no conflict).
    virtual std::optional<Item> makeDirectory(std::string_view account, std::string_view path,
                                              const Condition& condition, Date modificationDate,
                                              std::string_view device, Error* error) = 0;
    /// Removes the item and its versions when it meets `condition`. A folder must be empty: what
    /// is in it is removed item by item, each on the revision its remover saw, so that an item
    /// another device added meanwhile is never removed unseen.
    virtual bool remove(std::string_view account, std::string_view path, const Condition& condition,
                        Error* error) = 0;
    /// Moves the item (a folder with everything in it) when it meets `condition` and nothing is
    /// at `to`; returns the item in its new place.
    virtual std::optional<Item> move(std::string_view account, std::string_view from,
                                     std::string_view to, const Condition& condition,
                                     Error* error) = 0;

    // Conflict versions.

    /// Keeps the contents of `fd` (from its current offset) as an unresolved conflict version of
    /// the file `path`.
    virtual std::optional<Version> addConflictVersion(std::string_view account,
                                                      std::string_view path, int fd,
                                                      Date modificationDate,
                                                      std::string_view device, Error* error) = 0;
    /// The item's versions, oldest first.
    virtual std::optional<std::vector<Version>> versions(std::string_view account,
                                                         std::string_view path, Error* error) = 0;
    /// Writes a version's contents to `fd`.
    virtual bool downloadVersion(std::string_view account, std::string_view path,
                                 std::string_view identifier, int fd, Error* error) = 0;
    virtual bool setVersionResolved(std::string_view account, std::string_view path,
                                    std::string_view identifier, bool resolved, Error* error) = 0;
    virtual bool removeVersion(std::string_view account, std::string_view path,
                               std::string_view identifier, Error* error) = 0;
};

}  // namespace qn
