#include "NetlinkRouteMonitor.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "qn/Logger.h"

namespace qn {
namespace {

constexpr unsigned kUpAndRunning = IFF_UP | IFF_RUNNING;

// Large enough for any message of a dump: the kernel never builds dump messages beyond 32 KiB.
constexpr std::size_t kReceiveBufferSize = 32 * 1024;

/// Closes the descriptor it owns.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

int openRouteSocket(unsigned groups) {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (fd < 0) {
        return -1;
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

/// Sends a dump request of `type` (all address families) and calls `each` for every answer.
/// False when the request cannot be sent or the kernel answers with an error.
template <class Header, class Each>
bool dump(int fd, std::uint16_t type, std::uint32_t sequence, Each each) {
    struct {
        nlmsghdr header;
        Header body;
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(Header));
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = sequence;
    if (send(fd, &request, request.header.nlmsg_len, 0) < 0) {
        return false;
    }
    std::vector<char> buffer(kReceiveBufferSize);
    for (;;) {
        pollfd readable{fd, POLLIN, 0};
        const int ready = poll(&readable, 1, 1000);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;  // the kernel answers dumps at once; silence means something is wrong
        }
        ssize_t length = recv(fd, buffer.data(), buffer.size(), MSG_TRUNC);
        if (length < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            return false;
        }
        if (static_cast<std::size_t>(length) > buffer.size()) {
            return false;
        }
        for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
             NLMSG_OK(message, length); message = NLMSG_NEXT(message, length)) {
            if (message->nlmsg_seq != sequence) {
                continue;
            }
            if (message->nlmsg_type == NLMSG_DONE) {
                return true;
            }
            if (message->nlmsg_type == NLMSG_ERROR) {
                return false;
            }
            each(*message);
        }
    }
}

void addDefaultRoute(const nlmsghdr& message, std::vector<int>& interfaces) {
    const auto* route = static_cast<const rtmsg*>(NLMSG_DATA(&message));
    if ((route->rtm_family != AF_INET && route->rtm_family != AF_INET6) ||
        route->rtm_dst_len != 0 || route->rtm_type != RTN_UNICAST) {
        return;
    }
    const std::size_t before = interfaces.size();
    int length = static_cast<int>(RTM_PAYLOAD(&message));
    for (auto* attribute = RTM_RTA(route); RTA_OK(attribute, length);
         attribute = RTA_NEXT(attribute, length)) {
        if (attribute->rta_type == RTA_OIF) {
            interfaces.push_back(*static_cast<const int*>(RTA_DATA(attribute)));
        } else if (attribute->rta_type == RTA_MULTIPATH) {
            auto* hop = static_cast<const rtnexthop*>(RTA_DATA(attribute));
            int left = static_cast<int>(RTA_PAYLOAD(attribute));
            for (; RTNH_OK(hop, left); left -= RTNH_ALIGN(hop->rtnh_len), hop = RTNH_NEXT(hop)) {
                interfaces.push_back(hop->rtnh_ifindex);
            }
        }
    }
    if (interfaces.size() == before) {
        interfaces.push_back(0);
    }
}

NetlinkRouteMonitor::Snapshot::Interface& interfaceAt(NetlinkRouteMonitor::Snapshot& snapshot,
                                                      int index) {
    auto& list = snapshot.interfaces;
    auto found = std::find_if(list.begin(), list.end(), [&](auto& i) { return i.index == index; });
    return found != list.end()
               ? *found
               : list.emplace_back(NetlinkRouteMonitor::Snapshot::Interface{.index = index});
}

/// The whitespace-separated fields of every line of `path` after the first `skip` lines.
std::vector<std::vector<std::string>> readTable(const char* path, int skip) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream file(path);
    std::string line;
    for (int n = 0; std::getline(file, line); ++n) {
        if (n < skip) {
            continue;
        }
        std::istringstream fields(line);
        auto& row = rows.emplace_back();
        for (std::string field; fields >> field;) {
            row.push_back(field);
        }
    }
    return rows;
}

unsigned long hex(const std::string& text) {
    return std::strtoul(text.c_str(), nullptr, 16);
}

}  // namespace

bool NetlinkRouteMonitor::isReachable(const Snapshot& snapshot) {
    const auto& routes = snapshot.defaultRouteInterfaces;
    for (const auto& i : snapshot.interfaces) {
        const bool usable = (i.flags & IFF_LOOPBACK) == 0 &&
                            (i.flags & kUpAndRunning) == kUpAndRunning && i.hasAddress;
        if (usable && std::any_of(routes.begin(), routes.end(),
                                  [&](int out) { return out == 0 || out == i.index; })) {
            return true;
        }
    }
    return false;
}

