#pragma once

// Tells whether this machine can reach the internet, and notifies when that changes, so that the
// document app can say "offline" instead of waiting for a sync that cannot happen.
//
// `currentReachabilityStatus` may be called from any thread. `startNotifier` and `stopNotifier`
// are called on the main thread; the destructor (which stops the notifier) may run on any thread.

#include <memory>
#include <mutex>

#include "qn/NotificationCenter.h"
#include "qn/Object.h"

namespace qn {
class NetlinkRouteMonitor;
}

/// Posted through `qn::NotificationCenter::defaultCenter()`, on the main thread, with the monitor
/// as sender, whenever the status of a monitor whose notifier runs has changed.
inline constexpr const char* kNetworkReachabilityChangedNotification =
    "kNetworkReachabilityChangedNotification";

/// How the internet is reached. Any reachable wired or wireless interface reports
/// `ReachableViaWiFi`; this platform never reports `ReachableViaWWAN`.
enum NetworkStatus { NotReachable = 0, ReachableViaWiFi = 1, ReachableViaWWAN = 2 };

/// A monitor of whether the internet can be reached.
///
/// The status comes from the current `qn::UbiquityService` when it simulates the network
/// (`isNetworkReachable()` has a value). Otherwise it is the machine's: reachable when a default
/// route (IPv4 or IPv6) leaves through a non-loopback interface that is up, running and has an
/// address. Reading it never sends network traffic.
///
/// While the notifier runs, changes of the simulated network (the service's
/// `QNUbiquityServiceReachabilityDidChangeNotification`) and of the machine's interfaces and
/// routes are re-evaluated on the main thread, and `kNetworkReachabilityChangedNotification` is
/// posted only when the status differs from the last one reported. Where the kernel's routing
/// socket is unavailable (some sandboxes), the machine's state is read on demand instead and its
/// changes are not notified; a warning says so once.
class QNReachability : public qn::Object {
public:
    /// A new monitor of the internet connection, its notifier stopped.
    static std::shared_ptr<QNReachability> reachabilityForInternetConnection();

    /// Stops the notifier.
    ~QNReachability() override;

    /// Starts posting `kNetworkReachabilityChangedNotification` for changes after this call.
    /// Main thread. True when the notifier runs (also when it already ran).
    bool startNotifier();

    /// Stops the notifier: called on the main thread, no notification of this monitor is posted
    /// after it returns. Does nothing when the notifier is stopped.
    void stopNotifier();

    /// The status now, read afresh. Any thread.
    NetworkStatus currentReachabilityStatus() const;

private:
    QNReachability() = default;

    /// Compares the status with the last one reported and posts when it changed. Main thread.
    void statusMayHaveChanged();

    // `mutex_` guards the notifier's state below. It is never held while posting, while calling
    // the ubiquity service, or while the watching thread is joined.
    std::mutex mutex_;
    bool running_ = false;
    NetworkStatus lastStatus_ = NotReachable;
    std::unique_ptr<qn::NetlinkRouteMonitor> monitor_;
    qn::NotificationCenter::Observation serviceObservation_;
};
