#include "QMFoundation/Objects/NSString+QMStringRepresentations.h"

#include "Platform/Foundation/Value.h"

#include <cstdio>

std::string stringForBoolean(bool value)
{
    return value ? "YES" : "NO";
}

std::string stringForInteger(std::int64_t value)
{
    return platform::Value(value).description();
}

std::string stringForUnsignedInteger(std::uint64_t value)
{
    // The value type holds signed integers only; values above INT64_MAX must
    // not come out negative.
    return std::to_string(value);
}

std::string stringForDouble(double value)
{
    return platform::Value(value).description();
}

std::string stringForFloat(float value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.7g", static_cast<double>(value));
    return text;
}
