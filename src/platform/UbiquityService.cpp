#include "qn/UbiquityService.h"

#include <atomic>
#include <mutex>
#include <utility>

#include "qn/UbiquityErrors.h"

namespace qn {
namespace {

/// The machine with no account: no identity, no container, no items, nothing to download.
class NoAccountService final : public UbiquityService {
public:
    std::optional<UbiquityIdentityToken> identityToken() override { return std::nullopt; }
    std::optional<URL> containerURL(std::string_view) override { return std::nullopt; }
    bool startDownloading(const URL& url, Error* error) override { return unavailable(url, error); }
    bool evict(const URL& url, Error* error) override { return unavailable(url, error); }
    std::optional<Value> resourceValue(const URL&, std::string_view, Error*) override {
        return std::nullopt;
    }
    std::uint64_t startMetadataFeed(const std::vector<std::string>&,
                                    std::shared_ptr<MetadataFeedObserver> observer) override {
        // No items: gathering finds nothing and ends at once.
        observer->feedDidGather({});
        observer->feedDidFinishGathering();
        return ++lastFeed_;
    }
    void stopMetadataFeed(std::uint64_t) override {}
    std::vector<FileVersionRecord> otherVersionsOfItem(const URL&) override { return {}; }
    bool setVersionResolved(const URL& url, std::string_view, bool, Error* error) override {
        return unavailable(url, error);
    }
    bool removeVersion(const URL& url, std::string_view, Error* error) override {
        return unavailable(url, error);
    }
    std::optional<bool> isNetworkReachable() override { return std::nullopt; }

private:
    static bool unavailable(const URL& url, Error* error) {
        setError(error, Error(NSCocoaErrorDomain, NSUbiquitousFileUnavailableError,
                              {{NSURLErrorKey, url}, {NSFilePathErrorKey, url.path()}}));
        return false;
    }

    std::atomic<std::uint64_t> lastFeed_{0};
};

std::mutex currentMutex;

std::shared_ptr<UbiquityService>& currentService() {
    static auto* service =
        new std::shared_ptr<UbiquityService>(std::make_shared<NoAccountService>());
    return *service;
}

}  // namespace

std::shared_ptr<UbiquityService> UbiquityService::current() {
    std::lock_guard lock(currentMutex);
    return currentService();
}

void UbiquityService::setCurrent(std::shared_ptr<UbiquityService> service) {
    if (!service) {
        service = std::make_shared<NoAccountService>();
    }
    std::shared_ptr<UbiquityService> previous;
    {
        std::lock_guard lock(currentMutex);
        previous = std::exchange(currentService(), std::move(service));
    }
    // `previous` is released here, outside the lock.
}

}  // namespace qn
