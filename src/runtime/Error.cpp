#include "qn/Error.h"

#include <fmt/format.h>

#include <cstring>

#include "qn/LocalizedString.h"

namespace qn {
namespace {

// strerror_r comes in two shapes; overloads pick the text out of whichever this libc has.
[[maybe_unused]] const char* strerrorText(int result, const char* buffer) {
    return result == 0 ? buffer : nullptr;  // XSI: fills the buffer.
}
[[maybe_unused]] const char* strerrorText(const char* result, const char*) {
    return result;  // GNU: returns the text, maybe not in the buffer.
}

std::string systemErrorText(int errnoValue) {
    char buffer[256] = {};
    const char* text = strerrorText(::strerror_r(errnoValue, buffer, sizeof buffer), buffer);
    if (text == nullptr || *text == '\0') {
        return fmt::format("Unknown error {}", errnoValue);
    }
    return text;
}

}  // namespace

Error Error::posixError(int errnoValue, Dictionary userInfo) {
    if (!userInfo.contains(NSLocalizedDescriptionKey)) {
        userInfo.set(NSLocalizedDescriptionKey, systemErrorText(errnoValue));
    }
    return Error(NSPOSIXErrorDomain, errnoValue, std::move(userInfo));
}

std::string Error::localizedDescription() const {
    if (const std::string* text = userInfo_.stringForKey(NSLocalizedDescriptionKey)) {
        return *text;
    }
    return fmt::format("{} ({} error {}.)",
                       localizedString("The operation couldn\u2019t be completed."), domain_,
                       code_);
}

std::shared_ptr<const Error> Error::underlyingError() const {
    const Value* value = userInfo_.find(NSUnderlyingErrorKey);
    return value != nullptr ? value->errorValue() : nullptr;
}

std::string Error::description() const {
    std::string result =
        fmt::format("Error Domain={} Code={} \"{}\"", domain_, code_, localizedDescription());
    if (!userInfo_.empty()) {
        result += " UserInfo=";
        result += userInfo_.description();
    }
    return result;
}

}  // namespace qn
