#pragma once

// Cocoa error codes of ubiquitous (cloud) items, reported by the file manager's ubiquity calls
// and the ubiquity service. Errors carrying them are in NSCocoaErrorDomain.

#include <cstdint>

namespace qn {

/// The item cannot be reached in the cloud: no account, no container, or not a cloud item.
inline constexpr std::int64_t NSUbiquitousFileUnavailableError = 4353;
/// The item was not uploaded because the account's storage is full.
inline constexpr std::int64_t NSUbiquitousFileNotUploadedDueToQuotaError = 4354;
/// The cloud service could not be reached.
inline constexpr std::int64_t NSUbiquitousFileUbiquityServerNotAvailable = 4355;

}  // namespace qn
