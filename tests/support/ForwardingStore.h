#pragma once

// A drive store that hands every call to another store, for tests to override the calls they
// want to disturb (fail, stall, change a file in the middle). Any thread, as the store it wraps.

#include <memory>
#include <utility>

#include "qn/DriveStore.h"

namespace qn::test {

class ForwardingStore : public DriveStore {
public:
    explicit ForwardingStore(std::shared_ptr<DriveStore> store) : store_(std::move(store)) {}

    bool isReachable() override { return store_->isReachable(); }
    std::optional<std::vector<std::string>> accounts(Error* e) override {
        return store_->accounts(e);
    }
    bool addAccount(std::string_view a, Error* e) override { return store_->addAccount(a, e); }
    std::optional<Changes> changesSince(std::string_view a, std::string_view t, Error* e) override {
        return store_->changesSince(a, t, e);
    }
    std::optional<Item> itemAtPath(std::string_view a, std::string_view p, Error* e) override {
        return store_->itemAtPath(a, p, e);
    }
    std::optional<std::string> read(std::string_view a, std::string_view p, std::string_view r,
                                    std::uint64_t o, std::size_t l, Error* e) override {
        return store_->read(a, p, r, o, l, e);
    }
    bool download(std::string_view a, std::string_view p, std::string_view r, int fd,
                  const Progress& progress, Error* e) override {
        return store_->download(a, p, r, fd, progress, e);
    }
    std::optional<Item> upload(std::string_view a, std::string_view p, int fd, const Condition& c,
                               Date d, std::string_view device, const Progress& progress,
                               Error* e) override {
        return store_->upload(a, p, fd, c, d, device, progress, e);
    }
    std::optional<Item> makeDirectory(std::string_view a, std::string_view p, const Condition& c,
                                      Date d, std::string_view device, Error* e) override {
        return store_->makeDirectory(a, p, c, d, device, e);
    }
    bool remove(std::string_view a, std::string_view p, const Condition& c, Error* e) override {
        return store_->remove(a, p, c, e);
    }
    std::optional<Item> move(std::string_view a, std::string_view f, std::string_view t,
                             const Condition& c, Error* e) override {
        return store_->move(a, f, t, c, e);
    }
    std::optional<Version> addConflictVersion(std::string_view a, std::string_view p, int fd,
                                              Date d, std::string_view device, Error* e) override {
        return store_->addConflictVersion(a, p, fd, d, device, e);
    }
    std::optional<std::vector<Version>> versions(std::string_view a, std::string_view p,
                                                 Error* e) override {
        return store_->versions(a, p, e);
    }
    bool downloadVersion(std::string_view a, std::string_view p, std::string_view i, int fd,
                         Error* e) override {
        return store_->downloadVersion(a, p, i, fd, e);
    }
    bool setVersionResolved(std::string_view a, std::string_view p, std::string_view i, bool r,
                            Error* e) override {
        return store_->setVersionResolved(a, p, i, r, e);
    }
    bool removeVersion(std::string_view a, std::string_view p, std::string_view i,
                       Error* e) override {
        return store_->removeVersion(a, p, i, e);
    }

private:
    std::shared_ptr<DriveStore> store_;
};

}  // namespace qn::test
