#include "qn/NotificationCenter.h"

#include <algorithm>
#include <thread>

#include "qn/Exception.h"

namespace qn {

struct NotificationCenter::Registration {
    std::uint64_t id;
    const void* owner;
    std::string name;
    const Object* sender;
    Observer observer;
    bool removed = false;                    // guarded by the centre's mutex_
    std::vector<std::thread::id> runningOn;  // threads in the observer; guarded by mutex_

    bool matches(std::string_view postedName, const Object* postedSender) const {
        return (name.empty() || name == postedName) && (!sender || sender == postedSender);
    }
};

NotificationCenter::Observation::Observation(Observation&& other) noexcept
    : center_(std::exchange(other.center_, nullptr)), id_(other.id_) {}

NotificationCenter::Observation& NotificationCenter::Observation::operator=(
    Observation&& other) noexcept {
    if (this != &other) {
        reset();
        center_ = std::exchange(other.center_, nullptr);
        id_ = other.id_;
    }
    return *this;
}

void NotificationCenter::Observation::reset() {
    if (auto* center = std::exchange(center_, nullptr)) {
        const auto id = id_;
        center->removeMatching([id](const Registration& r) { return r.id == id; });
    }
}

NotificationCenter& NotificationCenter::defaultCenter() {
    // Leaked on purpose: observers may be removed and notifications posted during process exit.
    static NotificationCenter* center = new NotificationCenter;
    return *center;
}

NotificationCenter::NotificationCenter() = default;
NotificationCenter::~NotificationCenter() = default;

std::uint64_t NotificationCenter::add(const void* owner, std::string_view name,
                                      const Object* sender, Observer observer) {
    std::lock_guard lock(mutex_);
    const auto id = nextId_++;
    registrations_.push_back(std::make_shared<Registration>(
        Registration{id, owner, std::string(name), sender, std::move(observer), false, {}}));
    return id;
}

NotificationCenter::Observation NotificationCenter::addObserver(std::string_view name,
                                                                const Object* sender,
                                                                Observer observer) {
    return Observation(this, add(nullptr, name, sender, std::move(observer)));
}

void NotificationCenter::addObserver(const void* owner, std::string_view name, const Object* sender,
                                     Observer observer) {
    add(owner, name, sender, std::move(observer));
}

void NotificationCenter::removeObserver(const void* owner) {
    removeMatching([owner](const Registration& r) { return r.owner == owner; });
}

void NotificationCenter::removeObserver(const void* owner, std::string_view name,
                                        const Object* sender) {
    removeMatching([&](const Registration& r) {
        return r.owner == owner && (name.empty() || r.name == name) &&
               (!sender || r.sender == sender);
    });
}

void NotificationCenter::removeMatching(const std::function<bool(const Registration&)>& matches) {
    const auto self = std::this_thread::get_id();
    std::vector<std::shared_ptr<Registration>> removed;
    std::unique_lock lock(mutex_);
    std::erase_if(registrations_, [&](const std::shared_ptr<Registration>& r) {
        if (!matches(*r)) {
            return false;
        }
        r->removed = true;
        removed.push_back(r);
        return true;
    });
    // Calls on this thread cannot end while it waits: only calls on other threads are awaited.
    const auto callsEnded = [&] {
        return std::all_of(removed.begin(), removed.end(), [&](const auto& r) {
            return std::all_of(r->runningOn.begin(), r->runningOn.end(),
                               [&](std::thread::id t) { return t == self; });
        });
    };
    if (!callsEnded()) {
        awaiting_[self] = &removed;
        struct Done {
            std::unordered_map<std::thread::id, const std::vector<std::shared_ptr<Registration>>*>&
                awaiting;
            std::thread::id self;
            ~Done() { awaiting.erase(self); }
        } done{awaiting_, self};
        if (waitWouldDeadlockLocked(self)) {
            throw InternalInconsistencyException(
                "NotificationCenter: removing an observer whose call is running on a thread that "
                "is itself waiting to remove an observer running on this thread would never "
                "return.");
        }
        callsEnded_.wait(lock, callsEnded);
    }
    lock.unlock();
    // `removed` may hold the last references; observers' captures are destroyed here, unlocked.
}

bool NotificationCenter::waitWouldDeadlockLocked(std::thread::id self) const {
    // Follow "waits for a call running on" from this thread; reaching it again is a cycle.
    std::vector<std::thread::id> pending{self};
    std::vector<std::thread::id> seen;
    while (!pending.empty()) {
        const auto waiter = pending.back();
        pending.pop_back();
        const auto awaited = awaiting_.find(waiter);
        if (awaited == awaiting_.end()) {
            continue;
        }
        for (const auto& r : *awaited->second) {
            for (const auto runner : r->runningOn) {
                if (runner == waiter) {
                    continue;
                }
                if (runner == self) {
                    return true;
                }
                if (std::find(seen.begin(), seen.end(), runner) == seen.end()) {
                    seen.push_back(runner);
                    pending.push_back(runner);
                }
            }
        }
    }
    return false;
}

void NotificationCenter::post(const Notification& notification) {
    std::vector<std::shared_ptr<Registration>> matching;
    {
        std::lock_guard lock(mutex_);
        for (const auto& r : registrations_) {
            if (r->matches(notification.name, notification.object.get())) {
                matching.push_back(r);
            }
        }
    }
    for (const auto& r : matching) {
        deliver(*r, notification);
    }
}

void NotificationCenter::post(std::string name, std::shared_ptr<Object> sender,
                              Dictionary userInfo) {
    post(Notification{std::move(name), std::move(sender), std::move(userInfo)});
}

void NotificationCenter::deliver(Registration& registration, const Notification& notification) {
    const auto self = std::this_thread::get_id();
    {
        std::lock_guard lock(mutex_);
        if (registration.removed) {
            return;
        }
        registration.runningOn.push_back(self);
    }
    struct CallEnd {
        NotificationCenter& center;
        Registration& registration;
        std::thread::id self;
        ~CallEnd() {
            std::lock_guard lock(center.mutex_);
            auto& runners = registration.runningOn;
            runners.erase(std::find(runners.begin(), runners.end(), self));
            if (registration.removed) {
                center.callsEnded_.notify_all();
            }
        }
    } end{*this, registration, self};
    registration.observer(notification);
}

}  // namespace qn
