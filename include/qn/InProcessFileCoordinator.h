#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "qn/FileCoordinator.h"

namespace qn {

/// The real file coordinator: coordinates the threads of this process (see `FileCoordinator` for
/// the rules). Created through `FileCoordinator::make` or directly. Any thread.
class InProcessFileCoordinator final : public FileCoordinator {
public:
    /// `filePresenter` (may be null) is the presenter on whose behalf this coordinator acts; it
    /// is not told about this coordinator's changes. It is held weakly.
    explicit InProcessFileCoordinator(const std::shared_ptr<FilePresenter>& filePresenter);

    void coordinateReadingItemAtURL(const URL& url, FileCoordinatorReadingOptions options,
                                    Error* outError, const Accessor& byAccessor) override;
    void coordinateWritingItemAtURL(const URL& url, FileCoordinatorWritingOptions options,
                                    Error* outError, const Accessor& byAccessor) override;
    void coordinateReadingItemAtURL(const URL& readingURL,
                                    FileCoordinatorReadingOptions readingOptions,
                                    const URL& writingItemAtURL,
                                    FileCoordinatorWritingOptions writingOptions, Error* outError,
                                    const PairAccessor& byAccessor) override;
    void coordinateWritingItemAtURL(const URL& url1, FileCoordinatorWritingOptions options1,
                                    const URL& writingItemAtURL,
                                    FileCoordinatorWritingOptions options2, Error* outError,
                                    const PairAccessor& byAccessor) override;
    void itemAtURL(const URL& oldURL, const URL& didMoveToURL) override;
    void cancel() override;

private:
    struct Access {
        URL url;
        bool writes;
    };

    /// Holds `accesses` for the length of `run`, then tells presenters about the writes.
    void coordinate(const std::vector<Access>& accesses, Error* outError,
                    const std::function<void()>& run);
    /// Enqueues `callback` on the queue of every other presenter above one of `urls`.
    void notifyPresentersAbove(const std::vector<URL>& urls,
                               const std::function<void(FilePresenter&)>& callback) const;

    const std::weak_ptr<FilePresenter> filePresenter_;
    std::atomic<bool> cancelled_{false};
};

}  // namespace qn
