#pragma once

// The drive stores tests run against: a directory store, or a WebDAV store on a real server
// (Apache with mod_dav, or rclone) started for the test on the loopback address. Test thread only;
// the stores it opens may be used from any thread.

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "qn/DriveStore.h"
#include "qn/WebDAVStore.h"
#include "support/WebDAVServer.h"

namespace qn::test {

enum class StoreKind { Directory, WebDAVApache, WebDAVRclone };

inline std::string nameOf(StoreKind kind) {
    switch (kind) {
        case StoreKind::Directory:
            return "Directory";
        case StoreKind::WebDAVApache:
            return "WebDAVApache";
        case StoreKind::WebDAVRclone:
            return "WebDAVRclone";
    }
    return "?";
}

inline std::ostream& operator<<(std::ostream& stream, StoreKind kind) {
    return stream << nameOf(kind);
}

/// One store, made empty in the test's directory (or on its server), opened as often as the
/// test has devices.
class TestStore {
public:
    /// Why this machine cannot run `kind`; nullopt when it can.
    static std::optional<std::string> unavailable(StoreKind kind);

    /// Makes the store: a directory store in `directory`, a WebDAV store on a server of its own.
    TestStore(StoreKind kind, const std::string& directory);
    ~TestStore();

    StoreKind kind() const { return kind_; }
    /// A new store object on the same store, as another device or process would have.
    std::shared_ptr<DriveStore> open() const;
    /// The server of a WebDAV store (null for a directory store).
    WebDAVServer* server() const { return server_.get(); }
    /// The options a WebDAV store is opened with; change them before `open`.
    WebDAVStore::Options& webDAVOptions() { return webDAV_; }
    /// Where a directory store keeps its files, or the WebDAV server's data directory.
    const std::string& root() const { return root_; }

private:
    StoreKind kind_;
    std::string root_;
    std::unique_ptr<WebDAVServer> server_;
    WebDAVStore::Options webDAV_;
};

/// The bytes of the file `fd`, from its start whatever its offset.
std::string bytesOf(int fd);

/// A file in memory holding `contents` at offset 0, for a store to upload from or download into;
/// closed with the object.
class MemoryFile {
public:
    explicit MemoryFile(std::string_view contents = {});
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    int fd() const { return fd_; }
    std::string contents() const { return bytesOf(fd_); }

private:
    int fd_;
};

/// `contents` uploaded to `path` by the device "test".
std::optional<DriveStore::Item> uploadTo(DriveStore& store, std::string_view account,
                                         std::string_view path, std::string_view contents,
                                         DriveStore::Condition condition, Error* error = nullptr);
/// What `path` holds now, or "<why not>"; a failed download also fails the test.
std::string downloadFrom(DriveStore& store, std::string_view account, std::string_view path);

}  // namespace qn::test
