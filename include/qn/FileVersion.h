#pragma once

// One version of a document in the cloud container, shaped like the platform's file version: the
// current version (the item's own file) or another version the ubiquity service stores for it,
// typically a conflict version saved on another computer. The host lists an item's versions to
// show the user a conflict, then keeps, copies or deletes them and marks the conflict resolved.
//
// Versions are made only by the static functions below and shared as
// `std::shared_ptr<FileVersion>`. A version is a snapshot of what the service (or the disk, for
// the current version) said when it was listed, except for `isResolved`, which follows this
// object's own `setResolved`. Every member may be called from any thread.
//
// None of these calls coordinates: the caller coordinates on the item, as the functions of
// FileVersionConflicts.h do.

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qn/Date.h"
#include "qn/Error.h"
#include "qn/FileVersionRecord.h"
#include "qn/URL.h"

namespace qn {

class FileVersion {
    struct Token {};  // Keeps the constructor to the factories while letting make_shared use it.

public:
    /// The other versions of the item that are conflicts and not yet resolved, oldest first.
    static std::vector<std::shared_ptr<FileVersion>> unresolvedConflictVersionsOfItemAtURL(
        const qn::URL& url);
    /// The item's own file as a version, or null when nothing is at `url` on disk.
    static std::shared_ptr<FileVersion> currentVersionOfItemAtURL(const qn::URL& url);
    /// Every version the service stores for the item besides the current one, oldest first.
    static std::vector<std::shared_ptr<FileVersion>> otherVersionsOfItemAtURL(const qn::URL& url);
    /// The current version (when there is an item on disk) followed by the other versions.
    static std::vector<std::shared_ptr<FileVersion>> allVersionsOfItemAtURL(const qn::URL& url);
    /// The version with the latest modification date among all versions, the current version
    /// winning a tie; null when the item has none.
    static std::shared_ptr<FileVersion> latestVersionOfItemAtURL(const qn::URL& url);

    FileVersion(Token, qn::URL itemURL, FileVersionRecord record, bool isCurrent);
    FileVersion(const FileVersion&) = delete;
    FileVersion& operator=(const FileVersion&) = delete;

    /// Where this version's contents can be read: the item itself for the current version,
    /// the service's storage otherwise. Read it, never write it.
    qn::URL URL() const { return record_.url; }
    /// The item this is a version of.
    const qn::URL& itemURL() const { return itemURL_; }
    /// The service's identifier of a stored version; "" for the current version.
    const std::string& identifier() const { return record_.identifier; }
    bool isCurrentVersion() const { return isCurrent_; }

    Date modificationDate() const { return record_.modificationDate; }
    /// The name of the computer that saved this version; "" when unknown, as it is for the
    /// current version.
    const std::string& localizedNameOfSavingComputer() const {
        return record_.localizedNameOfSavingComputer;
    }
    /// False for the current version.
    bool isConflict() const { return record_.isConflict; }
    /// True for the current version, which is never in conflict.
    bool isResolved() const { return resolved_.load(std::memory_order_acquire); }

    /// Marks a stored version resolved (or unresolved again) through the service. The current
    /// version cannot change: false with NSFeatureUnsupportedError.
    bool setResolved(bool resolved, Error* error);

    /// Removes a stored version through the service. The current version is the item itself and
    /// is removed with the file manager, never here: false with NSFeatureUnsupportedError.
    bool removeAndReturnError(Error* error);

    /// Puts a copy of this version's contents in place of the item at `url` (usually this
    /// version's item), atomically: the copy is made next to `url` and swapped in, so a failure
    /// leaves the item as it was. Creates the item when nothing is at `url`. The current version
    /// put back onto its own item changes nothing. Returns the URL of the item now holding the
    /// contents, or nullopt with the file manager's error.
    std::optional<qn::URL> replaceItemAtURL(const qn::URL& url, Error* error);

    /// True when both name the same version of the same item, even if listed separately, so that
    /// lists of versions can be compared and subtracted. (Pointer comparison tells whether two
    /// references share one object.)
    bool isEqual(const FileVersion& other) const;

private:
    const qn::URL itemURL_;
    const FileVersionRecord record_;  // isResolved is kept in resolved_
    const bool isCurrent_;
    std::atomic<bool> resolved_;
};

}  // namespace qn
