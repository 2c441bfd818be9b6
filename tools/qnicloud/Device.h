#pragma once

// The drive device a `qnicloud` command works on: its directory, the store it was signed in
// with, the drive service, and (for the commands that need it) the library's presenter over the
// container's Documents folder. One command, one process: the device's engine runs while the
// command does, and until it has synced what it knows of. Main thread only.

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/DriveService.h"
#include "qn/WebDAVStore.h"

namespace qnicloud {

/// A failure to report: one line on standard error and the exit status (1 unless said).
class CommandError : public std::runtime_error {
public:
    explicit CommandError(const std::string& what, int status = 1)
        : std::runtime_error(what), status_(status) {}
    int status() const { return status_; }

private:
    int status_;
};

class Device {
public:
    struct Options {
        /// "" for $QNICLOUD_DEVICE, else <user data>/QNiCloud/device.
        std::string directory;
        std::string container = "iCloud.com.qnicloud.Documents";
        /// Written beside the revisions the device makes, and remembered; "" for the name
        /// remembered, else the host's name.
        std::string name;
        /// The engine neither sends nor fetches anything while the command runs.
        bool offline = false;
    };

    explicit Device(Options options);
    ~Device();

    const std::string& directory() const { return directory_; }
    const std::string& container() const { return container_; }

    /// The store the device was signed in with (a directory or a WebDAV URL), or "".
    std::string storePath() const;
    void rememberStorePath(const std::string& store) const;
    /// The store at `location`: a WebDAV store for an http(s) URL, with the credentials
    /// remembered for it, else a directory store.
    std::shared_ptr<qn::DriveStore> makeStore(const std::string& location) const;
    /// Remembers how to reach a WebDAV store (kept readable by the user only).
    void rememberWebDAV(const qn::WebDAVStore::Options& options) const;
    static bool isURL(const std::string& location);

    /// Opens the engine on `store` (the remembered one when empty); throws `CommandError`.
    qn::DriveService& open(const std::string& store = {});
    qn::DriveService& drive();

    /// The presenter of the container, registered, with its cache initialised; throws when no
    /// account is signed in or the cache does not fill in time.
    QNiCloudDocumentsPresenter& presenter();

    /// The absolute path of `path`, given relative to the container's Documents folder or
    /// absolute; throws when it lies outside that folder.
    std::string resolve(const std::string& path);
    /// Whether the store answers: only then is there anything to wait for.
    bool reachable();
    /// Whether the absolute `path` is the Documents folder or lies below it.
    bool isInDocuments(const std::string& path);
    /// `path` as the user sees it: relative to the Documents folder when it lies in it.
    std::string shown(const std::string& path);

    /// Runs `work` on a thread of its own while the main thread delivers what the library posts
    /// (coordinated operations must not run on the main thread); rethrows what it throws.
    void perform(const std::function<void()>& work);

    /// Stop at once when the command ends: Ctrl-C was pressed. What is under way is abandoned,
    /// not waited for.
    void hurry() { hurry_ = true; }

private:
    std::string directory_;
    std::string container_;
    std::string name_;
    bool offline_ = false;
    std::shared_ptr<qn::DriveService> drive_;
    std::shared_ptr<QNiCloudDocumentsPresenter> presenter_;
    bool hurry_ = false;
};

}  // namespace qnicloud
