#pragma once

// The drive device a `qnicloud` command works on: its directory, the store it was signed in
// with, the drive service, and (for the commands that need it) the library's presenter over the
// container's Documents folder. One command, one process: the device's engine runs while the
// command does, and until it has synced what it knows of. Main thread only.

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "QNiCloud/QNiCloudDocumentsPresenter.h"
#include "qn/DriveService.h"

namespace qnicloud {

/// A failure to report: one line on standard error and exit status 1.
class CommandError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Device {
public:
    /// `directory`: "" for $QNICLOUD_DEVICE, else <user data>/QNiCloud/device.
    Device(std::string directory, std::string container);
    ~Device();

    const std::string& directory() const { return directory_; }
    const std::string& container() const { return container_; }

    /// The store the device was signed in with, or "".
    std::string storePath() const;
    void rememberStorePath(const std::string& store) const;

    /// Opens the engine on `store` (the remembered one when empty); throws `CommandError`.
    qn::DriveService& open(const std::string& store = {});
    qn::DriveService& drive();

    /// The presenter of the container, registered, with its cache initialised; throws when no
    /// account is signed in or the cache does not fill in time.
    QNiCloudDocumentsPresenter& presenter();

private:
    std::string directory_;
    std::string container_;
    std::shared_ptr<qn::DriveService> drive_;
    std::shared_ptr<QNiCloudDocumentsPresenter> presenter_;
};

}  // namespace qnicloud
