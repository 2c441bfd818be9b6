#pragma once

// Lookup of the user-visible texts the library produces (error descriptions and the like). The
// English text is the key; a host application localises by installing a provider.
// Any thread: lookups may run concurrently with each other and with installing a provider.

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace qn {

/// Answers the translation of `key` in `table` ("" for the default table), or nullopt when it
/// has none.
using LocalizedStringProvider =
    std::function<std::optional<std::string>(std::string_view key, std::string_view table)>;

/// The text to show for `key`: the installed provider's answer when it has one; otherwise
/// `value` when it is not empty, else `key` itself (as Foundation's bundle lookup answers when
/// a string is missing). The provider is called without any lock held; an exception it throws
/// reaches the caller.
std::string localizedString(std::string_view key, std::string_view value = {},
                            std::string_view table = {});

/// Installs `provider` for all later lookups; an empty function restores the default rule.
/// Lookups already running finish with the provider they started with.
void setLocalizedStringProvider(LocalizedStringProvider provider);

}  // namespace qn
