#include "Platform/DateFormatting/DateFormatter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <ostream>
#include <random>
#include <thread>
#include <vector>

using namespace platform;

namespace platform {
void PrintTo(const Date& date, std::ostream* stream)
{
    *stream << std::to_string(date.timeIntervalSince1970()) << " (" << date.description() << ")";
}
}  // namespace platform

namespace {

constexpr const char* kRFC3339 = "yyyy'-'MM'-'dd'T'HH':'mm':'ss'.'SSS'Z'";
constexpr const char* kISO8601 = "yyyy'-'MM'-'dd'T'HH':'mm':'ss'.'SSSSS'Z'";

// 2014-03-05 10:11:12.123 UTC.
constexpr double kMarchFifth = 1394014272.123;

DateFormatterRef formatter(const char* pattern, const char* zone = "UTC", const char* locale = "en_US_POSIX")
{
    auto made = DateFormatter::create();
    made->setDateFormat(pattern);
    made->setTimeZone(TimeZone::withIdentifier(zone).value());
    made->setLocaleIdentifier(std::string(locale));
    return made;
}

// Noon UTC of the day `days` from today, so that "today" cannot slip into
// another day while a test runs (short of a run that spans midnight).
Date noonUTC(int days)
{
    const double today = std::floor(Date::now().timeIntervalSince1970() / 86400.0) * 86400.0;
    return Date(today + days * 86400.0 + 43200.0);
}

TEST(DateFormatterPatterns, RenderTheLogLineTimestamps)
{
    EXPECT_EQ(formatter("yyyy-MM-dd HH:mm:ss:SSSS")->stringFromDate(Date(kMarchFifth)), "2014-03-05 10:11:12:1230");
    EXPECT_EQ(formatter("yyyy/MM/dd HH:mm:ss:SSS")->stringFromDate(Date(kMarchFifth)), "2014/03/05 10:11:12:123");
    // Fields are whole milliseconds: the fourth digit is always 0, never rounded up.
    EXPECT_EQ(formatter("ss:SSSS")->stringFromDate(Date(12.9999)), "12:9990");
    // ... but a whole millisecond stays itself through the scaling.
    EXPECT_EQ(formatter("ss.SSS")->stringFromDate(Date(1.001)), "01.001");  // 1.001 * 1000 < 1001
    // Before 1970 the millisecond still counts forwards within its second.
    EXPECT_EQ(formatter("yyyy-MM-dd HH:mm:ss.SSS")->stringFromDate(Date(-0.25)), "1969-12-31 23:59:59.750");
}

TEST(DateFormatterPatterns, RenderRFC3339AndISO8601InUTC)
{
    EXPECT_EQ(formatter(kRFC3339)->stringFromDate(Date(kMarchFifth)), "2014-03-05T10:11:12.123Z");
    EXPECT_EQ(formatter(kISO8601)->stringFromDate(Date(kMarchFifth)), "2014-03-05T10:11:12.12300Z");
    EXPECT_EQ(formatter(kRFC3339)->stringFromDate(Date(0)), "1970-01-01T00:00:00.000Z");
    // The zone, not the machine's, decides the fields.
    EXPECT_EQ(formatter(kRFC3339, "Asia/Tokyo")->stringFromDate(Date(kMarchFifth)), "2014-03-05T19:11:12.123Z");
}

TEST(DateFormatterPatterns, QuoteLiteralsAndIgnoreUnknownLetters)
{
    EXPECT_EQ(formatter("'Day' d 'of' MMMM, ''yy")->stringFromDate(Date(kMarchFifth)), "Day 5 of March, '14");
    // A pattern cannot fail: what ICU does not know leaves no trace and no crash.
    EXPECT_EQ(formatter("yyyy 'open")->stringFromDate(Date(kMarchFifth)).substr(0, 4), "2014");
}

// Numeric patterns print without ICU's formatter; the text must be ICU's
// own, for every field width, zone, both sides of 1970 and the years where the
// fast path hands over to ICU.
TEST(DateFormatterPatterns, PrintNumericFieldsExactlyAsICUDoes)
{
    const char* const patterns[] = {
        "yyyy-MM-dd HH:mm:ss:SSSS", "yyyy/MM/dd HH:mm:ss:SSS", kRFC3339, kISO8601,
        "y M d H m s S", "yy MM dd HH mm ss SS", "yyy yyyyy ddd HHH mmm sss SSSSSSSSS",
        "'quoted ''yyyy'' text' yyyy''MM", "\u00e9t\u00e9 d/M \u2013 H:mm",
    };
    const char* const zones[] = {"UTC", "Europe/Berlin", "America/St_Johns", "Asia/Kolkata", "Pacific/Kiritimati"};
    std::mt19937_64 random(11);
    // From 1500 (Julian in ICU, so handed over) to 10500 (five-digit years).
    std::uniform_real_distribution<double> seconds(-14'831'769'600.0, 269'135'193'600.0);
    std::vector<double> dates{0, -0.001, 1.001, -62135596800.0, -12219292800.0, -12219292800.001, 253402300799.999,
                              253402300800.0, 1394014272.123, 1711846800.0};
    for (int round = 0; round < 400; ++round) {
        dates.push_back(seconds(random));
        dates.push_back(std::round(seconds(random)));  // whole seconds, where rounding matters most
    }
    for (const auto* zone : zones) {
        for (const auto* pattern : patterns) {
            const auto fast = formatter(pattern, zone);
            const auto icu = formatter(pattern, zone);
            internal::DateFormatterTesting::useICUForEveryPattern(*icu);
            for (const auto date : dates) {
                SCOPED_TRACE(std::string(zone) + " " + pattern + " " + std::to_string(date));
                ASSERT_EQ(fast->stringFromDate(Date(date)), icu->stringFromDate(Date(date)));
            }
        }
    }
}

TEST(DateFormatterParsing, IsStrictAboutTheWholeText)
{
    const auto rfc3339 = formatter(kRFC3339);
    EXPECT_EQ(rfc3339->dateFromString("2014-03-05T10:11:12.123Z"), Date(1394014272.123));
    EXPECT_FALSE(rfc3339->dateFromString("2014-03-05T10:11:12Z"));        // no fraction
    EXPECT_FALSE(rfc3339->dateFromString("2014-03-05T10:11:12.123+02:00"));  // an offset, not the literal Z
    EXPECT_FALSE(rfc3339->dateFromString("2014-03-05T10:11:12.123Zjunk"));  // text left over
    EXPECT_FALSE(rfc3339->dateFromString("2014-03-05T10:11:12.123"));     // the closing literal missing
    EXPECT_FALSE(rfc3339->dateFromString("2014-03-05T10:11:12.123 Z"));   // a literal not matched exactly
    EXPECT_FALSE(rfc3339->dateFromString("2014-02-30T10:11:12.123Z"));    // no such day
    EXPECT_FALSE(rfc3339->dateFromString(""));
    EXPECT_FALSE(rfc3339->dateFromString("2014-03-05T10:11:12.123Z\xff"));  // not UTF-8

    EXPECT_EQ(formatter(kISO8601)->dateFromString("2014-03-05T10:11:12.12345Z"), Date(1394014272.123));
}

TEST(DateFormatterParsing, LenientParsingRollsOverImpossibleDays)
{
    const auto lenient = formatter("yyyy-MM-dd");
    lenient->setLenient(true);
    EXPECT_TRUE(lenient->isLenient());
    EXPECT_EQ(lenient->dateFromString("2014-02-30"), formatter("yyyy-MM-dd")->dateFromString("2014-03-02"));
}

TEST(DateFormatterParsing, ReadsBackWhatItWrites)
{
    std::mt19937_64 random(7);
    std::uniform_int_distribution<std::int64_t> milliseconds(-2'000'000'000'000, 4'000'000'000'000);
    for (const auto* zone : {"UTC", "Europe/Berlin", "America/St_Johns"}) {
        // "xxxxx" keeps the seconds of old local mean times (St. John's was
        // 3:30:52 behind until 1935), so the text names the moment exactly.
        const auto withZone = formatter("yyyy-MM-dd'T'HH:mm:ss.SSS xxxxx", zone);
        for (int round = 0; round < 300; ++round) {
            const Date date(static_cast<double>(milliseconds(random)) / 1000.0);
            const auto text = withZone->stringFromDate(date);
            SCOPED_TRACE(text);
            EXPECT_EQ(withZone->dateFromString(text), date);
        }
    }
}

TEST(DateFormatterTimeZones, FollowDaylightSavingTime)
{
    const auto berlin = formatter("HH:mm zzzz", "Europe/Berlin");
    EXPECT_EQ(berlin->stringFromDate(Date(1388577600)), "13:00 Central European Standard Time");  // 2014-01-01 12:00Z
    EXPECT_EQ(berlin->stringFromDate(Date(1404216000)), "14:00 Central European Summer Time");    // 2014-07-01 12:00Z
    EXPECT_EQ(TimeZone::withIdentifier("Europe/Berlin")->secondsFromGMT(Date(1404216000)), 7200);
    EXPECT_EQ(TimeZone::utc().secondsFromGMT(Date(1404216000)), 0);
}

TEST(DateFormatterTimeZones, AreNamedOrFixedOffsets)
{
    EXPECT_FALSE(TimeZone::withIdentifier("Mars/Olympus_Mons"));
    EXPECT_FALSE(TimeZone::withIdentifier(""));
    const auto india = TimeZone::withSecondsFromGMT(5 * 3600 + 30 * 60);
    ASSERT_TRUE(india);
    EXPECT_EQ(india->identifier(), "GMT+05:30");
    EXPECT_EQ(india->secondsFromGMT(Date(0)), 19800);
    EXPECT_EQ(TimeZone::withSecondsFromGMT(-3600)->identifier(), "GMT-01:00");
    EXPECT_EQ(TimeZone::withSecondsFromGMT(0), TimeZone::utc());
    EXPECT_FALSE(TimeZone::withSecondsFromGMT(19 * 3600));

    auto fixed = formatter("HH:mm");
    fixed->setTimeZone(india);
    EXPECT_EQ(fixed->stringFromDate(Date(0)), "05:30");
    fixed->setTimeZone(std::nullopt);
    EXPECT_EQ(fixed->timeZone(), TimeZone::local());
}

TEST(DateFormatterStyles, FollowTheLocale)
{
    auto styled = DateFormatter::create();
    styled->setTimeZone(TimeZone::utc());
    styled->setDateStyle(DateFormatter::Style::Long);
    styled->setLocaleIdentifier(std::string("en_US"));
    EXPECT_EQ(styled->stringFromDate(Date(kMarchFifth)), "March 5, 2014");
    styled->setLocaleIdentifier(std::string("de_DE"));
    EXPECT_EQ(styled->stringFromDate(Date(kMarchFifth)), "5. März 2014");
    styled->setTimeStyle(DateFormatter::Style::Short);
    EXPECT_EQ(styled->stringFromDate(Date(kMarchFifth)), "5. März 2014 um 10:11");
    EXPECT_EQ(styled->dateFromString("5. März 2014 um 10:11"), Date(1394014260));
    // Arabic writes its own digits, in fixed patterns too.
    EXPECT_EQ(formatter("yyyy", "UTC", "ar_EG")->stringFromDate(Date(kMarchFifth)), "\u0662\u0660\u0661\u0664");
}

TEST(DateFormatterStyles, LetTheLastOfPatternAndStyleWin)
{
    auto changing = formatter("yyyy");
    changing->setDateStyle(DateFormatter::Style::Short);
    EXPECT_EQ(changing->dateFormat(), "");
    EXPECT_EQ(changing->stringFromDate(Date(kMarchFifth)), "3/5/14");
    changing->setDateFormat("MM");
    EXPECT_EQ(changing->stringFromDate(Date(kMarchFifth)), "03");

    auto empty = DateFormatter::create();
    EXPECT_EQ(empty->stringFromDate(Date(kMarchFifth)), "");
    EXPECT_FALSE(empty->dateFromString("2014"));
    EXPECT_EQ(empty->localeIdentifier(), DateFormatter::currentLocaleIdentifier());
}

TEST(DateFormatterStyles, NameNearbyDaysRelatively)
{
    auto relative = DateFormatter::create();
    relative->setTimeZone(TimeZone::utc());
    relative->setLocaleIdentifier(std::string("en_US"));
    relative->setDateStyle(DateFormatter::Style::Long);
    relative->setDoesRelativeDateFormatting(true);
    EXPECT_EQ(relative->stringFromDate(noonUTC(0)), "Today");
    EXPECT_EQ(relative->stringFromDate(noonUTC(-1)), "Yesterday");
    EXPECT_EQ(relative->stringFromDate(noonUTC(1)), "Tomorrow");
    // Further away: the long style of the locale.
    auto plain = formatter("MMMM d, y");
    plain->setLocaleIdentifier(std::string("en_US"));
    EXPECT_EQ(relative->stringFromDate(noonUTC(-10)), plain->stringFromDate(noonUTC(-10)));

    relative->setLocaleIdentifier(std::string("de_DE"));
    // The locale decides its words and their capitals; German has one for
    // the day before yesterday, too.
    EXPECT_EQ(relative->stringFromDate(noonUTC(-1)), "gestern");
    EXPECT_EQ(relative->stringFromDate(noonUTC(-2)), "vorgestern");
}

TEST(DateFormatterInput, DatesOutsideTheCalendarGiveNoText)
{
    const auto rfc3339 = formatter(kRFC3339);
    EXPECT_EQ(rfc3339->stringFromDate(Date(std::numeric_limits<double>::quiet_NaN())), "");
    EXPECT_EQ(rfc3339->stringFromDate(Date(std::numeric_limits<double>::infinity())), "");
    EXPECT_EQ(rfc3339->stringFromDate(Date(1e300)), "");
    EXPECT_EQ(rfc3339->stringFromDate(Date(-1.0001e14)), "");
    // Within the range, far years go to ICU's formatter, which prints them.
    EXPECT_EQ(formatter("y")->stringFromDate(Date(1e14)), "3170843");
    EXPECT_EQ(rfc3339->stringFromDate(Date(kMarchFifth)), "2014-03-05T10:11:12.123Z");
}

// One formatter, shared: threads format and parse while another keeps
// switching its pattern between two, one printed by the fast path and one by
// ICU's formatter (a month name). Every answer must belong wholly to one of
// the two patterns.
TEST(DateFormatterThreads, ShareOneFormatterWhileItsSettingsChange)
{
    const auto shared = formatter(kRFC3339);
    const std::string first = "2014-03-05T10:11:12.123Z";
    const std::string second = "5 Mar 2014 10:11:12.123";
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::atomic<int> formatted{0};

    std::vector<std::thread> workers;
    for (int worker = 0; worker < 4; ++worker) {
        workers.emplace_back([&] {
            while (!stop.load()) {
                const auto text = shared->stringFromDate(Date(kMarchFifth));
                if (text != first && text != second) {
                    ++wrong;
                }
                const auto parsed = shared->dateFromString(text);
                // The pattern may have changed in between: then nothing parses.
                if (parsed && *parsed != Date(kMarchFifth)) {
                    ++wrong;
                }
                ++formatted;
            }
        });
    }
    // Ends on the pattern ICU prints, so the copies it lends are checked below.
    for (int change = 0; change < 400 || formatted.load() < 2000 || change % 2 == 1; ++change) {
        shared->setDateFormat(change % 2 == 0 ? kRFC3339 : "d MMM yyyy HH:mm:ss.SSS");
    }
    stop = true;
    for (auto& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(wrong.load(), 0);
    // Copies lent out before the last change and given back after it must not
    // be lent again: from now on only the last pattern may print.
    for (int call = 0; call < 16; ++call) {
        EXPECT_EQ(shared->stringFromDate(Date(kMarchFifth)), second);
    }
}

}  // namespace
