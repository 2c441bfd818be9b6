#pragma once

// An exclusive WebDAV write lock on one resource, held while a device changes its account, so
// that the device can check each change's condition itself (not every server honours
// conditional requests). A lock has a time-out: a device that dies lets go when it passes.
// Private to the drive; a lock is used by one thread at a time.

#include <chrono>
#include <optional>
#include <string>

#include "DavClient.h"

namespace qn::drive {

class DavLock {
public:
    /// Takes the lock on `path` (a resource made when missing), asking the server to keep it for
    /// `timeout`. While another holder has it, tries again with back-off for up to `patience`.
    /// Nullopt with the reason in `error` when it could not be had.
    static std::optional<DavLock> acquire(DavClient& client, const std::string& path,
                                          std::chrono::seconds timeout,
                                          std::chrono::milliseconds patience,
                                          const std::string& owner, std::string* error);

    DavLock(DavLock&& other) noexcept;
    DavLock& operator=(DavLock&&) = delete;
    DavLock(const DavLock&) = delete;
    DavLock& operator=(const DavLock&) = delete;
    /// Lets go (UNLOCK); a lock the server no longer knows is let go of all the same.
    ~DavLock();

    /// The token as `If` and `Lock-Token` headers want it: "<opaquelocktoken:…>".
    const std::string& token() const { return token_; }
    /// Leaves the lock to its time-out, as a device that died would.
    void abandon() { client_ = nullptr; }

private:
    DavLock(DavClient* client, std::string path, std::string token)
        : client_(client), path_(std::move(path)), token_(std::move(token)) {}

    DavClient* client_;
    std::string path_;
    std::string token_;
};

}  // namespace qn::drive
