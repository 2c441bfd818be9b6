#pragma once

// The shapes of the callbacks through which the downloads manager reports to its callers. Every
// one of them runs on the main thread. Sizes are byte counts; percentages run from 0 to 100.

#include <cstdint>
#include <functional>
#include <memory>

#include "QNiCloud/QNBackgroundOperation.h"
#include "qn/Error.h"
#include "qn/URL.h"

/// The token a request was made with (null when it was made without one).
using QNBackgroundOperationPointer = std::shared_ptr<QNBackgroundOperation>;

/// One file (or directory request) moved on: its size to download, the downloaded size now and
/// at the previous report, and the percentage downloaded.
using QNiCloudFileDownloadProgressHandler = std::function<void(
    const QNBackgroundOperationPointer& operation, const qn::URL& url, std::uint64_t sizeToDownload,
    std::uint64_t downloadedSize, std::uint64_t previousDownloadedSize, double percentDownloaded)>;

/// One file (or directory request) is local. `downloadedSize` is the size at the last progress
/// report: a caller keeping a running total adds `sizeToDownload - downloadedSize` to it.
using QNiCloudFileDownloadCompletionHandler =
    std::function<void(const QNBackgroundOperationPointer& operation, const qn::URL& url,
                       std::uint64_t sizeToDownload, std::uint64_t downloadedSize)>;

/// A request failed. The token is null for the refusal made when the network is unreachable.
using QNiCloudDownloadErrorHandler =
    std::function<void(const QNBackgroundOperationPointer& operation, const qn::Error& error)>;

/// A batch of items moved on: its total size, its downloaded size and their quotient in percent.
using QNiCloudDownloadsProgressHandler =
    std::function<void(const QNBackgroundOperationPointer& operation, std::uint64_t totalSize,
                       std::uint64_t downloadedSize, double percentDownloaded)>;

/// Every item of a batch is local.
using QNiCloudDownloadsCompletionHandler =
    std::function<void(const QNBackgroundOperationPointer& operation)>;
