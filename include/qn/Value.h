#pragma once

// One entry of a user-info or attribute dictionary: null, a number (bool, signed, unsigned or
// floating), a string, a date, a file URL or an error. The library's stand-in for the
// NSNull/NSNumber/NSString/NSDate/NSURL/NSError objects Foundation would put in an NSDictionary.
// Any thread; a value is not shared mutable state.

#include <fmt/format.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "qn/Date.h"
#include "qn/URL.h"

namespace qn {

class Error;

namespace detail {
template <class T>
concept IntegerNumber = std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char> &&
                        !std::same_as<T, wchar_t> && !std::same_as<T, char8_t> &&
                        !std::same_as<T, char16_t> && !std::same_as<T, char32_t>;
}  // namespace detail

class Value {
public:
    enum class Type { Null, Bool, Int64, UInt64, Double, String, Date, URL, Error };

    Value() noexcept = default;
    Value(std::nullptr_t) noexcept {}
    Value(bool value) noexcept : storage_(value) {}
    /// Signed integers become Int64, unsigned ones UInt64. Character types are not numbers here,
    /// so that a stray 'x' does not compile into one.
    template <detail::IntegerNumber T>
    Value(T value) noexcept {
        if constexpr (std::is_signed_v<T>) {
            storage_ = static_cast<std::int64_t>(value);
        } else {
            storage_ = static_cast<std::uint64_t>(value);
        }
    }
    Value(double value) noexcept : storage_(value) {}
    Value(std::string value) noexcept : storage_(std::move(value)) {}
    Value(std::string_view value) : storage_(std::string(value)) {}
    /// A null pointer gives a Null value.
    Value(const char* value) {
        if (value != nullptr) {
            storage_ = std::string(value);
        }
    }
    Value(qn::Date value) noexcept : storage_(value) {}
    Value(qn::URL value) noexcept : storage_(std::move(value)) {}
    /// Stores a shared copy of `error`.
    Value(const qn::Error& error);
    Value(qn::Error&& error);
    /// A null pointer gives a Null value.
    Value(std::shared_ptr<const qn::Error> error) noexcept;
    /// Other pointers would silently become a bool.
    template <class T>
    Value(T*) = delete;

    Type type() const noexcept { return static_cast<Type>(storage_.index()); }
    bool isNull() const noexcept { return type() == Type::Null; }
    /// Bool, Int64, UInt64 and Double are all numbers, as NSNumber covers them all.
    bool isNumber() const noexcept;

    /// The stored object when the type matches exactly, else null.
    const std::string* stringValue() const noexcept { return std::get_if<std::string>(&storage_); }
    const qn::Date* dateValue() const noexcept { return std::get_if<qn::Date>(&storage_); }
    const qn::URL* urlValue() const noexcept { return std::get_if<qn::URL>(&storage_); }
    std::shared_ptr<const qn::Error> errorValue() const noexcept;

    /// Any number converted the way NSNumber converts; nullopt when the value is not a number.
    /// Between integers the bits are reinterpreted (-1 as UInt64 is 2^64-1, and back). A double
    /// becomes an integer by truncation toward zero; NaN gives 0, values beyond the target range
    /// saturate, and a negative double asked for as UInt64 is truncated to Int64 first. For
    /// bool, anything non-zero (NaN included) is true.
    std::optional<bool> boolValue() const noexcept;
    std::optional<std::int64_t> int64Value() const noexcept;
    std::optional<std::uint64_t> uint64Value() const noexcept;
    std::optional<double> doubleValue() const noexcept;

    /// Numbers (bool, signed, unsigned, double) are equal when they stand for the same value,
    /// whatever their kinds, as the platform's number objects compare: 1 == 1u == 1.0 == true,
    /// -1 != UINT64_MAX, 2^53 + 1 != 2^53 as a double, and NaN equals nothing. Each value keeps
    /// its kind for what is stored and read back. Other values are equal when the type and the
    /// content are equal (errors by content).
    friend bool operator==(const Value& lhs, const Value& rhs) noexcept;

    /// For logs: "<null>", "true"/"false", the number, the string as is, the date's and the
    /// error's description, the URL's absolute string.
    std::string description() const;

private:
    using Storage = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double,
                                 std::string, qn::Date, qn::URL, std::shared_ptr<const qn::Error>>;
    Storage storage_;
};

}  // namespace qn

template <>
struct fmt::formatter<qn::Value> : fmt::formatter<std::string_view> {
    template <class FormatContext>
    auto format(const qn::Value& value, FormatContext& ctx) const -> decltype(ctx.out()) {
        return fmt::formatter<std::string_view>::format(value.description(), ctx);
    }
};
