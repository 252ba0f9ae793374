#include "QMFoundation/Dates/NSDate+QMCommon.h"

#include <cmath>
#include <ctime>
#include <limits>
#include <optional>

using platform::Date;

namespace {

constexpr double kSecondsPerDay = 86400;
constexpr double kSecondsPerHour = 3600;

// The local calendar day of a moment, as one increasing number.
std::optional<long long> localDay(std::time_t moment)
{
    std::tm local{};
    if (localtime_r(&moment, &local) == nullptr) {
        return std::nullopt;
    }
    return static_cast<long long>(local.tm_year) * 400 + local.tm_yday;
}

}  // namespace

Date dateWithNumberOfDaysFromNow(std::uint64_t count)
{
    return Date::now().dateByAddingTimeInterval(static_cast<double>(count) * kSecondsPerDay);
}

Date dateWithNumberOfDaysAgo(std::uint64_t count)
{
    return Date::now().dateByAddingTimeInterval(-static_cast<double>(count) * kSecondsPerDay);
}

Date dateWithNumberOfHoursFromNow(std::uint64_t count)
{
    return Date::now().dateByAddingTimeInterval(static_cast<double>(count) * kSecondsPerHour);
}

Date dateWithNumberOfHoursAgo(std::uint64_t count)
{
    return Date::now().dateByAddingTimeInterval(-static_cast<double>(count) * kSecondsPerHour);
}

Date firstMomentOfDay(Date date)
{
    // Dates the calendar cannot place (not finite, or beyond any year the C
    // library handles) have no day to start; they come back unchanged.
    constexpr double kLimit = 1e15;
    const double seconds = date.timeIntervalSince1970();
    if (!std::isfinite(seconds) || std::fabs(seconds) > kLimit) {
        return date;
    }
    tzset();  // follow a change of TZ, as the current calendar would
    const auto moment = static_cast<std::time_t>(std::floor(seconds));
    const auto day = localDay(moment);
    if (!day) {
        return date;
    }
    // The first second whose local day is this one. Midnight need not exist
    // (a clock change may skip it) and a day may last 23 or 25 hours, so
    // search rather than compute: three days back is surely an earlier day,
    // and local days never go back (a clock set back at midnight repeats the
    // previous day's last hour before this day begins).
    std::time_t earlier = moment - 3 * static_cast<std::time_t>(kSecondsPerDay);
    std::time_t sameDay = moment;
    while (sameDay - earlier > 1) {
        const auto middle = earlier + (sameDay - earlier) / 2;
        const auto middleDay = localDay(middle);
        if (middleDay && *middleDay >= *day) {
            sameDay = middle;
        } else {
            earlier = middle;
        }
    }
    return Date(static_cast<double>(sameDay));
}

Date lastMomentOfDay(Date date)
{
    return firstMomentOfDay(date).dateByAddingTimeInterval(kSecondsPerDay - 1);
}

std::int64_t numberOfDaysUntilDate(Date date, Date otherDate)
{
    const double interval = otherDate.timeIntervalSinceDate(date);
    if (interval == 0 || std::isnan(interval)) {
        return 0;
    }
    const double days = interval < 0 ? std::floor(interval / kSecondsPerDay) : std::ceil(interval / kSecondsPerDay);
    // 2^63 is exactly representable; anything at or beyond it saturates.
    constexpr double kBound = 9223372036854775808.0;
    if (days >= kBound) {
        return std::numeric_limits<std::int64_t>::max();
    }
    if (days < -kBound) {
        return std::numeric_limits<std::int64_t>::min();
    }
    return static_cast<std::int64_t>(days);
}

std::int64_t absoluteNumberOfDaysUntilDate(Date date, Date otherDate)
{
    const auto days = static_cast<std::int32_t>(static_cast<std::uint32_t>(numberOfDaysUntilDate(date, otherDate)));
    return std::abs(static_cast<std::int64_t>(days));
}
