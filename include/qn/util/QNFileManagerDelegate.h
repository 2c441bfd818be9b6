#pragma once

// The shared utility library's file manager delegate: hands each item of a copy or removal to a
// progress callback, which may veto it. Set it on a private manager (FileManager::
// makePrivateManager) for one operation. The callback runs on the thread running the operation;
// the delegate holds no other state and may be shared between threads.

#include <functional>

#include "qn/FileManagerDelegate.h"
#include "qn/URL.h"

class QNFileManagerDelegate final : public qn::FileManagerDelegate {
public:
    /// Called once per item with the item's URL, the second URL (for a copy, where that item goes;
    /// for a removal, the empty URL) and `proceed`, which is true on entry. Leaving `proceed`
    /// false skips the item and, for a directory, everything below it.
    using ProgressCallback =
        std::function<void(const qn::URL& itemURL, const qn::URL& secondURL, bool& proceed)>;

    /// Without a callback every item proceeds.
    explicit QNFileManagerDelegate(ProgressCallback progress = nullptr);

    const ProgressCallback& progress() const { return progress_; }

    bool shouldCopyItemAtURL(const qn::URL& url, const qn::URL& toURL) override;
    bool shouldRemoveItemAtURL(const qn::URL& url) override;

private:
    bool ask(const qn::URL& url, const qn::URL& secondURL) const;

    const ProgressCallback progress_;
};
