#pragma once

// Ending a version conflict of a document: the shared utility library's operations on file
// versions, as free functions. They live with the platform because they coordinate and use the
// file manager. The library calls them from background threads; they run synchronously on the
// calling thread, block while they wait for coordinated access, and call every handler on that
// thread before returning. Never call them on the main thread or from inside a coordinated
// accessor that another thread's claim is waiting on.

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "qn/Error.h"
#include "qn/FileCoordinator.h"
#include "qn/FileVersion.h"
#include "qn/URL.h"

namespace qn {

/// Asked once, when the current version is among the versions to delete: answer true to have
/// the item's file removed, false to keep it. Not asked when the current version is not to be
/// deleted. Without a handler the file is kept: a document is deleted only with consent.
using ConflictRemoveCurrentVersionHandler =
    std::function<bool(const std::shared_ptr<FileVersion>& currentVersion)>;

/// Called after each version is handled (saved or deleted):
/// - `version`: the version just handled;
/// - `handledCount`: how many versions have been handled so far, this one included, from 1 to
///   `totalCount`;
/// - `savedURL`: the new copy holding the version's contents, or nullopt when nothing new was
///   written (a deletion, or the current version kept where it is);
/// - `totalCount`: the number of versions to save plus the number to delete (a version in both
///   lists counts twice).
using ConflictProgressHandler =
    std::function<void(const std::shared_ptr<FileVersion>& version, std::size_t handledCount,
                       const std::optional<URL>& savedURL, std::size_t totalCount)>;

/// Called once after everything succeeded: the item's URL and the URLs of the new copies, in the
/// order the versions to save were given (the current version kept in place adds none).
using ConflictCompletionHandler =
    std::function<void(const URL& itemURL, const std::vector<URL>& savedURLs)>;

/// Called at most once, with the first failure; nothing is done after it and the completion
/// handler is not called. Copies saved before the failure stay.
using ConflictErrorHandler = std::function<void(const Error& error)>;

/// Removes one stored version of an item (a conflict version, usually), under a coordinated
/// write of the version's item: the item's set of versions changes, its contents do not, so no
/// deleting or moving option is given. `fileCoordinator` may be null: a new one is made for no
/// presenter. Refuses, without coordinating, a null version (NSFileWriteUnknownError) and the
/// current version (NSFeatureUnsupportedError); the service's error or the coordinator's
/// (cancelled: NSUserCancelledError) is passed through.
bool removeConflictFileVersion(const std::shared_ptr<FileVersion>& version,
                               const std::shared_ptr<FileCoordinator>& fileCoordinator,
                               Error* error);

/// Ends the conflict of the item at `url`:
/// 1. Each version of `bySavingVersions`, in order, is copied into the directory
///    `parentURLToSaveTo` under a new name that never replaces anything there:
///    "Name (conflict from Computer).ext" (or "Name (conflict).ext" when the saving computer is
///    unknown), then "Name (conflict from Computer) 2.ext", 3, ... The current version stays
///    where it is and is not copied. Each copy is made under a coordinated read of the item and
///    a coordinated write of `parentURLToSaveTo`, staged under a hidden name and moved to its
///    name, so a failed copy leaves no half-written document.
/// 2. Each version of `andDeletingVersions`, in order, is removed through the service under a
///    coordinated write of the item, except the current version (see 4).
/// 3. Every conflict version still unresolved is marked resolved, under a coordinated write of
///    the item.
/// 4. Last, if the current version is among those to delete and the remove-current-version
///    handler answers true, the item's file is removed under a coordinated write for deleting
///    (last, because removing the item ends its versions).
/// Progress is reported after each version of 1, 2 and 4, then completion.
///
/// Every version must be a version of `url`; `url` must not be empty, nor `parentURLToSaveTo`
/// when a version other than the current one is to be saved. Bad input is refused before
/// anything is done, through the error handler. `fileCoordinator` may be null: a new one is made
/// for no presenter. Every handler may be empty. File-manager, service and coordinator errors
/// are passed through unchanged.
void resolveConflictsForItemAtURL(const URL& url,
                                  std::vector<std::shared_ptr<FileVersion>> bySavingVersions,
                                  std::vector<std::shared_ptr<FileVersion>> andDeletingVersions,
                                  const URL& parentURLToSaveTo,
                                  std::shared_ptr<FileCoordinator> fileCoordinator,
                                  const ConflictRemoveCurrentVersionHandler& removeCurrentVersion,
                                  const ConflictProgressHandler& progressHandler,
                                  const ConflictCompletionHandler& completionHandler,
                                  const ConflictErrorHandler& errorHandler);

}  // namespace qn
