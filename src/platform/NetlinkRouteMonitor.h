#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace qn {

/// The machine's own network state, for QNReachability: reads the kernel's interfaces, addresses
/// and routes, and watches them on one background thread. Private to the platform library.
///
/// The static members may be called from any thread. A monitor is created and destroyed by one
/// owner; its callback runs on the monitor's thread, which the destructor joins. Nothing here
/// sends network traffic: rtnetlink only talks to the local kernel.
class NetlinkRouteMonitor {
public:
    /// What the kernel says, reduced to what decides reachability.
    struct Snapshot {
        struct Interface {
            int index = 0;
            unsigned flags = 0;       // IFF_* flags of the link
            bool hasAddress = false;  // an address wider than link or host scope
        };
        std::vector<Interface> interfaces;
        /// The out interface of every unicast default route, IPv4 or IPv6 (one entry per
        /// nexthop of a multipath route); 0 when the route names none (a nexthop object).
        std::vector<int> defaultRouteInterfaces;
    };

    /// True when a default route leaves through an interface that is up, running, not loopback
    /// and has an address. A default route without a named interface counts through any such
    /// interface.
    static bool isReachable(const Snapshot& snapshot);

    /// Reads the state with rtnetlink dumps; nullopt when netlink is unavailable (a sandbox may
    /// forbid the socket) or the dump fails.
    static std::optional<Snapshot> readNetlink();

    /// Reads the state without netlink: getifaddrs, /proc/net/route and /proc/net/ipv6_route.
    /// Missing files read as "no routes".
    static Snapshot readWithoutNetlink();

    /// Subscribes to link, address and route changes and starts the watching thread, which
    /// calls `statusChanged` whenever `isReachable` of a fresh dump differs from the previous
    /// one. Null when netlink is unavailable.
    static std::unique_ptr<NetlinkRouteMonitor> start(std::function<void()> statusChanged);

    /// Wakes the thread and joins it: `statusChanged` is not running and will not run once this
    /// returns.
    ~NetlinkRouteMonitor();

    NetlinkRouteMonitor(const NetlinkRouteMonitor&) = delete;
    NetlinkRouteMonitor& operator=(const NetlinkRouteMonitor&) = delete;

private:
    NetlinkRouteMonitor(int subscription, int wakeup, bool reachable,
                        std::function<void()> statusChanged);
    void watch();

    const int subscription_;  // netlink socket bound to the change groups; non-blocking
    const int wakeup_;        // eventfd written by the destructor to end `watch`
    bool reachable_;          // only touched by the watching thread after construction
    const std::function<void()> statusChanged_;
    std::thread thread_;
};

}  // namespace qn
