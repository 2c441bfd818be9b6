#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qn/Error.h"
#include "qn/FileVersionRecord.h"
#include "qn/MetadataFeed.h"
#include "qn/Object.h"
#include "qn/URL.h"
#include "qn/UbiquityIdentityToken.h"
#include "qn/Value.h"

namespace qn {

/// Posted (the service as sender, on the main thread) by a service whose `isNetworkReachable()`
/// answer changed.
inline constexpr const char* QNUbiquityServiceReachabilityDidChangeNotification =
    "QNUbiquityServiceReachabilityDidChangeNotification";

/// What the operating system's sync daemon offers: the signed-in account, the local location of
/// a container, the metadata of the items in the cloud, downloads and eviction, the stored
/// versions of an item, and whether the network reaches the cloud. The file manager, the
/// metadata query, file versions and reachability answer through the process's current service.
///
/// Backends: `SimulatedCloud` (deterministic, driven by the caller, for tests of the library and
/// of host applications) and the service with no account that is current until another is set.
///
/// A service posts `NSUbiquityIdentityDidChangeNotification` (no sender) through the default
/// notification centre on the main thread whenever `identityToken()` changes. Every member may
/// be called from any thread; `containerURL` may block, so never call it on the main thread.
class UbiquityService : public Object {
public:
    virtual ~UbiquityService() = default;

    /// The process's current service; never null.
    static std::shared_ptr<UbiquityService> current();
    /// Makes `service` current (null restores the service with no account). Set it up before
    /// the library starts; a switch later is seen by calls made after it.
    static void setCurrent(std::shared_ptr<UbiquityService> service);

    // Account and container.

    /// The signed-in account's identity, or nullopt with no account.
    virtual std::optional<UbiquityIdentityToken> identityToken() = 0;
    /// The local directory of the container for `containerIdentifier`, or nullopt when there is
    /// no account or no such container. May block.
    virtual std::optional<URL> containerURL(std::string_view containerIdentifier) = 0;

    // Items.

    /// Asks for the item's contents to be brought to the local disk. False, with an error, when
    /// the item is unknown or the download cannot start.
    virtual bool startDownloading(const URL& url, Error* error) = 0;
    /// Removes the item's local contents; the item stays in the cloud, not downloaded.
    virtual bool evict(const URL& url, Error* error) = 0;
    /// A ubiquitous resource value of the item (NSURLUbiquitousItem... keys of FileAttributes.h):
    /// nullopt without an error when the item has none.
    virtual std::optional<Value> resourceValue(const URL& url, std::string_view key,
                                               Error* error) = 0;

    // Metadata of the items in the cloud.

    /// Starts reporting the items of `scopes` (NSMetadataQuery...Scope names) to `observer`,
    /// which the service holds until the feed is stopped; returns the feed's id (never 0).
    virtual std::uint64_t startMetadataFeed(const std::vector<std::string>& scopes,
                                            std::shared_ptr<MetadataFeedObserver> observer) = 0;
    /// Stops a feed; no call for it starts after this returns.
    virtual void stopMetadataFeed(std::uint64_t feed) = 0;

    // Versions of an item.

    /// The stored versions of the item other than the item itself, oldest first.
    virtual std::vector<FileVersionRecord> otherVersionsOfItem(const URL& url) = 0;
    virtual bool setVersionResolved(const URL& url, std::string_view versionIdentifier,
                                    bool resolved, Error* error) = 0;
    virtual bool removeVersion(const URL& url, std::string_view versionIdentifier,
                               Error* error) = 0;

    // Network.

    /// Whether the cloud can be reached, when this service decides it (a simulated network);
    /// nullopt when the machine's own network state applies.
    virtual std::optional<bool> isNetworkReachable() = 0;
};

}  // namespace qn
