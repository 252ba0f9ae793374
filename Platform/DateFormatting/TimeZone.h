// TimeZone: a named time zone, as the date formatter applies it.
//
// Zones are named by their identifiers: the IANA names ("Europe/Berlin"),
// "UTC", or a fixed offset written "GMT+02:00". A TimeZone is a plain value;
// the zone's rules come from ICU's data, so offsets follow daylight-saving
// changes and the zone's history.
#pragma once

#include "Platform/Foundation/Date.h"

#include <optional>
#include <string>
#include <string_view>

namespace platform {

class TimeZone {
public:
    // Zero seconds from GMT, always.
    static TimeZone utc();
    // The system's zone: `TZ` when set, else /etc/localtime. It is read once
    // per process, on first use, as the platform caches its system zone; a
    // later change of `TZ` is not seen.
    static TimeZone local();
    // Nothing when ICU knows no zone of that name.
    [[nodiscard]] static std::optional<TimeZone> withIdentifier(std::string_view identifier);
    // A fixed offset, named "GMT+hh:mm" ("UTC" for zero); nothing beyond
    // 18 hours either way. Seconds are rounded down to whole minutes.
    [[nodiscard]] static std::optional<TimeZone> withSecondsFromGMT(int seconds);

    const std::string& identifier() const { return identifier_; }
    // The offset from GMT in effect at `date`, daylight saving included.
    int secondsFromGMT(Date date) const;

    friend bool operator==(const TimeZone& left, const TimeZone& right) { return left.identifier_ == right.identifier_; }

private:
    explicit TimeZone(std::string identifier) : identifier_(std::move(identifier)) {}

    std::string identifier_;
};

}  // namespace platform
