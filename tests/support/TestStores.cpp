#include "support/TestStores.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

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

std::string bytesOf(int fd) {
    std::string read(static_cast<std::size_t>(::lseek(fd, 0, SEEK_END)), '\0');
    EXPECT_EQ(::pread(fd, read.data(), read.size(), 0), static_cast<ssize_t>(read.size()));
    return read;
}

MemoryFile::MemoryFile(std::string_view contents) : fd_(::memfd_create("contents", 0)) {
    EXPECT_EQ(::write(fd_, contents.data(), contents.size()),
              static_cast<ssize_t>(contents.size()));
    ::lseek(fd_, 0, SEEK_SET);
}

MemoryFile::~MemoryFile() {
    ::close(fd_);
}

std::optional<DriveStore::Item> uploadTo(DriveStore& store, std::string_view account,
                                         std::string_view path, std::string_view contents,
                                         DriveStore::Condition condition, Error* error) {
    const MemoryFile source(contents);
    return store.upload(account, path, source.fd(), condition, Date(2), "test", nullptr, error);
}

std::string downloadFrom(DriveStore& store, std::string_view account, std::string_view path) {
    Error error;
    const auto item = store.itemAtPath(account, path, &error);
    if (!item) {
        return "<" + error.localizedDescription() + ">";
    }
    const MemoryFile into;
    EXPECT_TRUE(store.download(account, path, item->revision, into.fd(), nullptr, &error))
        << error.description();
    return into.contents();
}

}  // namespace qn::test
