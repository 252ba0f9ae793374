#include "Platform/Foundation/Date.h"

#include <chrono>
#include <cmath>
#include <ctime>

namespace platform {

Date Date::now()
{
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return Date(std::chrono::duration<double>(sinceEpoch).count());
}

std::string Date::description() const
{
    const auto whole = static_cast<std::time_t>(std::floor(seconds_));
    std::tm utc{};
    gmtime_r(&whole, &utc);
    char text[40];
    const auto length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return std::string(text, length);
}

}  // namespace platform
