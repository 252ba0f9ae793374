// The transformers models name, found by name; the RFC 3339 and ISO 8601
// timestamp formats; the relative "time ago" text; camelised names.
//
// The binary runs in a zone far from UTC and a German locale (set before
// anything formats a date), so that UTC output and the locale's words are
// told apart from the defaults.
#include "QMFoundation/REST/NSDate+ISO8601.h"
#include "QMFoundation/REST/NSDate+RFC3339.h"
#include "QMFoundation/REST/NSDateFormatter+RFC3339.h"
#include "QMFoundation/REST/NSString+QMCamelize.h"

#include "Platform/DateFormatting/DateFormatter.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/OrderedSet.h"
#include "Platform/Runtime/ValueTransformer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>

using platform::Date;
using platform::Value;
using platform::ValueTransformer;

namespace {

const bool environmentSet = [] {
    setenv("TZ", "Pacific/Chatham", 1);
    setenv("LC_ALL", "de_DE.UTF-8", 1);
    return true;
}();

// A fresh instance, as a model mapping makes one.
platform::ValueTransformerRef transformer(const char* name)
{
    auto made = ValueTransformer::transformerOfClassNamed(name);
    if (!made) {
        throw std::runtime_error(std::string(name) + " is not registered");
    }
    return made;
}

const Date kSample(1394014272.123);  // 2014-03-05 10:11:12.123 UTC

TEST(TimestampTest, RFC3339ParsingNeedsAFractionAndALiteralZ)
{
    EXPECT_TRUE(environmentSet);
    const std::pair<const char*, std::optional<double>> rows[] = {
        {"2014-03-05T10:11:12.123Z", 1394014272.123},
        {"1970-01-01T00:00:00.000Z", 0.0},
        {"2014-03-05T10:11:12Z", std::nullopt},
        // The digits are read as a fraction however many there are, to the millisecond.
        {"2014-03-05T10:11:12.12Z", 1394014272.12},
        {"2014-03-05T10:11:12.12345Z", 1394014272.123},
        {"2014-03-05T10:11:12.123+02:00", std::nullopt},
        {"2014-03-05T10:11:12.123", std::nullopt},
        {"2014-03-05 10:11:12.123Z", std::nullopt},
        {"2014-02-30T10:11:12.123Z", std::nullopt},
        {"2014-03-05T10:11:12.123Z trailing", std::nullopt},
        {"", std::nullopt},
        {"2014-03-05T10:11:12.12\xffZ", std::nullopt},
    };
    for (const auto& [text, seconds] : rows) {
        SCOPED_TRACE(text);
        const auto parsed = dateWithRFC3339DateString(text);
        ASSERT_EQ(parsed.has_value(), seconds.has_value());
        if (seconds) {
            EXPECT_NEAR(parsed->timeIntervalSince1970(), *seconds, 1e-6);
        }
    }
}

TEST(TimestampTest, ISO8601ReadsItsFiveFractionDigitsToTheMillisecond)
{
    const auto parsed = dateWithISO8601DateString("2014-03-05T10:11:12.12345Z");
    ASSERT_TRUE(parsed);
    // Fields are whole milliseconds, so the last two digits are lost.
    EXPECT_NEAR(parsed->timeIntervalSince1970(), 1394014272.123, 1e-6);
    EXPECT_FALSE(dateWithISO8601DateString("2014-03-05T10:11:12Z"));
    EXPECT_EQ(dateWithISO8601DateString("2014-03-05T10:11:12.123Z"), parsed);
    EXPECT_FALSE(dateWithISO8601DateString("2014-03-05T10:11:12.12345+00:00"));
}

TEST(TimestampTest, FormattingGivesUTCWithTheFixedDigitsWhateverTheLocalZone)
{
    // The local zone of this binary is far from UTC: a formatter without a
    // zone of its own shows another hour.
    auto local = platform::DateFormatter::create();
    local->setDateFormat(rfc3339DateFormatter()->dateFormat());
    ASSERT_NE(local->stringFromDate(kSample), rfc3339DateString(kSample));

    const std::tuple<double, const char*, const char*> rows[] = {
        {1394014272.123, "2014-03-05T10:11:12.123Z", "2014-03-05T10:11:12.12300Z"},
        {0.0, "1970-01-01T00:00:00.000Z", "1970-01-01T00:00:00.00000Z"},
        {-0.5, "1969-12-31T23:59:59.500Z", "1969-12-31T23:59:59.50000Z"},
        {951782400.007, "2000-02-29T00:00:00.007Z", "2000-02-29T00:00:00.00700Z"},
        {4102444799.999, "2099-12-31T23:59:59.999Z", "2099-12-31T23:59:59.99900Z"},
    };
    for (const auto& [seconds, rfc3339, iso8601] : rows) {
        SCOPED_TRACE(rfc3339);
        EXPECT_EQ(rfc3339DateString(Date(seconds)), rfc3339);
        EXPECT_EQ(iso8601DateString(Date(seconds)), iso8601);
        // And back again.
        EXPECT_EQ(rfc3339DateString(*dateWithRFC3339DateString(rfc3339)), rfc3339);
        EXPECT_EQ(iso8601DateString(*dateWithISO8601DateString(iso8601)), iso8601);
    }
}

TEST(ValueTransformerTest, TheSixTransformersAreFoundByNameWithTheirKindsAndDirections)
{
    const std::tuple<const char*, const char*, bool> rows[] = {
        {"NSStringToRFC3339DateTransformer", "NSDate", true},
        {"NSStringToISO8601DateTransformer", "NSDate", true},
        {"NSStringToNSURLTransformer", "NSURL", true},
        {"NSNumberToBoolTransformer", "NSNumber", true},
        {"QMOrderedSetToArrayTransformer", "NSArray", true},
        {"QMTimeagoTransformer", "NSString", false},
    };
    const auto* base = platform::classFromString("NSValueTransformer");
    ASSERT_TRUE(base);
    for (const auto& [name, valueClass, reversible] : rows) {
        SCOPED_TRACE(name);
        const auto* cls = platform::classFromString(name);
        ASSERT_TRUE(cls);
        EXPECT_TRUE(cls->isSubclassOfClass(*base));
        const auto named = ValueTransformer::valueTransformerForName(name);
        ASSERT_TRUE(named);
        EXPECT_EQ(named->className(), name);
        ASSERT_TRUE(named->transformedValueClass());
        EXPECT_EQ(named->transformedValueClass()->name(), valueClass);
        EXPECT_EQ(named->allowsReverseTransformation(), reversible);
    }
}

TEST(ValueTransformerTest, TimestampTransformersTakeOnlyTextForwardAndOnlyDatesBack)
{
    const std::pair<const char*, std::string> formats[] = {{"NSStringToRFC3339DateTransformer", rfc3339DateString(kSample)},
                                                           {"NSStringToISO8601DateTransformer", iso8601DateString(kSample)}};
    for (const auto& [name, sampleText] : formats) {
        SCOPED_TRACE(name);
        const auto dates = transformer(name);
        const Value text = dates->reverseTransformedValue(kSample);
        EXPECT_EQ(text, Value(sampleText));  // each in its own format
        EXPECT_EQ(dates->transformedValue(text), Value(kSample));
        for (const Value& other : {Value(), Value::null(), Value(1394014272), Value("yesterday")}) {
            EXPECT_TRUE(dates->transformedValue(other).isNothing()) << other.description();
        }
        EXPECT_TRUE(dates->reverseTransformedValue(Value("2014-03-05T10:11:12.123Z")).isNothing());
        EXPECT_TRUE(dates->reverseTransformedValue(Value()).isNothing());
    }
}

TEST(ValueTransformerTest, URLsComeFromTextThatIsAURL)
{
    const auto urls = transformer("NSStringToNSURLTransformer");
    const Value url = urls->transformedValue(Value("https://example.com/a?b=c"));
    ASSERT_TRUE(url.url());
    EXPECT_EQ(url.url()->absoluteString(), "https://example.com/a?b=c");
    EXPECT_EQ(urls->reverseTransformedValue(url), Value("https://example.com/a?b=c"));
    for (const Value& other : {Value("has space"), Value("%zz"), Value(), Value(3)}) {
        EXPECT_TRUE(urls->transformedValue(other).isNothing()) << other.description();
    }
    EXPECT_TRUE(urls->reverseTransformedValue(Value("https://example.com")).isNothing());
}

TEST(ValueTransformerTest, BooleansComeOnlyFromNumbers)
{
    const auto booleans = transformer("NSNumberToBoolTransformer");
    const std::pair<Value, bool> rows[] = {
        {Value(1), true}, {Value(0), false}, {Value(-3), true}, {Value(0.25), true}, {Value(true), true},
        {Value("1"), false}, {Value("true"), false}, {Value(), false}, {Value::null(), false},
    };
    for (const auto& [input, expected] : rows) {
        SCOPED_TRACE(input.description());
        for (const Value& output : {booleans->transformedValue(input), booleans->reverseTransformedValue(input)}) {
            EXPECT_TRUE(output.isBoolean());
            EXPECT_EQ(output, Value(expected));
        }
    }
}

TEST(ValueTransformerTest, OrderedSetsBecomeArraysAndBack)
{
    const auto sets = transformer("QMOrderedSetToArrayTransformer");
    const Value array = sets->transformedValue(Value(platform::OrderedSet{"b", "a"}));
    ASSERT_TRUE(array.array());
    EXPECT_EQ(*array.array(), (platform::Array{"b", "a"}));
    const Value back = sets->reverseTransformedValue(Value(platform::Array{"b", "a", "b"}));
    ASSERT_TRUE(back.orderedSet());
    EXPECT_EQ(*back.orderedSet(), (platform::OrderedSet{"b", "a"}));
    EXPECT_TRUE(sets->transformedValue(Value(platform::Array{"a"})).isNothing());
    EXPECT_TRUE(sets->reverseTransformedValue(Value(platform::OrderedSet{"a"})).isNothing());
}

TEST(ValueTransformerTest, TimeAgoSpeaksTheCurrentLocaleAndGivesEmptyTextForNonDates)
{
    const auto timeago = transformer("QMTimeagoTransformer");
    const Date now = Date::now();
    const Value today = timeago->transformedValue(now);
    const Value yesterday = timeago->transformedValue(now.dateByAddingTimeInterval(-86400));
    ASSERT_TRUE(today.isString());
    EXPECT_THAT(*today.string(), testing::MatchesRegex("[Hh]eute"));
    EXPECT_THAT(*yesterday.string(), testing::MatchesRegex("[Gg]estern"));
    // Far from today: the locale's long date, in the local zone (already the
    // 5th of March there).
    EXPECT_EQ(timeago->transformedValue(Date(1393970000)), Value("5. M\u00e4rz 2014"));
    for (const Value& other : {Value(), Value("2014-03-05T10:11:12.123Z"), Value(1394014272)}) {
        EXPECT_EQ(timeago->transformedValue(other), Value("")) << other.description();
    }
    EXPECT_EQ(platform::ValueTransformer::valueTransformerForName("QMTimeagoTransformer")->allowsReverseTransformation(),
              false);
}

TEST(CamelizeTest, UpperCasesTheFirstCharacterOnly)
{
    const std::pair<const char*, const char*> rows[] = {
        {"repo_name", "Repo_name"},
        {"already", "Already"},
        {"Zarvo", "Zarvo"},
        {"", ""},
        {"x", "X"},
        {"1st", "1st"},
        {"\u00e9lan vital", "\u00c9lan vital"},
        {"\u00dfe", "SSe"},
        {"\xff" "abc", "\xff" "abc"},
        {"\U0001D41Aa", "\U0001D41Aa"},
    };
    for (const auto& [text, expected] : rows) {
        SCOPED_TRACE(text);
        EXPECT_EQ(camelizedString(text), expected);
    }
}

}  // namespace
