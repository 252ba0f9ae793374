// Numbers read from the start of text, as a string's numeric accessors read
// them: leading white space, an optional sign, then decimal digits up to the
// first other character. Text without digits reads as 0; values beyond the
// 64-bit range saturate at its limits.
#pragma once

#include <cstdint>
#include <limits>
#include <string_view>

namespace platform {

inline std::int64_t integerValue(std::string_view text)
{
    std::size_t index = 0;
    while (index < text.size() && (text[index] == ' ' || (text[index] >= '\t' && text[index] <= '\r'))) {
        ++index;
    }
    bool negative = false;
    if (index < text.size() && (text[index] == '+' || text[index] == '-')) {
        negative = text[index] == '-';
        ++index;
    }
    // Accumulate towards the sign's own limit so that the smallest value
    // is reachable without overflow.
    constexpr auto lowest = std::numeric_limits<std::int64_t>::min();
    constexpr auto highest = std::numeric_limits<std::int64_t>::max();
    std::int64_t value = 0;
    for (; index < text.size() && text[index] >= '0' && text[index] <= '9'; ++index) {
        const int digit = text[index] - '0';
        if (negative) {
            if (value < (lowest + digit) / 10) {
                return lowest;
            }
            value = value * 10 - digit;
        } else {
            if (value > (highest - digit) / 10) {
                return highest;
            }
            value = value * 10 + digit;
        }
    }
    return value;
}

}  // namespace platform
