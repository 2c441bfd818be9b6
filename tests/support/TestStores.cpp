#include "support/TestStores.h"

#include <stdexcept>

#include "qn/DirectoryStore.h"

namespace qn::test {
namespace {

WebDAVServer::Kind serverKind(StoreKind kind) {
    return kind == StoreKind::WebDAVApache ? WebDAVServer::Kind::Apache
                                           : WebDAVServer::Kind::Rclone;
}

}  // namespace

std::optional<std::string> TestStore::unavailable(StoreKind kind) {
    if (kind == StoreKind::Directory) {
        return std::nullopt;
    }
    return WebDAVServer::unavailable(serverKind(kind));
}

TestStore::TestStore(StoreKind kind, const std::string& directory) : kind_(kind) {
    if (kind == StoreKind::Directory) {
        root_ = directory + "/store";
        DirectoryStore::create(root_, nullptr);
        return;
    }
    server_ = WebDAVServer::start(serverKind(kind));
    root_ = server_->dataDirectory();
    webDAV_.url = server_->url() + "store";
    // Every poll also walks the collections: a walk that finds what is not there would show.
    webDAV_.walkInterval = std::chrono::seconds(0);
    webDAV_.lockTimeout = std::chrono::seconds(30);
    Error error;
    if (!WebDAVStore::create(webDAV_, &error)) {
        throw std::runtime_error(error.description());
    }
}

TestStore::~TestStore() = default;

std::shared_ptr<DriveStore> TestStore::open() const {
    if (kind_ == StoreKind::Directory) {
        return DirectoryStore::open(root_);
    }
    return WebDAVStore::open(webDAV_);
}

}  // namespace qn::test
