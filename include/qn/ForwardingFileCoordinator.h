#pragma once

#include <memory>
#include <utility>

#include "qn/FileCoordinator.h"

namespace qn {

/// Passes every call to another coordinator. Derive from it and override one call to inject a
/// fault or to hold a call until the test releases it.
class ForwardingFileCoordinator : public FileCoordinator {
public:
    explicit ForwardingFileCoordinator(std::shared_ptr<FileCoordinator> target)
        : target_(std::move(target)) {}

    void coordinateReadingItemAtURL(const URL& url, FileCoordinatorReadingOptions options,
                                    Error* outError, const Accessor& byAccessor) override {
        target_->coordinateReadingItemAtURL(url, options, outError, byAccessor);
    }
    void coordinateWritingItemAtURL(const URL& url, FileCoordinatorWritingOptions options,
                                    Error* outError, const Accessor& byAccessor) override {
        target_->coordinateWritingItemAtURL(url, options, outError, byAccessor);
    }
    void coordinateReadingItemAtURL(const URL& readingURL,
                                    FileCoordinatorReadingOptions readingOptions,
                                    const URL& writingItemAtURL,
                                    FileCoordinatorWritingOptions writingOptions, Error* outError,
                                    const PairAccessor& byAccessor) override {
        target_->coordinateReadingItemAtURL(readingURL, readingOptions, writingItemAtURL,
                                            writingOptions, outError, byAccessor);
    }
    void coordinateWritingItemAtURL(const URL& url1, FileCoordinatorWritingOptions options1,
                                    const URL& writingItemAtURL,
                                    FileCoordinatorWritingOptions options2, Error* outError,
                                    const PairAccessor& byAccessor) override {
        target_->coordinateWritingItemAtURL(url1, options1, writingItemAtURL, options2, outError,
                                            byAccessor);
    }
    void itemAtURL(const URL& oldURL, const URL& didMoveToURL) override {
        target_->itemAtURL(oldURL, didMoveToURL);
    }
    void cancel() override { target_->cancel(); }

    const std::shared_ptr<FileCoordinator>& target() const { return target_; }

private:
    std::shared_ptr<FileCoordinator> target_;
};

}  // namespace qn
