#pragma once

// The downloads manager's record of one directory request.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string_view>

#include "QNiCloud/QNiCloudFileDownload.h"

/// A request for a whole directory. It is never queued or started itself: the manager queues
/// one file record per file to fetch, each pointing back here, and reports to this record's
/// handlers with the directory's path and summed sizes. Threads as for `QNiCloudFileDownload`.
class QNiCloudDirectoryDownload final : public QNiCloudFileDownload {
public:
    /// A new directory record with only `path` set.
    static std::shared_ptr<QNiCloudDirectoryDownload> directoryDownloadWithPath(
        std::string_view path);
    /// The same as `directoryDownloadWithPath`: a record of the directory class.
    static std::shared_ptr<QNiCloudDirectoryDownload> fileDownloadWithPath(std::string_view path) {
        return directoryDownloadWithPath(path);
    }

    /// How many of its file records are still queued or running.
    std::uint64_t numberOfFilesToDownload() const {
        return _numberOfFilesToDownload.load(std::memory_order_relaxed);
    }
    void setNumberOfFilesToDownload(std::uint64_t count) {
        _numberOfFilesToDownload.store(count, std::memory_order_relaxed);
    }

protected:
    bool isOfReceiverClass(const QNiCloudFileDownload& record) const override;

private:
    std::atomic<std::uint64_t> _numberOfFilesToDownload{0};
};
