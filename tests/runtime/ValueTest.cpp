#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "qn/Dictionary.h"
#include "qn/Error.h"
#include "qn/Value.h"

namespace {

using qn::Value;
using Type = qn::Value::Type;

// Pointers other than strings must not quietly become bools, nor characters numbers.
static_assert(!std::is_constructible_v<Value, int*>);
static_assert(!std::is_constructible_v<Value, const qn::Error*>);
static_assert(!std::is_constructible_v<Value, char>);

TEST(ValueTest, EachKindOfArgumentLandsInTheMatchingAlternative) {
    EXPECT_EQ(Value(std::int8_t{-7}).type(), Type::Int64);
    EXPECT_EQ(Value(std::size_t{7}).type(), Type::UInt64);
    EXPECT_EQ(Value(true).type(), Type::Bool);
    EXPECT_EQ(Value(1.5f).type(), Type::Double);
    EXPECT_EQ(Value(std::string_view("text")).type(), Type::String);
    EXPECT_EQ(Value(static_cast<const char*>(nullptr)).type(), Type::Null);
    EXPECT_EQ(Value(std::shared_ptr<const qn::Error>()).type(), Type::Null);
}

TEST(ValueTest, NumbersConvertLikeNSNumberAndOtherKindsAnswerNothing) {
    EXPECT_EQ(Value(-1).uint64Value(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(Value(std::numeric_limits<std::uint64_t>::max()).int64Value(), -1);
    EXPECT_EQ(Value(-2.7).uint64Value(), static_cast<std::uint64_t>(-2));
    EXPECT_EQ(Value(-1e300).int64Value(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(Value(1e300).uint64Value(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(Value(std::nan("")).int64Value(), 0);
    EXPECT_EQ(Value(0.25).boolValue(), true);
    EXPECT_EQ(Value(std::uint64_t{1} << 63).doubleValue(), 0x1p63);

    for (const Value& notNumber : {Value(), Value("1"), Value(qn::Date(1)), Value(qn::Error())}) {
        EXPECT_FALSE(notNumber.isNumber());
        EXPECT_EQ(notNumber.boolValue(), std::nullopt);
        EXPECT_EQ(notNumber.int64Value(), std::nullopt);
        EXPECT_EQ(notNumber.uint64Value(), std::nullopt);
        EXPECT_EQ(notNumber.doubleValue(), std::nullopt);
    }
    EXPECT_EQ(Value(5).stringValue(), nullptr);
}

TEST(ValueTest, NumbersCompareByValueAcrossKinds) {
    EXPECT_EQ(Value(1u), Value(1.0));
    EXPECT_EQ(Value(true), Value(std::int32_t{1}));
    EXPECT_EQ(Value(-2), Value(-2.0));
    EXPECT_EQ(Value(std::numeric_limits<std::int64_t>::min()), Value(-9223372036854775808.0));
    EXPECT_NE(Value(-1), Value(std::numeric_limits<std::uint64_t>::max()));
    EXPECT_NE(Value(1), Value(1.5));
    EXPECT_NE(Value(std::uint64_t{1} << 53 | 1), Value(9007199254740992.0));
    EXPECT_NE(Value(std::numeric_limits<std::uint64_t>::max()), Value(18446744073709551616.0));
    EXPECT_NE(Value(std::nan("")), Value(std::nan("")));
    EXPECT_NE(Value(0), Value("0"));
    // Errors compare by content, not by the shared copy they live in.
    EXPECT_EQ(Value(qn::Error("D", 1, {{"k", 2}})), Value(qn::Error("D", 1, {{"k", 2}})));
    EXPECT_NE(Value(qn::Error("D", 1, {{"k", 2}})), Value(qn::Error("D", 1, {{"k", 3}})));
}

// Keys keep their first value and sort in the description; numbers compare by value.
TEST(DictionaryTest, DuplicatesDescriptionAndEquality) {
    qn::Dictionary dictionary{{"size", std::uint64_t{42}},
                              {"name", qn::URL::fileURLWithPath("/b", false)},
                              {"hidden", false},
                              {"size", "ignored duplicate"}};
    EXPECT_TRUE(dictionary.erase("hidden"));
    EXPECT_FALSE(dictionary.erase("hidden"));
    EXPECT_EQ(dictionary.description(), "{name=file:///b, size=42}");
    EXPECT_EQ(dictionary,
              (qn::Dictionary{{"size", 42.0}, {"name", qn::URL::fileURLWithPath("/b", false)}}));
    EXPECT_NE(dictionary,
              (qn::Dictionary{{"size", 43}, {"name", qn::URL::fileURLWithPath("/b", false)}}));
}

}  // namespace
