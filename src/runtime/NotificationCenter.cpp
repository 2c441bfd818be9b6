#include "qn/NotificationCenter.h"

#include <algorithm>

namespace qn {

struct NotificationCenter::Registration {
    std::uint64_t id;
    const void* owner;
    std::string name;
    const Object* sender;
    Observer observer;
    bool removed = false;  // guarded by the centre's mutex_
    int runningCalls = 0;  // guarded by the centre's mutex_

    bool matches(std::string_view postedName, const Object* postedSender) const {
        return (name.empty() || name == postedName) && (!sender || sender == postedSender);
    }
};

namespace {

// Registrations whose observer is running on this thread. A removal made from inside an
// observer must not wait for calls on its own thread, which cannot end while it waits.
thread_local std::vector<const void*> tCallsOnThisThread;

int callsOnThisThread(const void* registration) {
    return static_cast<int>(
        std::count(tCallsOnThisThread.begin(), tCallsOnThisThread.end(), registration));
}

}  // namespace

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
        Registration{id, owner, std::string(name), sender, std::move(observer)}));
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
    callsEnded_.wait(lock, [&] {
        return std::all_of(removed.begin(), removed.end(), [](const auto& r) {
            return r->runningCalls == callsOnThisThread(r.get());
        });
    });
    lock.unlock();
    // `removed` may hold the last references; observers' captures are destroyed here, unlocked.
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
    {
        std::lock_guard lock(mutex_);
        if (registration.removed) {
            return;
        }
        ++registration.runningCalls;
    }
    struct CallEnd {
        NotificationCenter& center;
        Registration& registration;
        ~CallEnd() {
            tCallsOnThisThread.pop_back();
            std::lock_guard lock(center.mutex_);
            --registration.runningCalls;
            if (registration.removed) {
                center.callsEnded_.notify_all();
            }
        }
    };
    tCallsOnThisThread.push_back(&registration);
    CallEnd end{*this, registration};
    registration.observer(notification);
}

}  // namespace qn
