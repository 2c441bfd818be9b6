#include "qn/InProcessFileCoordinator.h"

#include <algorithm>
#include <string>

#include "CoordinationArbiter.h"
#include "qn/Logger.h"

namespace qn {

InProcessFileCoordinator::InProcessFileCoordinator(
    const std::shared_ptr<FilePresenter>& filePresenter)
    : filePresenter_(filePresenter) {}

namespace {

URL grantedReadingURL(const URL& url, FileCoordinatorReadingOptions options) {
    return (options & NSFileCoordinatorReadingResolvesSymbolicLink)
               ? url.URLByResolvingSymlinksInPath()
               : url;
}

}  // namespace

void InProcessFileCoordinator::coordinate(const std::vector<Access>& accesses, Error* outError,
                                          const std::function<void()>& run) {
    for (const auto& access : accesses) {
        if (access.url.isEmpty()) {
            setError(outError,
                     Error(NSCocoaErrorDomain, NSFileReadInvalidFileNameError,
                           {{NSLocalizedDescriptionKey, "Cannot coordinate an empty URL."}}));
            return;
        }
    }
    auto& arbiter = CoordinationArbiter::shared();
    std::vector<CoordinationArbiter::Item> items;
    std::vector<URL> written;
    for (const auto& access : accesses) {
        items.push_back({access.url.URLByStandardizingPath().path(), access.writes});
        if (access.writes) {
            written.push_back(access.url);
        }
    }
    const auto claim = arbiter.acquire(std::move(items), cancelled_);
    if (claim == 0) {
        setError(outError, Error(NSCocoaErrorDomain, NSUserCancelledError,
                                 {{NSURLErrorKey, accesses.front().url}}));
        return;
    }
    {
        struct Release {
            CoordinationArbiter& arbiter;
            std::uint64_t claim;
            ~Release() { arbiter.release(claim); }
        } release{arbiter, claim};
        run();
    }
    for (const auto& url : written) {
        notifyPresentersAbove({url},
                              [url](FilePresenter& p) { p.presentedSubitemDidChangeAtURL(url); });
    }
}

void InProcessFileCoordinator::notifyPresentersAbove(
    const std::vector<URL>& urls, const std::function<void(FilePresenter&)>& callback) const {
    std::vector<std::string> paths;
    for (const auto& url : urls) {
        paths.push_back(url.URLByStandardizingPath().path());
    }
    for (const auto& presenter : CoordinationArbiter::shared().presenters()) {
        // Compared as owners, not addresses: a new presenter may live where a gone one did.
        if (!filePresenter_.owner_before(presenter) && !presenter.owner_before(filePresenter_)) {
            continue;
        }
        const auto presented = presenter->presentedItemURL();
        if (!presented) {
            continue;
        }
        const auto directory = presented->URLByStandardizingPath().path();
        const bool above = std::any_of(paths.begin(), paths.end(), [&](const std::string& path) {
            return CoordinationArbiter::isBelow(directory, path);
        });
        if (!above) {
            continue;
        }
        const auto queue = presenter->presentedItemOperationQueue();
        if (!queue) {
            Logger::named("iCloud").warn(
                "File presenter for {} has no operation queue; it is not told about changes.",
                presented->path());
            continue;
        }
        queue->addOperationWithBlock([weak = std::weak_ptr<FilePresenter>(presenter), callback] {
            if (const auto live = weak.lock()) {
                callback(*live);
            }
        });
    }
}

void InProcessFileCoordinator::coordinateReadingItemAtURL(const URL& url,
                                                          FileCoordinatorReadingOptions options,
                                                          Error* outError,
                                                          const Accessor& byAccessor) {
    const URL granted = grantedReadingURL(url, options);
    coordinate({{granted, false}}, outError, [&] { byAccessor(granted); });
}

void InProcessFileCoordinator::coordinateWritingItemAtURL(const URL& url,
                                                          FileCoordinatorWritingOptions,
                                                          Error* outError,
                                                          const Accessor& byAccessor) {
    coordinate({{url, true}}, outError, [&] { byAccessor(url); });
}

void InProcessFileCoordinator::coordinateReadingItemAtURL(
    const URL& readingURL, FileCoordinatorReadingOptions readingOptions,
    const URL& writingItemAtURL, FileCoordinatorWritingOptions, Error* outError,
    const PairAccessor& byAccessor) {
    const URL granted = grantedReadingURL(readingURL, readingOptions);
    coordinate({{granted, false}, {writingItemAtURL, true}}, outError,
               [&] { byAccessor(granted, writingItemAtURL); });
}

void InProcessFileCoordinator::coordinateWritingItemAtURL(
    const URL& url1, FileCoordinatorWritingOptions, const URL& writingItemAtURL,
    FileCoordinatorWritingOptions, Error* outError, const PairAccessor& byAccessor) {
    coordinate({{url1, true}, {writingItemAtURL, true}}, outError,
               [&] { byAccessor(url1, writingItemAtURL); });
}

void InProcessFileCoordinator::itemAtURL(const URL& oldURL, const URL& didMoveToURL) {
    notifyPresentersAbove({oldURL, didMoveToURL}, [oldURL, didMoveToURL](FilePresenter& p) {
        p.presentedSubitemAtURL(oldURL, didMoveToURL);
    });
}

void InProcessFileCoordinator::cancel() {
    cancelled_ = true;
    CoordinationArbiter::shared().wakeWaiters();
}

}  // namespace qn
