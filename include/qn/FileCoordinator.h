#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "qn/Error.h"
#include "qn/FilePresenter.h"
#include "qn/URL.h"

namespace qn {

using FileCoordinatorReadingOptions = std::uint64_t;
inline constexpr FileCoordinatorReadingOptions NSFileCoordinatorReadingWithoutChanges = 1;
inline constexpr FileCoordinatorReadingOptions NSFileCoordinatorReadingResolvesSymbolicLink = 2;
inline constexpr FileCoordinatorReadingOptions
    NSFileCoordinatorReadingImmediatelyAvailableMetadataOnly = 4;
inline constexpr FileCoordinatorReadingOptions NSFileCoordinatorReadingForUploading = 8;

using FileCoordinatorWritingOptions = std::uint64_t;
inline constexpr FileCoordinatorWritingOptions NSFileCoordinatorWritingForDeleting = 1;
inline constexpr FileCoordinatorWritingOptions NSFileCoordinatorWritingForMoving = 2;
inline constexpr FileCoordinatorWritingOptions NSFileCoordinatorWritingForMerging = 4;
inline constexpr FileCoordinatorWritingOptions NSFileCoordinatorWritingForReplacing = 8;
inline constexpr FileCoordinatorWritingOptions
    NSFileCoordinatorWritingContentIndependentMetadataOnly = 16;

/// Coordinated access to files, shaped like the platform's file coordinator. A coordinated call
/// blocks the calling thread until access is granted, runs the accessor with the granted URL(s)
/// on that thread, and returns when the accessor has returned.
///
/// Exclusion: readers share; a writer excludes every reader and writer of the same item, of any
/// item below it and of any directory above it. A call for two items acquires both at once, so
/// two opposite moves cannot deadlock. A thread that already holds access (inside an accessor)
/// is never blocked by its own access, so accessors may coordinate again, e.g. to list a parent
/// directory. An accessor must not wait for any other thread that coordinates, not even for
/// reading and not even on an unrelated item: waiters are served in arrival order, so that thread
/// may queue behind a writer (or a move) that waits for this accessor.
///
/// Items are told apart by their standardised paths, without resolving symbolic links: two
/// spellings of one item through a link are two items to coordination. Coordinate on the
/// spelling the library uses for the container (its Documents directory URL and paths below it).
///
/// After a coordinated write, every registered presenter whose presented item lies above a
/// written item hears `presentedSubitemDidChangeAtURL` on its own queue, except the presenter
/// this coordinator was created for. `itemAtURL` reports a move the same way.
///
/// The reading and writing options are accepted as the platform defines them; every read is a
/// shared claim and every write an exclusive one, whatever the options.
///
/// `FileCoordinator` is the interface; `ForwardingFileCoordinator` passes every call on, so a test
/// can override one to inject a failure or hold a call; the library obtains coordinators through
/// `FileCoordinator::make`, whose factory tests may replace. A coordinator may be used from any
/// thread.
class FileCoordinator {
public:
    using Accessor = std::function<void(const URL& newURL)>;
    using PairAccessor = std::function<void(const URL& newURL1, const URL& newURL2)>;
    using Factory =
        std::function<std::shared_ptr<FileCoordinator>(std::shared_ptr<FilePresenter> presenter)>;

    virtual ~FileCoordinator() = default;

    /// A new coordinator acting for `filePresenter` (may be null), from the current factory.
    static std::shared_ptr<FileCoordinator> make(std::shared_ptr<FilePresenter> filePresenter);
    /// Replaces the factory (null restores the in-process coordinator). For tests.
    static void setFactory(Factory factory);

    /// Registers a presenter process-wide; adding it twice registers it once. It is held weakly:
    /// a presenter that goes away is forgotten.
    static void addFilePresenter(const std::shared_ptr<FilePresenter>& presenter);
    static void removeFilePresenter(const FilePresenter* presenter);
    static std::vector<std::shared_ptr<FilePresenter>> filePresenters();

    /// Coordinated reading of `url`. When access cannot be granted (the coordinator was
    /// cancelled, or a URL is empty), the accessor does not run and `outError` receives the
    /// reason.
    virtual void coordinateReadingItemAtURL(const URL& url, FileCoordinatorReadingOptions options,
                                            Error* outError, const Accessor& byAccessor) = 0;
    virtual void coordinateWritingItemAtURL(const URL& url, FileCoordinatorWritingOptions options,
                                            Error* outError, const Accessor& byAccessor) = 0;
    /// Reading one item and writing another (a copy), both granted at once.
    virtual void coordinateReadingItemAtURL(const URL& readingURL,
                                            FileCoordinatorReadingOptions readingOptions,
                                            const URL& writingItemAtURL,
                                            FileCoordinatorWritingOptions writingOptions,
                                            Error* outError, const PairAccessor& byAccessor) = 0;
    /// Writing two items (a move), both granted at once.
    virtual void coordinateWritingItemAtURL(const URL& url1, FileCoordinatorWritingOptions options1,
                                            const URL& writingItemAtURL,
                                            FileCoordinatorWritingOptions options2, Error* outError,
                                            const PairAccessor& byAccessor) = 0;

    /// Tells the presenters above `oldURL` or `didMoveToURL` that the item moved. Call it from
    /// the accessor of the coordinated write that moved the item.
    virtual void itemAtURL(const URL& oldURL, const URL& didMoveToURL) = 0;

    /// Makes the calls of this coordinator that are waiting, and any later ones, fail with
    /// `NSUserCancelledError` without running their accessors. Any thread.
    virtual void cancel() = 0;
};

}  // namespace qn
