#pragma once

// The downloads manager's record of one file download it has accepted.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "QNiCloud/QNBackgroundOperation.h"
#include "QNiCloud/QNiCloudDownloadHandlers.h"
#include "qn/Object.h"

class QNiCloudDirectoryDownload;

/// One pending or running file download: the item's normalised absolute path, the caller's
/// token and handlers, its priority, and how many bytes it has to fetch and has fetched. A file
/// that belongs to a directory request points to that request's record (strongly; the directory
/// record holds nothing of its files, so there is no cycle) and has no token or handlers of its
/// own.
///
/// Threads: the record protects nothing but its byte counts. The downloads manager sets the
/// other fields before it shares the record and then reads and writes them under its own lock or
/// on its serial queue; handlers read the counts on the main thread.
class QNiCloudFileDownload : public qn::Object {
public:
    /// A new file record with only `path` set: priority 0, sizes 0, no token, directory or
    /// handlers.
    static std::shared_ptr<QNiCloudFileDownload> fileDownloadWithPath(std::string_view path);

    QNiCloudFileDownload() = default;
    QNiCloudFileDownload(const QNiCloudFileDownload&) = delete;
    QNiCloudFileDownload& operator=(const QNiCloudFileDownload&) = delete;

    /// 1 puts the record at the head of the download queue; any other value at its end.
    std::int32_t priority() const { return _priority; }
    void setPriority(std::int32_t priority) { _priority = priority; }
    const QNBackgroundOperationPointer& backgroundOperation() const { return _backgroundOperation; }
    void setBackgroundOperation(QNBackgroundOperationPointer backgroundOperation) {
        _backgroundOperation = std::move(backgroundOperation);
    }
    const std::string& path() const { return _path; }
    void setPath(std::string path) { _path = std::move(path); }
    /// For a file its size; for a directory the sum over the files queued for it.
    std::uint64_t sizeToDownload() const { return _sizeToDownload.load(std::memory_order_relaxed); }
    void setSizeToDownload(std::uint64_t size) {
        _sizeToDownload.store(size, std::memory_order_relaxed);
    }
    /// The bytes fetched as last reported.
    std::uint64_t downloadedSize() const { return _downloadedSize.load(std::memory_order_relaxed); }
    void setDownloadedSize(std::uint64_t size) {
        _downloadedSize.store(size, std::memory_order_relaxed);
    }
    /// The directory request this file belongs to, or null.
    const std::shared_ptr<QNiCloudDirectoryDownload>& directoryDownload() const {
        return _directoryDownload;
    }
    void setDirectoryDownload(std::shared_ptr<QNiCloudDirectoryDownload> directoryDownload);
    const QNiCloudFileDownloadProgressHandler& progressHandler() const { return _progressHandler; }
    void setProgressHandler(QNiCloudFileDownloadProgressHandler handler) {
        _progressHandler = std::move(handler);
    }
    const QNiCloudFileDownloadCompletionHandler& completionHandler() const {
        return _completionHandler;
    }
    void setCompletionHandler(QNiCloudFileDownloadCompletionHandler handler) {
        _completionHandler = std::move(handler);
    }
    const QNiCloudDownloadErrorHandler& errorHandler() const { return _errorHandler; }
    void setErrorHandler(QNiCloudDownloadErrorHandler handler) {
        _errorHandler = std::move(handler);
    }

    /// True when the token says cancelled; otherwise what the directory record says; false with
    /// neither.
    bool isCancelled() const;

    /// True when `object` is a record of this record's class (or a subclass), names the same
    /// path (compared as paths, without regard to letter case) and holds the same token. Two
    /// records without a token are therefore equal only when they are the same record.
    bool isEqual(const qn::Object* object) const;
    /// The hash of `path`.
    std::size_t hash() const;

protected:
    /// Whether `record` is of this record's class or a subclass of it.
    virtual bool isOfReceiverClass(const QNiCloudFileDownload& record) const;

private:
    std::int32_t _priority = 0;
    QNBackgroundOperationPointer _backgroundOperation;
    std::string _path;
    std::atomic<std::uint64_t> _sizeToDownload{0};
    std::atomic<std::uint64_t> _downloadedSize{0};
    std::shared_ptr<QNiCloudDirectoryDownload> _directoryDownload;
    QNiCloudFileDownloadProgressHandler _progressHandler;
    QNiCloudFileDownloadCompletionHandler _completionHandler;
    QNiCloudDownloadErrorHandler _errorHandler;
};
