// Date: a point in time, as seconds since 1970-01-01 00:00:00 UTC.
#pragma once

#include <compare>
#include <string>

namespace platform {

class Date {
public:
    constexpr Date() = default;
    constexpr explicit Date(double secondsSince1970) : seconds_(secondsSince1970) {}

    static Date now();

    constexpr double timeIntervalSince1970() const { return seconds_; }
    constexpr double timeIntervalSinceDate(Date other) const { return seconds_ - other.seconds_; }
    constexpr Date dateByAddingTimeInterval(double seconds) const { return Date(seconds_ + seconds); }

    // "2026-11-21 02:47:04 +0000", as a date describes itself.
    std::string description() const;

    friend constexpr auto operator<=>(Date, Date) = default;

private:
    double seconds_ = 0;
};

}  // namespace platform
