#include "qn/Value.h"

#include <fmt/format.h>

#include <cmath>
#include <limits>

#include "qn/Dictionary.h"
#include "qn/Error.h"

namespace qn {
namespace {

// Truncation toward zero without the undefined behaviour of an out-of-range cast.
std::int64_t truncateToInt64(double value) {
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= 0x1p63) {
        return std::numeric_limits<std::int64_t>::max();
    }
    if (value < -0x1p63) {
        return std::numeric_limits<std::int64_t>::min();
    }
    return static_cast<std::int64_t>(value);
}

std::uint64_t truncateToUInt64(double value) {
    if (std::isnan(value)) {
        return 0;
    }
    if (value >= 0x1p64) {
        return std::numeric_limits<std::uint64_t>::max();
    }
    if (value < 0) {
        return static_cast<std::uint64_t>(truncateToInt64(value));
    }
    return static_cast<std::uint64_t>(value);
}

// Visits the numeric alternatives only; nullopt for everything else.
template <class Result, class Storage, class Convert>
std::optional<Result> convertNumber(const Storage& storage, Convert convert) {
    return std::visit(
        [&](const auto& value) -> std::optional<Result> {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_arithmetic_v<T>) {
                return convert(value);
            } else {
                return std::nullopt;
            }
        },
        storage);
}

}  // namespace

Value::Value(const qn::Error& error) : storage_(std::make_shared<const qn::Error>(error)) {}

Value::Value(qn::Error&& error) : storage_(std::make_shared<const qn::Error>(std::move(error))) {}

Value::Value(std::shared_ptr<const qn::Error> error) noexcept {
    if (error != nullptr) {
        storage_ = std::move(error);
    }
}

bool Value::isNumber() const noexcept {
    switch (type()) {
        case Type::Bool:
        case Type::Int64:
        case Type::UInt64:
        case Type::Double:
            return true;
        default:
            return false;
    }
}

std::shared_ptr<const qn::Error> Value::errorValue() const noexcept {
    const auto* error = std::get_if<std::shared_ptr<const qn::Error>>(&storage_);
    return error != nullptr ? *error : nullptr;
}

std::optional<bool> Value::boolValue() const noexcept {
    return convertNumber<bool>(storage_, [](auto value) { return value != 0; });
}

std::optional<std::int64_t> Value::int64Value() const noexcept {
    return convertNumber<std::int64_t>(storage_, []<class T>(T value) {
        if constexpr (std::is_floating_point_v<T>) {
            return truncateToInt64(value);
        } else {
            return static_cast<std::int64_t>(value);
        }
    });
}

std::optional<std::uint64_t> Value::uint64Value() const noexcept {
    return convertNumber<std::uint64_t>(storage_, []<class T>(T value) {
        if constexpr (std::is_floating_point_v<T>) {
            return truncateToUInt64(value);
        } else {
            return static_cast<std::uint64_t>(value);
        }
    });
}

std::optional<double> Value::doubleValue() const noexcept {
    return convertNumber<double>(storage_, [](auto value) { return static_cast<double>(value); });
}

namespace {

// A number as the exact value it stands for: an integer (with its sign kept apart, so that every
// int64 and uint64 fits) or a double. Bool counts as the integer 0 or 1.
struct ExactNumber {
    bool isDouble = false;
    bool negative = false;
    std::uint64_t magnitude = 0;
    double real = 0.0;
};

ExactNumber exactNumber(const Value& value) {
    ExactNumber number;
    switch (value.type()) {
        case Value::Type::Double:
            number.isDouble = true;
            number.real = *value.doubleValue();
            break;
        case Value::Type::Int64: {
            const std::int64_t integer = *value.int64Value();
            number.negative = integer < 0;
            // Two's complement negation in unsigned arithmetic: also right for INT64_MIN.
            number.magnitude = number.negative ? 0 - static_cast<std::uint64_t>(integer)
                                               : static_cast<std::uint64_t>(integer);
            break;
        }
        default:  // Bool and UInt64
            number.magnitude = *value.uint64Value();
            break;
    }
    return number;
}

bool integerEqualsDouble(const ExactNumber& integer, double real) {
    // 2^64: every double at or beyond it is out of any integer's reach, and the conversion
    // below is defined only inside it.
    constexpr double kTwoTo64 = 18446744073709551616.0;
    const double magnitude = integer.negative ? -real : real;
    if (!(magnitude >= 0.0) || magnitude >= kTwoTo64 || magnitude != std::trunc(magnitude)) {
        return false;  // NaN, the wrong sign, too large, or not whole
    }
    return static_cast<std::uint64_t>(magnitude) == integer.magnitude;
}

bool numbersEqual(const Value& lhs, const Value& rhs) {
    const ExactNumber left = exactNumber(lhs);
    const ExactNumber right = exactNumber(rhs);
    if (left.isDouble && right.isDouble) {
        return left.real == right.real;
    }
    if (left.isDouble) {
        return integerEqualsDouble(right, left.real);
    }
    if (right.isDouble) {
        return integerEqualsDouble(left, right.real);
    }
    return left.negative == right.negative && left.magnitude == right.magnitude;
}

}  // namespace

bool operator==(const Value& lhs, const Value& rhs) noexcept {
    if (lhs.isNumber() && rhs.isNumber()) {
        return numbersEqual(lhs, rhs);
    }
    if (lhs.type() != rhs.type()) {
        return false;
    }
    if (lhs.type() == Value::Type::Error) {
        // Two copies of one error are equal; the pointers would say they are not.
        return *lhs.errorValue() == *rhs.errorValue();
    }
    return lhs.storage_ == rhs.storage_;
}

std::string Value::description() const {
    return std::visit(
        [](const auto& value) -> std::string {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, std::monostate>) {
                return "<null>";
            } else if constexpr (std::is_same_v<T, bool>) {
                return value ? "true" : "false";
            } else if constexpr (std::is_arithmetic_v<T>) {
                return fmt::format("{}", value);
            } else if constexpr (std::is_same_v<T, std::string>) {
                return value;
            } else if constexpr (std::is_same_v<T, qn::Date>) {
                return value.description();
            } else if constexpr (std::is_same_v<T, qn::URL>) {
                return value.absoluteString();
            } else {
                return fmt::format("{{{}}}", value->description());
            }
        },
        storage_);
}

const std::string* Dictionary::stringForKey(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr ? value->stringValue() : nullptr;
}

std::optional<std::int64_t> Dictionary::int64ForKey(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr ? value->int64Value() : std::nullopt;
}

std::optional<std::uint64_t> Dictionary::uint64ForKey(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr ? value->uint64Value() : std::nullopt;
}

std::optional<bool> Dictionary::boolForKey(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr ? value->boolValue() : std::nullopt;
}

std::optional<double> Dictionary::doubleForKey(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr ? value->doubleValue() : std::nullopt;
}

const Date* Dictionary::dateForKey(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr ? value->dateValue() : nullptr;
}

const URL* Dictionary::urlForKey(std::string_view key) const {
    const Value* value = find(key);
    return value != nullptr ? value->urlValue() : nullptr;
}

std::string Dictionary::description() const {
    std::string result = "{";
    for (const auto& [key, value] : entries_) {
        if (result.size() > 1) {
            result += ", ";
        }
        result += key;
        result += '=';
        result += value.description();
    }
    result += '}';
    return result;
}

}  // namespace qn
