#include "qn/Date.h"

#include <fmt/format.h>

#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace qn {
namespace {

constexpr std::int64_t kNanosPerSecond = 1'000'000'000;
constexpr std::int64_t kReferenceDateSince1970 = 978'307'200;

// Above this magnitude the whole seconds (plus the 1970 offset) no longer fit in an int64.
constexpr double kLargestConvertibleSeconds = 9.2e18;

// The double nearest to `whole + nanos / 1e9`, ties to even, for whole >= 0 and nanos in
// [0, 1e9). A plain `whole + nanos / 1e9` rounds twice and is then sometimes one ulp off,
// which would break the exact Date -> timespec -> Date round trip.
double nearestNonNegative(std::uint64_t whole, std::uint32_t nanos) {
    if (nanos == 0) {
        return static_cast<double>(whole);
    }
    if (whole == 0) {
        return static_cast<double>(nanos) / 1e9;  // One correctly rounded division.
    }
    // Every double in [whole, whole + 1] lies on a grid of spacing 2^-shift.
    const int shift = 52 - (std::bit_width(whole) - 1);
    if (shift <= 0) {
        // Millions of years away the grid is coarser than a second; approximate is plenty.
        return static_cast<double>(whole) + static_cast<double>(nanos) / 1e9;
    }
    const unsigned __int128 scaled = static_cast<unsigned __int128>(nanos) << shift;
    auto steps = static_cast<std::uint64_t>(scaled / kNanosPerSecond);
    const auto remainder = static_cast<std::uint64_t>(scaled % kNanosPerSecond);
    if (2 * remainder > kNanosPerSecond || (2 * remainder == kNanosPerSecond && steps % 2 == 1)) {
        ++steps;
    }
    // Both terms and their sum are exact: the sum is a point of the grid.
    return static_cast<double>(whole) + std::ldexp(static_cast<double>(steps), -shift);
}

// Seconds since the reference date for `whole` seconds plus `nanos` in [0, 1e9).
double nearestSeconds(std::int64_t whole, std::int64_t nanos) {
    if (whole >= 0) {
        return nearestNonNegative(static_cast<std::uint64_t>(whole),
                                  static_cast<std::uint32_t>(nanos));
    }
    if (nanos == 0) {
        return static_cast<double>(whole);
    }
    // Round the magnitude so that ties go the same way on both sides of zero.
    const auto magnitude = static_cast<std::uint64_t>(-(whole + 1));
    return -nearestNonNegative(magnitude, static_cast<std::uint32_t>(kNanosPerSecond - nanos));
}

// Splits a date into whole seconds since the reference date and nanoseconds in [0, 1e9).
void split(double seconds, std::int64_t& whole, std::int64_t& nanos) {
    // Round the magnitude, so that -x lands exactly opposite to x.
    const double magnitude = std::fabs(seconds);
    const double floorMagnitude = std::floor(magnitude);
    const double fraction = magnitude - floorMagnitude;  // Exact.
    auto wholeMagnitude = static_cast<std::int64_t>(floorMagnitude);
    auto nanoMagnitude = static_cast<std::int64_t>(std::llround(fraction * 1e9));
    if (nanoMagnitude == kNanosPerSecond) {
        ++wholeMagnitude;
        nanoMagnitude = 0;
    }
    whole = seconds < 0 ? -wholeMagnitude : wholeMagnitude;
    nanos = seconds < 0 ? -nanoMagnitude : nanoMagnitude;
    if (nanos < 0) {
        whole -= 1;
        nanos += kNanosPerSecond;
    }
}

}  // namespace

Date Date::now() noexcept {
    struct timespec ts {};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return fromTimespec(ts);
}

Date Date::fromTimespec(const struct timespec& ts) noexcept {
    std::int64_t seconds = ts.tv_sec;
    std::int64_t nanos = ts.tv_nsec;
    seconds += nanos / kNanosPerSecond;
    nanos %= kNanosPerSecond;
    if (nanos < 0) {
        seconds -= 1;
        nanos += kNanosPerSecond;
    }
    return Date(nearestSeconds(seconds - kReferenceDateSince1970, nanos));
}

struct timespec Date::toTimespec() const noexcept {
    struct timespec ts {};
    if (std::isnan(seconds_)) {
        return ts;
    }
    if (seconds_ >= kLargestConvertibleSeconds) {
        ts.tv_sec = std::numeric_limits<time_t>::max();
        ts.tv_nsec = kNanosPerSecond - 1;
        return ts;
    }
    if (seconds_ <= -kLargestConvertibleSeconds) {
        ts.tv_sec = std::numeric_limits<time_t>::min();
        return ts;
    }
    std::int64_t whole = 0;
    std::int64_t nanos = 0;
    split(seconds_, whole, nanos);
    ts.tv_sec = static_cast<time_t>(whole + kReferenceDateSince1970);
    ts.tv_nsec = static_cast<long>(nanos);
    return ts;
}

Date Date::fromFileTime(std::filesystem::file_time_type time) noexcept {
    using std::chrono::file_clock;
    using std::chrono::nanoseconds;
    const file_clock::time_point unixEpoch =
        file_clock::from_sys(std::chrono::sys_time<nanoseconds>{});
    // Subtract in 128 bits: the file clock's epoch lies far from 1970 in some libraries.
    const __int128 sinceUnixEpoch =
        static_cast<__int128>(
            std::chrono::duration_cast<nanoseconds>(time.time_since_epoch()).count()) -
        std::chrono::duration_cast<nanoseconds>(unixEpoch.time_since_epoch()).count();
    __int128 whole = sinceUnixEpoch / kNanosPerSecond;
    __int128 nanos = sinceUnixEpoch % kNanosPerSecond;
    if (nanos < 0) {
        whole -= 1;
        nanos += kNanosPerSecond;
    }
    return Date(nearestSeconds(static_cast<std::int64_t>(whole) - kReferenceDateSince1970,
                               static_cast<std::int64_t>(nanos)));
}

std::filesystem::file_time_type Date::toFileTime() const noexcept {
    using std::chrono::file_clock;
    using std::chrono::nanoseconds;
    using Duration = std::filesystem::file_time_type::duration;
    static_assert(std::is_same_v<Duration::period, std::nano>,
                  "the file clock is expected to count nanoseconds");
    const file_clock::time_point unixEpoch =
        file_clock::from_sys(std::chrono::sys_time<nanoseconds>{});
    const struct timespec ts = toTimespec();
    const __int128 count = static_cast<__int128>(unixEpoch.time_since_epoch().count()) +
                           static_cast<__int128>(ts.tv_sec) * kNanosPerSecond + ts.tv_nsec;
    constexpr auto kMax = std::numeric_limits<Duration::rep>::max();
    constexpr auto kMin = std::numeric_limits<Duration::rep>::min();
    const auto clamped = static_cast<Duration::rep>(count > kMax   ? kMax
                                                    : count < kMin ? kMin
                                                                   : count);
    return std::filesystem::file_time_type(Duration(clamped));
}

std::string Date::description() const {
    const double floorSeconds = std::floor(seconds_);
    if (!std::isfinite(seconds_) || std::fabs(floorSeconds) >= kLargestConvertibleSeconds) {
        return fmt::format("{}", seconds_);
    }
    const auto unixSeconds =
        static_cast<time_t>(static_cast<std::int64_t>(floorSeconds) + kReferenceDateSince1970);
    struct tm parts {};
    if (::gmtime_r(&unixSeconds, &parts) == nullptr) {
        return fmt::format("{}", seconds_);  // The year does not fit in an int.
    }
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", parts.tm_year + 1900,
                       parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

}  // namespace qn
