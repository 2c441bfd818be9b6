#pragma once

// What a failed operation reports, shaped like NSError: a domain, a code and a user-info
// dictionary. Operations that can fail return false or null and fill an optional `Error*`:
//
//     qn::Error error;
//     if (!operation(url, &error)) { report(error.localizedDescription()); }
//
// Any thread; a value is not shared mutable state.

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "qn/Dictionary.h"

namespace qn {

// Error domains.
inline constexpr const char* NSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr const char* NSPOSIXErrorDomain = "NSPOSIXErrorDomain";

// User-info keys.
/// A string shown to the user instead of the default text.
inline constexpr const char* NSLocalizedDescriptionKey = "NSLocalizedDescription";
/// An Error (stored as a Value of type Error): the lower-level cause.
inline constexpr const char* NSUnderlyingErrorKey = "NSUnderlyingError";
/// A string: the path the operation was working on.
inline constexpr const char* NSFilePathErrorKey = "NSFilePath";
/// A URL: the item the operation was working on.
inline constexpr const char* NSURLErrorKey = "NSURL";
inline constexpr const char* NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";

// Codes of NSCocoaErrorDomain.
inline constexpr std::int64_t NSFileNoSuchFileError = 4;
inline constexpr std::int64_t NSFileLockingError = 255;
inline constexpr std::int64_t NSFileReadUnknownError = 256;
inline constexpr std::int64_t NSFileReadNoPermissionError = 257;
inline constexpr std::int64_t NSFileReadInvalidFileNameError = 258;
inline constexpr std::int64_t NSFileReadCorruptFileError = 259;
inline constexpr std::int64_t NSFileReadNoSuchFileError = 260;
inline constexpr std::int64_t NSFileReadInapplicableStringEncodingError = 261;
inline constexpr std::int64_t NSFileReadUnsupportedSchemeError = 262;
inline constexpr std::int64_t NSFileReadTooLargeError = 263;
inline constexpr std::int64_t NSFileWriteUnknownError = 512;
inline constexpr std::int64_t NSFileWriteNoPermissionError = 513;
inline constexpr std::int64_t NSFileWriteInvalidFileNameError = 514;
inline constexpr std::int64_t NSFileWriteFileExistsError = 516;
inline constexpr std::int64_t NSFileWriteOutOfSpaceError = 640;
inline constexpr std::int64_t NSFileWriteVolumeReadOnlyError = 642;
inline constexpr std::int64_t NSUserCancelledError = 3072;
inline constexpr std::int64_t NSFeatureUnsupportedError = 3328;

class Error {
public:
    /// The empty error (empty domain, code 0): "no error yet".
    Error() = default;
    Error(std::string domain, std::int64_t code, Dictionary userInfo = {})
        : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

    /// An error in NSPOSIXErrorDomain with `errnoValue` as code. Unless `userInfo` already has
    /// one, NSLocalizedDescriptionKey is set to the system's text for the errno ("No such file
    /// or directory").
    static Error posixError(int errnoValue, Dictionary userInfo = {});

    /// False only for the empty error, so `if (error)` asks whether one was reported.
    explicit operator bool() const noexcept { return !domain_.empty() || code_ != 0; }

    const std::string& domain() const noexcept { return domain_; }
    std::int64_t code() const noexcept { return code_; }
    const Dictionary& userInfo() const noexcept { return userInfo_; }

    /// The NSLocalizedDescriptionKey string when present; otherwise Foundation's generic text,
    /// "The operation couldn’t be completed. (NSCocoaErrorDomain error 4.)" (with U+2019 as
    /// apostrophe), its first sentence looked up through localizedString().
    std::string localizedDescription() const;
    /// The NSUnderlyingErrorKey entry when it holds an error, else null.
    std::shared_ptr<const Error> underlyingError() const;

    /// Compares domain, code and the whole user info.
    friend bool operator==(const Error&, const Error&) = default;

    /// For logs, as NSError prints itself:
    /// `Error Domain=NSCocoaErrorDomain Code=4 "…" UserInfo={NSFilePath=/a}` (the UserInfo part
    /// only when there is user info).
    std::string description() const;

private:
    std::string domain_;
    std::int64_t code_ = 0;
    Dictionary userInfo_;
};

/// Stores `value` in `*out` when the caller asked for an error (`out` not null); the usual
/// last step of a failing operation.
inline void setError(Error* out, Error value) {
    if (out != nullptr) {
        *out = std::move(value);
    }
}

/// The same for an error that costs something to make (a localized description): `make` runs
/// only when the caller asked for the error. Failures that callers routinely ignore, such as
/// asking for the attributes of an item that is not there, stay cheap.
template <class Make>
requires std::is_invocable_r_v<Error, Make>
void setError(Error* out, Make&& make) {
    if (out != nullptr) {
        *out = std::forward<Make>(make)();
    }
}

}  // namespace qn

template <>
struct fmt::formatter<qn::Error> : fmt::formatter<std::string_view> {
    template <class FormatContext>
    auto format(const qn::Error& error, FormatContext& ctx) const -> decltype(ctx.out()) {
        return fmt::formatter<std::string_view>::format(error.description(), ctx);
    }
};
