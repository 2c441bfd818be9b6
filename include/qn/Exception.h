#pragma once

// The exception thrown when the library finds itself in a state it should never reach, or is
// called in a way its contract forbids (Foundation's NSInternalInconsistencyException). It
// signals a programming error, not a condition to recover from at run time.
// Any thread; a value is not shared mutable state.

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace qn {

class InternalInconsistencyException : public std::logic_error {
public:
    /// Foundation's name for this kind of exception, for logs.
    static constexpr std::string_view name = "NSInternalInconsistencyException";

    /// `what()` and `reason()` both give `reason`.
    explicit InternalInconsistencyException(std::string reason);

    const std::string& reason() const noexcept { return *reason_; }

private:
    // Shared so that copying the exception cannot throw.
    std::shared_ptr<const std::string> reason_;
};

}  // namespace qn
