#pragma once

#include <memory>
#include <optional>

#include "qn/OperationQueue.h"
#include "qn/URL.h"

namespace qn {

/// An object that presents an item (usually a directory) to file coordination and wants to hear
/// about coordinated changes that others make below it. Register it with
/// `FileCoordinator::addFilePresenter`. The callbacks run on `presentedItemOperationQueue()`,
/// never for changes made through a coordinator created for this same presenter.
class FilePresenter {
public:
    virtual ~FilePresenter() = default;

    /// The presented item, read each time a change is matched against it; nullopt while there
    /// is none. Any thread.
    virtual std::optional<URL> presentedItemURL() const = 0;
    /// The queue the callbacks run on. A presenter without a queue hears nothing.
    virtual std::shared_ptr<OperationQueue> presentedItemOperationQueue() const = 0;

    /// An item below the presented one was written, created or deleted.
    virtual void presentedSubitemDidChangeAtURL(const URL& url) { (void)url; }
    /// An item below the presented one moved (`FileCoordinator::itemAtURL`).
    virtual void presentedSubitemAtURL(const URL& oldURL, const URL& didMoveToURL) {
        (void)oldURL;
        (void)didMoveToURL;
    }
};

}  // namespace qn
