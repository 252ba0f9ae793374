#include "Platform/DateFormatting/NumericDatePattern.h"

#include <string_view>

namespace platform::internal {
namespace {

constexpr std::string_view kNumericFields = "yMdHmsS";
constexpr std::int64_t kMillisecondsPerDay = 86'400'000;

bool isPatternLetter(char character)
{
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

std::int64_t floorDivide(std::int64_t value, std::int64_t divisor)
{
    const auto quotient = value / divisor;
    return (value % divisor != 0 && (value < 0) != (divisor < 0)) ? quotient - 1 : quotient;
}

struct CivilDate {
    std::int64_t year;
    int month;
    int day;
};

// The proleptic Gregorian date of a day counted from 1970-01-01, by whole
// 400-year eras of 146097 days, with years taken to start on 1 March so that
// the leap day falls at the end.
CivilDate civilFromDays(std::int64_t days)
{
    days += 719468;  // from 0000-03-01
    const std::int64_t era = floorDivide(days, 146097);
    const auto dayOfEra = days - era * 146097;
    const auto yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const auto dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const auto shiftedMonth = (5 * dayOfYear + 2) / 153;
    const int day = static_cast<int>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
    const int month = static_cast<int>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
    return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

void appendPadded(std::string& text, std::int64_t value, int width)
{
    char digits[24];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value > 0);
    for (int pad = count; pad < width; ++pad) {
        text += '0';
    }
    while (count > 0) {
        text += digits[--count];
    }
}

}  // namespace

std::optional<NumericDatePattern> NumericDatePattern::compile(std::string_view pattern)
{
    NumericDatePattern compiled;
    std::string literal;
    const auto flushLiteral = [&] {
        if (!literal.empty()) {
            compiled.steps_.push_back({0, 0, std::move(literal)});
            literal.clear();
        }
    };
    for (std::size_t index = 0; index < pattern.size();) {
        const char character = pattern[index];
        if (character == '\'') {
            if (index + 1 < pattern.size() && pattern[index + 1] == '\'') {
                literal += '\'';
                index += 2;
                continue;
            }
            // Quoted text up to the closing quote; '' inside it is a quote.
            std::size_t end = index + 1;
            for (;;) {
                if (end >= pattern.size()) {
                    return std::nullopt;  // never closed: ICU's own reading applies
                }
                if (pattern[end] == '\'') {
                    if (end + 1 < pattern.size() && pattern[end + 1] == '\'') {
                        literal += '\'';
                        end += 2;
                        continue;
                    }
                    break;
                }
                literal += pattern[end++];
            }
            index = end + 1;
            continue;
        }
        if (!isPatternLetter(character)) {
            literal += character;
            ++index;
            continue;
        }
        if (kNumericFields.find(character) == std::string_view::npos) {
            return std::nullopt;
        }
        std::size_t end = index;
        while (end < pattern.size() && pattern[end] == character) {
            ++end;
        }
        const auto width = static_cast<int>(end - index);
        if ((character == 'M' && width > 2) || width > 9) {
            return std::nullopt;  // month names, or widths nobody writes
        }
        flushLiteral();
        compiled.steps_.push_back({character, width, {}});
        index = end;
    }
    flushLiteral();
    return compiled;
}

bool NumericDatePattern::format(std::int64_t milliseconds, std::int64_t offsetMilliseconds, std::string& text) const
{
    // 1583-9999 lies well inside +-2^53 milliseconds; beyond +-10^15 nothing
    // is in range, and the sum below cannot overflow.
    constexpr std::int64_t kLimit = 1'000'000'000'000'000;
    if (milliseconds <= -kLimit || milliseconds >= kLimit || offsetMilliseconds <= -kLimit
        || offsetMilliseconds >= kLimit) {
        return false;
    }
    const auto local = milliseconds + offsetMilliseconds;
    const auto days = floorDivide(local, kMillisecondsPerDay);
    const auto ofDay = local - days * kMillisecondsPerDay;
    const auto date = civilFromDays(days);
    if (date.year < 1583 || date.year > 9999) {
        return false;
    }
    const auto hour = ofDay / 3'600'000;
    const auto minute = ofDay / 60'000 % 60;
    const auto second = ofDay / 1000 % 60;
    const auto millisecond = ofDay % 1000;

    for (const auto& step : steps_) {
        switch (step.field) {
        case 0:
            text += step.literal;
            break;
        case 'y':
            // Two letters are the last two digits; otherwise at least `width`.
            appendPadded(text, step.width == 2 ? date.year % 100 : date.year, step.width);
            break;
        case 'M':
            appendPadded(text, date.month, step.width);
            break;
        case 'd':
            appendPadded(text, date.day, step.width);
            break;
        case 'H':
            appendPadded(text, hour, step.width);
            break;
        case 'm':
            appendPadded(text, minute, step.width);
            break;
        case 's':
            appendPadded(text, second, step.width);
            break;
        case 'S':
            // A fraction of the second: the leading digits of the
            // milliseconds, then zeros, as the calendar has no finer field.
            if (step.width < 3) {
                appendPadded(text, millisecond / (step.width == 1 ? 100 : 10), step.width);
            } else {
                appendPadded(text, millisecond, 3);
                text.append(static_cast<std::size_t>(step.width - 3), '0');
            }
            break;
        default:
            break;
        }
    }
    return true;
}

}  // namespace platform::internal
