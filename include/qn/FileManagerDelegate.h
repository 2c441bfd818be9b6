#pragma once

#include "qn/URL.h"

namespace qn {

/// Asked by a file manager before each item of a copy or removal is acted on: the top item first,
/// then every item below it, each directory before its contents. Answering false skips the item
/// (and, for a directory, everything below it). Called on the thread running the operation.
class FileManagerDelegate {
public:
    virtual ~FileManagerDelegate() = default;

    virtual bool shouldCopyItemAtURL(const URL& url, const URL& toURL) = 0;
    virtual bool shouldRemoveItemAtURL(const URL& url) = 0;
};

}  // namespace qn
