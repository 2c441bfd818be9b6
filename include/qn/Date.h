#pragma once

// A point in time, kept as Foundation keeps it: seconds since 2001-01-01 00:00:00 UTC as a double.
// Used for file modification dates, metadata attributes and timestamps in notifications.
// Any thread; a value is not shared mutable state.

#include <fmt/format.h>

#include <compare>
#include <cstddef>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace qn {

class Date {
public:
    /// Seconds from the Unix epoch (1970-01-01) to the reference date (2001-01-01).
    static constexpr double kTimeIntervalBetween1970AndReferenceDate = 978307200.0;

    /// The reference date itself.
    constexpr Date() noexcept = default;
    constexpr explicit Date(double secondsSinceReferenceDate) noexcept
        : seconds_(secondsSinceReferenceDate) {}

    /// The current wall-clock time (CLOCK_REALTIME).
    static Date now() noexcept;
    static Date fromTimeIntervalSince1970(double secondsSince1970) noexcept {
        return Date(secondsSince1970 - kTimeIntervalBetween1970AndReferenceDate);
    }

    /// A file-system timestamp (`stat`'s st_mtim) as a date: the nearest double to the exact
    /// instant. `tv_nsec` is expected in [0, 1e9); values outside are normalised first.
    static Date fromTimespec(const struct timespec& ts) noexcept;
    /// The timestamp to hand to `utimensat`: nanoseconds rounded to nearest, `tv_nsec` always
    /// in [0, 1e9) (dates before 1970 have a negative `tv_sec`). A NaN date gives the 1970
    /// epoch; dates beyond the range of time_t saturate.
    ///
    /// Converting a date to a timespec and back yields exactly the same double whenever the
    /// double carries no detail finer than a nanosecond. That holds for every date more than
    /// 2^23 s (about 97 days) away from the reference date and for any date written to whole
    /// nanoseconds; only a date within those 97 days with sub-nanosecond digits loses them.
    struct timespec toTimespec() const noexcept;

    /// Conversions to and from the clock of `std::filesystem::last_write_time`, with the same
    /// rounding as the timespec conversions (that clock counts nanoseconds). Dates outside the
    /// clock's range (with libstdc++ roughly the years 1882 to 2466) saturate.
    static Date fromFileTime(std::filesystem::file_time_type time) noexcept;
    std::filesystem::file_time_type toFileTime() const noexcept;

    constexpr double timeIntervalSinceReferenceDate() const noexcept { return seconds_; }
    constexpr double timeIntervalSince1970() const noexcept {
        return seconds_ + kTimeIntervalBetween1970AndReferenceDate;
    }
    /// Positive when this date is later than `other`.
    constexpr double timeIntervalSinceDate(Date other) const noexcept {
        return seconds_ - other.seconds_;
    }
    constexpr Date dateByAddingTimeInterval(double seconds) const noexcept {
        return Date(seconds_ + seconds);
    }

    /// UTC, whole seconds (the fraction is dropped, rounding towards the past), as Foundation
    /// prints dates: "2001-01-01 00:00:00 +0000". Non-finite dates print as the number.
    std::string description() const;

    /// Compares the doubles; a NaN date is unordered and unequal to everything.
    friend constexpr bool operator==(const Date&, const Date&) = default;
    friend constexpr std::partial_ordering operator<=>(const Date&, const Date&) = default;

private:
    double seconds_ = 0.0;
};

}  // namespace qn

template <>
struct std::hash<qn::Date> {
    std::size_t operator()(const qn::Date& date) const noexcept {
        // 0.0 and -0.0 are equal dates, so they must hash alike.
        const double seconds = date.timeIntervalSinceReferenceDate();
        return std::hash<double>{}(seconds == 0.0 ? 0.0 : seconds);
    }
};

template <>
struct fmt::formatter<qn::Date> : fmt::formatter<std::string_view> {
    template <class FormatContext>
    auto format(const qn::Date& date, FormatContext& ctx) const -> decltype(ctx.out()) {
        return fmt::formatter<std::string_view>::format(date.description(), ctx);
    }
};
