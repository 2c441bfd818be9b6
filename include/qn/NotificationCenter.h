#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "qn/Notification.h"

namespace qn {

/// Delivers named notifications to the observers registered for them. `post` runs the matching
/// observers synchronously, on the posting thread, in the order they were registered.
///
/// An observer is registered for a name and a sender; an empty name matches every name and a
/// null sender matches every sender. A registration ends in one of two ways:
///   - it belongs to an owner (any pointer, usually the observing object's `this`) and ends with
///     `removeObserver(owner)`, or with `removeObserver(owner, name, sender)` for one of them;
///   - it is held by an `Observation` token and ends when the token is reset or destroyed.
///
/// Every member may be called from any thread, also from inside an observer. A registration
/// removed while a notification is being delivered is not called after its removal. Removal
/// waits until calls of that registration already running on other threads have returned, so
/// the owner may destroy what the observer uses as soon as removal returns; do not remove while
/// holding a lock that an observer running on another thread takes. Two threads that each
/// remove, from inside an observer, an observer running on the other could never finish: the
/// removal that would close such a cycle throws `InternalInconsistencyException` instead (the
/// registrations are removed all the same).
///
/// Locking: `mutex_` guards the registration list, the threads running each registration and
/// the threads waiting in a removal; it is never held while an observer runs.
class NotificationCenter {
public:
    using Observer = std::function<void(const Notification&)>;

    /// Keeps one registration alive; move-only. Destroying or resetting it removes the
    /// registration. It must not outlive its centre (the default centre lives forever).
    class Observation {
    public:
        Observation() = default;
        Observation(Observation&& other) noexcept;
        Observation& operator=(Observation&& other) noexcept;
        ~Observation() { reset(); }

        void reset();
        explicit operator bool() const { return center_ != nullptr; }

    private:
        friend class NotificationCenter;
        Observation(NotificationCenter* center, std::uint64_t id) : center_(center), id_(id) {}

        NotificationCenter* center_ = nullptr;
        std::uint64_t id_ = 0;
    };

    /// The process-wide centre through which the library and the platform post.
    static NotificationCenter& defaultCenter();

    NotificationCenter();
    ~NotificationCenter();
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// Registers `observer` for `name` from `sender` for as long as the returned token lives.
    [[nodiscard]] Observation addObserver(std::string_view name, const Object* sender,
                                          Observer observer);

    /// Registers `observer` for `name` from `sender` on behalf of `owner`.
    void addObserver(const void* owner, std::string_view name, const Object* sender,
                     Observer observer);

    /// Removes every registration of `owner`.
    void removeObserver(const void* owner);

    /// Removes the registrations of `owner` made for exactly this name and sender (an empty name
    /// or null sender here means "any", as in Foundation: removes them whatever their name or
    /// sender).
    void removeObserver(const void* owner, std::string_view name, const Object* sender);

    void post(const Notification& notification);
    void post(std::string name, std::shared_ptr<Object> sender = nullptr, Dictionary userInfo = {});

private:
    struct Registration;

    std::uint64_t add(const void* owner, std::string_view name, const Object* sender,
                      Observer observer);
    void removeMatching(const std::function<bool(const Registration&)>& matches);
    void deliver(Registration& registration, const Notification& notification);

    bool waitWouldDeadlockLocked(std::thread::id self) const;

    std::mutex mutex_;
    std::condition_variable callsEnded_;
    std::vector<std::shared_ptr<Registration>> registrations_;
    // Threads waiting in a removal, and the registrations they wait for.
    std::unordered_map<std::thread::id, const std::vector<std::shared_ptr<Registration>>*>
        awaiting_;
    std::uint64_t nextId_ = 1;
};

}  // namespace qn
