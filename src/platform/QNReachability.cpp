#include "qn/QNReachability.h"

#include <mutex>
#include <optional>
#include <utility>

#include "NetlinkRouteMonitor.h"
#include "qn/Logger.h"
#include "qn/MainQueue.h"
#include "qn/UbiquityService.h"

using qn::NetlinkRouteMonitor;

namespace {

void warnNetlinkUnavailableOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        qn::Logger::named("iCloud").warn(
            "The kernel's routing socket is unavailable: reachability reads interfaces and routes "
            "on demand and does not notify their changes.");
    });
}

bool machineIsReachable() {
    if (const auto snapshot = NetlinkRouteMonitor::readNetlink()) {
        return NetlinkRouteMonitor::isReachable(*snapshot);
    }
    warnNetlinkUnavailableOnce();
    return NetlinkRouteMonitor::isReachable(NetlinkRouteMonitor::readWithoutNetlink());
}

}  // namespace

std::shared_ptr<QNReachability> QNReachability::reachabilityForInternetConnection() {
    return std::shared_ptr<QNReachability>(new QNReachability);
}

QNReachability::~QNReachability() {
    stopNotifier();
}

NetworkStatus QNReachability::currentReachabilityStatus() const {
    const std::optional<bool> simulated = qn::UbiquityService::current()->isNetworkReachable();
    return (simulated ? *simulated : machineIsReachable()) ? ReachableViaWiFi : NotReachable;
}

bool QNReachability::startNotifier() {
    {
        std::lock_guard lock(mutex_);
        if (running_) {
            return true;
        }
    }
    // Both sources only say "look again": the re-evaluation always runs on the main queue, and
    // holds the monitor weakly so that a queued one neither keeps it alive nor touches it dead.
    const std::weak_ptr<QNReachability> weakSelf =
        std::static_pointer_cast<QNReachability>(shared_from_this());
    auto lookAgain = [weakSelf] {
        qn::MainQueue::async([weakSelf] {
            if (const auto self = weakSelf.lock()) {
                self->statusMayHaveChanged();
            }
        });
    };
    const NetworkStatus status = currentReachabilityStatus();
    auto observation = qn::NotificationCenter::defaultCenter().addObserver(
        qn::QNUbiquityServiceReachabilityDidChangeNotification, nullptr,
        [lookAgain](const qn::Notification&) { lookAgain(); });
    auto monitor = NetlinkRouteMonitor::start(lookAgain);
    if (!monitor) {
        warnNetlinkUnavailableOnce();
    }
    {
        std::lock_guard lock(mutex_);
        running_ = true;
        lastStatus_ = status;
        monitor_ = std::move(monitor);
        serviceObservation_ = std::move(observation);
    }
    // The status was read before the sources started listening: a change in between is only
    // seen by looking once more.
    lookAgain();
    return true;
}

void QNReachability::stopNotifier() {
    std::unique_ptr<NetlinkRouteMonitor> monitor;
    qn::NotificationCenter::Observation observation;
    {
        std::lock_guard lock(mutex_);
        running_ = false;
        monitor = std::move(monitor_);
        observation = std::move(serviceObservation_);
    }
    // The watching thread is joined and the observer removed here, outside the lock. Work they
    // queued before finds the notifier stopped.
}

void QNReachability::statusMayHaveChanged() {
    const NetworkStatus status = currentReachabilityStatus();
    {
        std::lock_guard lock(mutex_);
        if (!running_ || status == lastStatus_) {
            return;
        }
        lastStatus_ = status;
    }
    qn::NotificationCenter::defaultCenter().post(kNetworkReachabilityChangedNotification,
                                                 shared_from_this());
}