std::optional<NetlinkRouteMonitor::Snapshot> NetlinkRouteMonitor::readNetlink() {
    const Descriptor fd(openRouteSocket(0));
    if (fd.get() < 0) {
        return std::nullopt;
    }
    Snapshot snapshot;
    std::set<int> addressed;
    auto onLink = [&](const nlmsghdr& message) {
        const auto* link = static_cast<const ifinfomsg*>(NLMSG_DATA(&message));
        interfaceAt(snapshot, link->ifi_index).flags = link->ifi_flags;
    };
    auto onAddress = [&](const nlmsghdr& message) {
        // Link- and host-scoped addresses reach no further than the wire; an address still
        // being checked for duplicates, or found duplicate, cannot be used yet.
        const auto* address = static_cast<const ifaddrmsg*>(NLMSG_DATA(&message));
        if (address->ifa_scope < RT_SCOPE_LINK &&
            (address->ifa_flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0) {
            addressed.insert(static_cast<int>(address->ifa_index));
        }
    };
    auto onRoute = [&](const nlmsghdr& message) {
        addDefaultRoute(message, snapshot.defaultRouteInterfaces);
    };
    if (!dump<ifinfomsg>(fd.get(), RTM_GETLINK, 1, onLink) ||
        !dump<ifaddrmsg>(fd.get(), RTM_GETADDR, 2, onAddress) ||
        !dump<rtmsg>(fd.get(), RTM_GETROUTE, 3, onRoute)) {
        return std::nullopt;
    }
    for (auto& interface : snapshot.interfaces) {
        interface.hasAddress = addressed.count(interface.index) != 0;
    }
    return snapshot;
}

NetlinkRouteMonitor::Snapshot NetlinkRouteMonitor::readWithoutNetlink() {
    Snapshot snapshot;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) == 0) {
        for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
            auto& interface =
                interfaceAt(snapshot, static_cast<int>(if_nametoindex(entry->ifa_name)));
            interface.flags = entry->ifa_flags;
            const sockaddr* address = entry->ifa_addr;
            // The same reach as the netlink reader: link-local and loopback addresses do not count.
            if (address && address->sa_family == AF_INET) {
                const auto ip =
                    ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr);
                const bool linkLocal = (ip >> 16) == 0xA9FE;  // 169.254.0.0/16
                const bool loopback = (ip >> 24) == 127;
                interface.hasAddress |= !linkLocal && !loopback;
            } else if (address && address->sa_family == AF_INET6) {
                const auto& ip = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
                interface.hasAddress |= !IN6_IS_ADDR_LINKLOCAL(&ip) && !IN6_IS_ADDR_LOOPBACK(&ip);
            }
        }
        freeifaddrs(list);
    }
    auto addRoute = [&](const std::string& device, unsigned long flags) {
        if ((flags & RTF_UP) != 0 && (flags & RTF_REJECT) == 0) {
            snapshot.defaultRouteInterfaces.push_back(
                static_cast<int>(if_nametoindex(device.c_str())));
        }
    };
    // Iface Destination Gateway Flags RefCnt Use Metric Mask ...
    for (const auto& row : readTable("/proc/net/route", 1)) {
        if (row.size() >= 8 && hex(row[1]) == 0 && hex(row[7]) == 0) {
            addRoute(row[0], hex(row[3]));
        }
    }
    // Destination PrefixLength Source SourcePrefixLength NextHop Metric RefCnt Use Flags Device
    for (const auto& row : readTable("/proc/net/ipv6_route", 0)) {
        if (row.size() >= 10 && hex(row[1]) == 0) {
            addRoute(row[9], hex(row[8]));
        }
    }
    return snapshot;
}

std::unique_ptr<NetlinkRouteMonitor> NetlinkRouteMonitor::start(
    std::function<void()> statusChanged) {
    Descriptor subscription(openRouteSocket(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR |
                                            RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE));
    Descriptor wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (subscription.get() < 0 || wakeup.get() < 0) {
        return nullptr;
    }
    // Read after subscribing, so that no change falls between the two.
    const auto snapshot = readNetlink();
    if (!snapshot) {
        return nullptr;
    }
    return std::unique_ptr<NetlinkRouteMonitor>(
        new NetlinkRouteMonitor(subscription.release(), wakeup.release(), isReachable(*snapshot),
                                std::move(statusChanged)));
}

NetlinkRouteMonitor::NetlinkRouteMonitor(int subscription, int wakeup, bool reachable,
                                         std::function<void()> statusChanged)
    : subscription_(subscription),
      wakeup_(wakeup),
      reachable_(reachable),
      statusChanged_(std::move(statusChanged)),
      thread_([this] { watch(); }) {}

NetlinkRouteMonitor::~NetlinkRouteMonitor() {
    eventfd_write(wakeup_, 1);
    thread_.join();
    close(subscription_);
    close(wakeup_);
}

void NetlinkRouteMonitor::watch() {
    std::vector<char> discard(kReceiveBufferSize);
    pollfd watched[2] = {{subscription_, POLLIN, 0}, {wakeup_, POLLIN, 0}};
    for (;;) {
        if (poll(watched, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            Logger::named("iCloud").warn("Network changes are no longer watched: poll failed ({}).",
                                         std::strerror(errno));
            return;
        }
        if (watched[1].revents != 0) {
            return;
        }
        // The messages themselves are not needed: a fresh dump says all. ENOBUFS means some were
        // dropped, which the dump covers as well.
        for (;;) {
            if (recv(subscription_, discard.data(), discard.size(), 0) >= 0 || errno == ENOBUFS ||
                errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN) {
                break;
            }
            Logger::named("iCloud").warn("Network changes are no longer watched: recv failed ({}).",
                                         std::strerror(errno));
            return;
        }
        const auto snapshot = readNetlink();
        if (snapshot && isReachable(*snapshot) != reachable_) {
            reachable_ = !reachable_;
            statusChanged_();
        }
    }
}

}  // namespace qn
