#include "CoordinationArbiter.h"

#include <algorithm>

namespace qn {

CoordinationArbiter& CoordinationArbiter::shared() {
    // Leaked on purpose: coordinated calls may still run on worker threads while the process
    // exits.
    static CoordinationArbiter* arbiter = new CoordinationArbiter;
    return *arbiter;
}

bool CoordinationArbiter::isBelow(const std::string& directory, const std::string& path) {
    if (directory.empty() || path.size() <= directory.size() ||
        path.compare(0, directory.size(), directory) != 0) {
        return false;
    }
    return directory == "/" || path[directory.size()] == '/';
}

bool CoordinationArbiter::conflicts(const Claim& a, const Claim& b) {
    for (const auto& x : a.items) {
        for (const auto& y : b.items) {
            if ((x.writes || y.writes) &&
                (x.path == y.path || isBelow(x.path, y.path) || isBelow(y.path, x.path))) {
                return true;
            }
        }
    }
    return false;
}

bool CoordinationArbiter::grantableLocked(std::list<Claim>::const_iterator claim) const {
    bool earlier = true;
    for (auto other = claims_.begin(); other != claims_.end(); ++other) {
        if (other == claim) {
            earlier = false;
            continue;
        }
        if (other->thread == claim->thread) {
            continue;
        }
        const bool blocks = other->granted || (earlier && !claim->nested);
        if (blocks && conflicts(*other, *claim)) {
            return false;
        }
    }
    return true;
}

std::uint64_t CoordinationArbiter::acquire(std::vector<Item> items,
                                           const std::atomic<bool>& cancelled) {
    const auto thread = std::this_thread::get_id();
    std::unique_lock lock(claimsMutex_);
    const bool nested = std::any_of(claims_.begin(), claims_.end(), [&](const Claim& c) {
        return c.granted && c.thread == thread;
    });
    const auto id = nextId_++;
    const auto claim =
        claims_.insert(claims_.end(), Claim{id, thread, std::move(items), false, nested});
    claimsChanged_.wait(lock, [&] { return cancelled.load() || grantableLocked(claim); });
    if (cancelled.load()) {
        claims_.erase(claim);
        claimsChanged_.notify_all();  // claims queued behind this one may go now
        return 0;
    }
    claim->granted = true;
    return id;
}

void CoordinationArbiter::release(std::uint64_t claimId) {
    std::lock_guard lock(claimsMutex_);
    claims_.remove_if([claimId](const Claim& c) { return c.id == claimId; });
    claimsChanged_.notify_all();
}

void CoordinationArbiter::wakeWaiters() {
    std::lock_guard lock(claimsMutex_);
    claimsChanged_.notify_all();
}

// Presenters are compared by address and only locked outside the mutex: locking one may make
// this thread its last owner, and a presenter's destructor removes itself from coordination.
void CoordinationArbiter::addPresenter(const std::shared_ptr<FilePresenter>& presenter) {
    std::lock_guard lock(presentersMutex_);
    std::erase_if(presenters_, [](const Registered& r) { return r.presenter.expired(); });
    const bool known =
        std::any_of(presenters_.begin(), presenters_.end(),
                    [&](const Registered& r) { return r.address == presenter.get(); });
    if (!known) {
        presenters_.push_back({presenter.get(), presenter});
    }
}

void CoordinationArbiter::removePresenter(const FilePresenter* presenter) {
    std::lock_guard lock(presentersMutex_);
    std::erase_if(presenters_, [&](const Registered& r) {
        return r.address == presenter || r.presenter.expired();
    });
}

std::vector<std::shared_ptr<FilePresenter>> CoordinationArbiter::presenters() {
    std::vector<std::weak_ptr<FilePresenter>> registered;
    {
        std::lock_guard lock(presentersMutex_);
        for (const auto& r : presenters_) {
            registered.push_back(r.presenter);
        }
    }
    std::vector<std::shared_ptr<FilePresenter>> live;
    for (const auto& weak : registered) {
        if (auto presenter = weak.lock()) {
            live.push_back(std::move(presenter));
        }
    }
    return live;
}

}  // namespace qn
