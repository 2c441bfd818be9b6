#include "qn/util/QNFileManagerDelegate.h"

#include <utility>

QNFileManagerDelegate::QNFileManagerDelegate(ProgressCallback progress)
    : progress_(std::move(progress)) {}

bool QNFileManagerDelegate::shouldCopyItemAtURL(const qn::URL& url, const qn::URL& toURL) {
    return ask(url, toURL);
}

bool QNFileManagerDelegate::shouldRemoveItemAtURL(const qn::URL& url) {
    return ask(url, qn::URL());
}

bool QNFileManagerDelegate::ask(const qn::URL& url, const qn::URL& secondURL) const {
    bool proceed = true;
    if (progress_) {
        progress_(url, secondURL, proceed);
    }
    return proceed;
}
