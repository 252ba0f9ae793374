#include "QMFoundation/Dates/NSDate+QMCommon.h"
#include "QMFoundation/Dates/QMTimer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>
#include <string>

using platform::Date;

namespace {

// Puts the process in a time zone for one test, and back.
class TimeZone {
public:
    explicit TimeZone(const char* zone)
    {
        if (const char* previous = std::getenv("TZ")) {
            previous_ = previous;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone()
    {
        if (previous_) {
            setenv("TZ", previous_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

private:
    std::optional<std::string> previous_;
};

// Central European rules: clocks go forward at 02:00 on the last Sunday of
// March and back at 03:00 on the last Sunday of October.
constexpr const char* kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";
// Clocks go forward at midnight, so some days begin at 01:00.
constexpr const char* kMidnightChange = "<-03>3<-02>,M11.1.0/0,M2.3.0/0";

TEST(QMTimer, ReadsZeroUntilStoppedThenKeepsTheFirstEnd)
{
    const auto timer = QMTimer::timer();
    EXPECT_FALSE(timer->endDate());
    EXPECT_EQ(timer->timeElapsedInSeconds(), 0.0);
    EXPECT_EQ(timer->timeElapsedInMilliseconds(), 0.0);

    // Spin until the clock has visibly moved, so the elapsed time is positive.
    while (Date::now() <= timer->startDate()) {
    }
    const double seconds = timer->stopAndTimeElapsedInSeconds();
    EXPECT_GT(seconds, 0.0);
    const auto end = timer->endDate();
    while (Date::now() <= *end) {
    }
    timer->stop();
    EXPECT_EQ(timer->endDate(), end);
    EXPECT_EQ(timer->timeElapsedInSeconds(), seconds);
    EXPECT_EQ(timer->stopAndTimeElapsedInMilliseconds(), seconds * 1000.0);

    timer->start();
    EXPECT_FALSE(timer->endDate());
    EXPECT_EQ(timer->timeElapsedInSeconds(), 0.0);
    EXPECT_TRUE(timer->valueForKey("endDate").isNothing());
    EXPECT_EQ(timer->valueForKey("startDate"), platform::Value(timer->startDate()));
}

TEST(NSDateQMCommon, MovesByWholeDaysAndHours)
{
    const auto before = Date::now();
    const auto daysAhead = dateWithNumberOfDaysFromNow(2);
    const auto daysBack = dateWithNumberOfDaysAgo(3);
    const auto hoursAhead = dateWithNumberOfHoursFromNow(5);
    const auto hoursBack = dateWithNumberOfHoursAgo(1);
    const auto after = Date::now();
    const auto within = [&](Date date, double offset) {
        return date >= before.dateByAddingTimeInterval(offset) && date <= after.dateByAddingTimeInterval(offset);
    };
    EXPECT_TRUE(within(daysAhead, 2 * 86400));
    EXPECT_TRUE(within(daysBack, -3 * 86400));
    EXPECT_TRUE(within(hoursAhead, 5 * 3600));
    EXPECT_TRUE(within(hoursBack, -3600));
}

TEST(NSDateQMCommon, CountsDaysRoundingAwayFromZero)
{
    const Date date(1'700'000'000);
    struct Case {
        double offset;
        std::int64_t days;
        std::int64_t absoluteDays;
    };
    const Case cases[] = {
        {0, 0, 0},
        {1, 1, 1},
        {-1, -1, 1},
        {86400, 1, 1},
        {86401, 2, 2},
        {25 * 3600, 2, 2},
        {-3600, -1, 1},
        {-86400, -1, 1},
        {-86400.5, -2, 2},
        // Counts beyond 32 bits wrap before the absolute value is taken.
        {(4294967296.0 + 5) * 86400, 4294967301, 5},
        {2147483648.0 * 86400, 2147483648, 2147483648},
        {std::nan(""), 0, 0},
        {1e300, std::numeric_limits<std::int64_t>::max(), 1},
        {-1e300, std::numeric_limits<std::int64_t>::min(), 0},
    };
    for (const auto& testCase : cases) {
        const auto other = date.dateByAddingTimeInterval(testCase.offset);
        EXPECT_EQ(numberOfDaysUntilDate(date, other), testCase.days) << testCase.offset;
        EXPECT_EQ(absoluteNumberOfDaysUntilDate(date, other), testCase.absoluteDays) << testCase.offset;
    }
}

TEST(NSDateQMCommon, FindsDayBoundariesOnShortAndLongDays)
{
    struct Case {
        const char* zone;
        double moment;
        double firstMoment;
    };
    const Case cases[] = {
        // 2024-03-31 12:00 CEST, a 23-hour day beginning at 00:00 CET.
        {kCentralEurope, 1711879200, 1711839600},
        {kCentralEurope, 1711839600, 1711839600},
        {kCentralEurope, 1711922399.75, 1711839600},
        // 2024-10-27, a 25-hour day; its last real second lies 25 hours on.
        {kCentralEurope, 1730069999, 1729980000},
        {kCentralEurope, 1729980000 - 0.5, 1729980000 - 86400},
        // 2024-11-03 begins at 01:00, midnight being skipped.
        {kMidnightChange, 1730642400, 1730602800},
        {kMidnightChange, 1730602800, 1730602800},
        {kMidnightChange, 1730602799, 1730602799 - 23 * 3600 - 3599},
        {"UTC0", 1700000000.25, 1699920000},
    };
    for (const auto& testCase : cases) {
        const TimeZone zone(testCase.zone);
        const Date moment(testCase.moment);
        EXPECT_EQ(firstMomentOfDay(moment).timeIntervalSince1970(), testCase.firstMoment)
            << testCase.zone << " " << testCase.moment;
        EXPECT_EQ(lastMomentOfDay(moment).timeIntervalSince1970(), testCase.firstMoment + 86399)
            << testCase.zone << " " << testCase.moment;
    }
}

TEST(NSDateQMCommon, LeavesDatesWithoutADayAlone)
{
    for (const double seconds : {std::nan(""), std::numeric_limits<double>::infinity(), 1e300}) {
        const Date date(seconds);
        const auto first = firstMomentOfDay(date).timeIntervalSince1970();
        EXPECT_TRUE(first == seconds || (std::isnan(first) && std::isnan(seconds)));
    }
}

}  // namespace
