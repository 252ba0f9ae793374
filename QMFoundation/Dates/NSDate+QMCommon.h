// NSDate(QMCommon): dates some days or hours away, and day boundaries in the
// local calendar (the zone TZ names, or the system's).
#pragma once

#include "Platform/Foundation/Date.h"

#include <cstdint>

// Now plus or minus whole days of 86400 seconds, or hours of 3600 seconds;
// days are not calendar days here.
platform::Date dateWithNumberOfDaysFromNow(std::uint64_t count);
platform::Date dateWithNumberOfDaysAgo(std::uint64_t count);
platform::Date dateWithNumberOfHoursFromNow(std::uint64_t count);
platform::Date dateWithNumberOfHoursAgo(std::uint64_t count);

// The first moment of the local calendar day that holds `date`: midnight, or
// the first moment that exists where a clock change skips midnight.
platform::Date firstMomentOfDay(platform::Date date);
// firstMomentOfDay plus 86399 seconds, also on days of 23 or 25 hours, where
// it is an hour before or after the day's last second.
platform::Date lastMomentOfDay(platform::Date date);

// The days from `date` to `otherDate`, rounded away from zero: one second
// ahead is 1, one second back is -1, the same moment 0.
std::int64_t numberOfDaysUntilDate(platform::Date date, platform::Date otherDate);
// The absolute value of that count taken as a signed 32-bit number (so counts
// beyond that range wrap first).
std::int64_t absoluteNumberOfDaysUntilDate(platform::Date date, platform::Date otherDate);
