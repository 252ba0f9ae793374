#include "Platform/DateFormatting/TimeZone.h"

#include <unicode/timezone.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace platform {
namespace {

std::string utf8(const icu::UnicodeString& text)
{
    std::string result;
    text.toUTF8String(result);
    return result;
}

std::unique_ptr<icu::TimeZone> icuZone(const std::string& identifier)
{
    return std::unique_ptr<icu::TimeZone>(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(identifier)));
}

}  // namespace

TimeZone TimeZone::utc()
{
    return TimeZone("UTC");
}

TimeZone TimeZone::local()
{
    // ICU detects the host zone once and keeps it; so do we.
    static const TimeZone zone = [] {
        std::unique_ptr<icu::TimeZone> detected(icu::TimeZone::createDefault());
        icu::UnicodeString identifier;
        detected->getID(identifier);
        const auto name = utf8(identifier);
        // A host zone ICU cannot name is taken as UTC rather than as the
        // "unknown" zone, which formats its offset as GMT.
        return name.empty() || name == "Etc/Unknown" ? utc() : TimeZone(name);
    }();
    return zone;
}

std::optional<TimeZone> TimeZone::withIdentifier(std::string_view identifier)
{
    if (identifier.empty()) {
        return std::nullopt;
    }
    const std::string name(identifier);
    const auto zone = icuZone(name);
    if (*zone == icu::TimeZone::getUnknown()) {
        return std::nullopt;
    }
    return TimeZone(name);
}

std::optional<TimeZone> TimeZone::withSecondsFromGMT(int seconds)
{
    constexpr int kLimit = 18 * 3600;
    if (seconds < -kLimit || seconds > kLimit) {
        return std::nullopt;
    }
    const int minutes = static_cast<int>(std::floor(seconds / 60.0));
    if (minutes == 0) {
        return utc();
    }
    char name[16];
    std::snprintf(name, sizeof name, "GMT%c%02d:%02d", minutes < 0 ? '-' : '+', std::abs(minutes) / 60,
                  std::abs(minutes) % 60);
    return TimeZone(name);
}

int TimeZone::secondsFromGMT(Date date) const
{
    const auto zone = icuZone(identifier_);
    std::int32_t raw = 0;
    std::int32_t daylight = 0;
    UErrorCode status = U_ZERO_ERROR;
    zone->getOffset(date.timeIntervalSince1970() * 1000.0, false, raw, daylight, status);
    return U_SUCCESS(status) ? (raw + daylight) / 1000 : 0;
}

}  // namespace platform
