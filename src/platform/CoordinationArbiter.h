#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qn/FilePresenter.h"

namespace qn {

/// The process-wide state behind in-process file coordination: the claims on paths, granted and
/// waiting, and the registered presenters. Private to the platform layer.
///
/// A claim covers one or two items, each read (shared) or written (exclusive); two items conflict
/// when one is the other or lies below it and at least one of them is written. A claim is granted
/// all at once, when it conflicts with no granted claim of another thread and with no earlier
/// waiting claim of another thread (so conflicting claims are served in arrival order and none
/// starves). A thread that holds a claim is never blocked by its own claims, and its nested
/// claims do not queue behind waiters, which may be waiting for it.
///
/// Locking: `claimsMutex_` guards `claims_` and `nextId_`; `presentersMutex_` guards
/// `presenters_`. Neither is held while anything outside this class runs, and they are never
/// held together.
class CoordinationArbiter {
public:
    struct Item {
        std::string path;  // standardised
        bool writes;
    };

    static CoordinationArbiter& shared();

    /// Blocks until the calling thread holds all `items`; returns the claim's id, or 0 when
    /// `cancelled` became true first (then nothing is held).
    std::uint64_t acquire(std::vector<Item> items, const std::atomic<bool>& cancelled);
    void release(std::uint64_t claimId);
    /// Wakes every waiter to look at its cancellation flag again.
    void wakeWaiters();

    void addPresenter(const std::shared_ptr<FilePresenter>& presenter);
    void removePresenter(const FilePresenter* presenter);
    /// The live presenters, in registration order.
    std::vector<std::shared_ptr<FilePresenter>> presenters();

    /// True when `path` lies strictly below `directory` (both standardised).
    static bool isBelow(const std::string& directory, const std::string& path);

private:
    struct Claim {
        std::uint64_t id;
        std::thread::id thread;
        std::vector<Item> items;
        bool granted = false;
        bool nested = false;
    };

    CoordinationArbiter() = default;
    static bool conflicts(const Claim& a, const Claim& b);
    bool grantableLocked(std::list<Claim>::const_iterator claim) const;

    std::mutex claimsMutex_;
    std::condition_variable claimsChanged_;
    std::list<Claim> claims_;  // in arrival order
    std::uint64_t nextId_ = 1;

    struct Registered {
        const FilePresenter* address;
        std::weak_ptr<FilePresenter> presenter;
    };

    std::mutex presentersMutex_;
    std::vector<Registered> presenters_;
};

}  // namespace qn
