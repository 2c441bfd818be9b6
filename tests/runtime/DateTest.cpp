#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <random>

#include "qn/Date.h"
#include "support/TemporaryDirectory.h"

namespace {

constexpr std::int64_t kNanos = 1'000'000'000;
constexpr std::int64_t kReference = 978'307'200;
// 1970-01-01 and 2100-01-01 in seconds since the reference date.
constexpr double kFirst = -978'307'200.0;
constexpr double kLast = 3'124'137'600.0;

TEST(DateTest, DateToTimespecAndBackIsExact) {
    // Adding whole seconds and the fraction as doubles rounds twice and misses by one ulp here.
    for (const double seconds : {-0.3, 64.789041503, 14'451.737038708, 506'460.903053602}) {
        EXPECT_EQ(qn::Date::fromTimespec(qn::Date(seconds).toTimespec()), qn::Date(seconds))
            << fmt::format("{:.17g}", seconds);
    }

    std::mt19937_64 random(20010101);
    std::uniform_real_distribution<double> anyDate(kFirst, kLast);
    int checked = 0;
    while (checked < 200'000) {
        double seconds = anyDate(random);
        if (checked % 4 == 1) {
            seconds = std::round(seconds * 1e6) / 1e6;  // Microsecond timestamps, as from APIs.
        } else if (checked % 4 == 2) {
            seconds = -std::fabs(seconds);  // Before the reference date, often before 1970.
        }
        // Within 2^23 s of the reference date doubles are finer than a nanosecond; covered below.
        if (std::fabs(seconds) < 0x1p23) {
            continue;
        }
        const timespec ts = qn::Date(seconds).toTimespec();
        ASSERT_TRUE(ts.tv_nsec >= 0 && ts.tv_nsec < kNanos) << ts.tv_nsec;
        ASSERT_EQ(qn::Date::fromTimespec(ts).timeIntervalSinceReferenceDate(), seconds)
            << fmt::format("{:.17g}", seconds);
        ++checked;
    }

    // Near the reference date, the double nearest to any whole-nanosecond instant survives, and
    // the timespec is exactly that instant.
    constexpr std::int64_t kWindow = (std::int64_t{1} << 23) * kNanos;  // Below 2^53.
    std::uniform_int_distribution<std::int64_t> nearReference(-kWindow, kWindow);
    for (int i = 0; i < 200'000; ++i) {
        const std::int64_t nanos = nearReference(random);
        const double seconds = static_cast<double>(nanos) / 1e9;  // Correctly rounded.
        const timespec ts = qn::Date(seconds).toTimespec();
        const std::int64_t rest = (nanos % kNanos + kNanos) % kNanos;
        ASSERT_EQ(ts.tv_sec, (nanos - rest) / kNanos + kReference) << nanos;
        ASSERT_EQ(ts.tv_nsec, rest) << nanos;
        ASSERT_EQ(qn::Date::fromTimespec(ts).timeIntervalSinceReferenceDate(), seconds) << nanos;
    }
}

TEST(DateTest, RoundingCarriesIntoTheSecondsAndUnnormalisedNanosecondsFold) {
    // A fraction that rounds up to a whole second carries into tv_sec, on both sides of zero.
    for (const double fraction : {0.9999999999, -0.9999999999}) {
        const timespec ts = qn::Date(fraction).toTimespec();
        EXPECT_EQ(ts.tv_sec, kReference + std::lround(fraction)) << fraction;
        EXPECT_EQ(ts.tv_nsec, 0) << fraction;
    }
    EXPECT_EQ(qn::Date::fromTimespec({kReference, -kNanos / 2}), qn::Date(-0.5));
    EXPECT_EQ(qn::Date::fromTimespec({kReference, 3 * kNanos / 2}), qn::Date(1.5));
}

TEST(DateTest, AgreesWithTheFileSystemClock) {
    const qn::test::TemporaryDirectory dir;
    const std::string file = dir.write("file", "");
    const qn::Date written = qn::Date::fromTimeIntervalSince1970(-86'400.0 * 365 + 0.123456789);
    const timespec times[2] = {written.toTimespec(), written.toTimespec()};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    EXPECT_EQ(qn::Date::fromTimespec(dir.status("file").st_mtim), written);
    EXPECT_EQ(qn::Date::fromFileTime(std::filesystem::last_write_time(file)), written);
    EXPECT_EQ(qn::Date::fromFileTime(written.toFileTime()), written);
}

TEST(DateTest, DescriptionIsUtcInFoundationFormatAndZeroHasOneSign) {
    EXPECT_EQ(qn::Date().description(), "2001-01-01 00:00:00 +0000");
    EXPECT_EQ(qn::Date::fromTimeIntervalSince1970(1'700'000'000.75).description(),
              "2023-11-14 22:13:20 +0000");
    // The fraction is dropped toward the past, also before 1970.
    EXPECT_EQ(qn::Date::fromTimeIntervalSince1970(-0.5).description(), "1969-12-31 23:59:59 +0000");
    EXPECT_EQ(fmt::format("[{}]", qn::Date(86'400.0)), "[2001-01-02 00:00:00 +0000]");

    EXPECT_EQ(qn::Date(0.0), qn::Date(-0.0));
    EXPECT_EQ(std::hash<qn::Date>{}(qn::Date(0.0)), std::hash<qn::Date>{}(qn::Date(-0.0)));
}

}  // namespace
