#include "qn/LocalizedString.h"

#include <memory>
#include <mutex>
#include <utility>

namespace qn {
namespace {

struct ProviderSlot {
    // A plain mutex: it guards only a pointer copy, and glibc's reader-writer lock would let a
    // stream of lookups starve the host installing a provider.
    std::mutex mutex;
    std::shared_ptr<const LocalizedStringProvider> provider;
};

ProviderSlot& providerSlot() {
    // Never destroyed: texts may still be looked up by threads running during exit.
    static ProviderSlot* const slot = new ProviderSlot;
    return *slot;
}

}  // namespace

std::string localizedString(std::string_view key, std::string_view value, std::string_view table) {
    std::shared_ptr<const LocalizedStringProvider> provider;
    {
        ProviderSlot& slot = providerSlot();
        const std::lock_guard lock(slot.mutex);
        provider = slot.provider;
    }
    if (provider != nullptr) {
        if (std::optional<std::string> text = (*provider)(key, table)) {
            return std::move(*text);
        }
    }
    return std::string(value.empty() ? key : value);
}

void setLocalizedStringProvider(LocalizedStringProvider provider) {
    std::shared_ptr<const LocalizedStringProvider> installed;
    if (provider) {
        installed = std::make_shared<const LocalizedStringProvider>(std::move(provider));
    }
    ProviderSlot& slot = providerSlot();
    const std::lock_guard lock(slot.mutex);
    // The previous provider is released after unlocking, when `installed` goes out of scope.
    slot.provider.swap(installed);
}

}  // namespace qn
