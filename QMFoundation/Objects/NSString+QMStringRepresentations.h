// NSString(QMStringRepresentations): scalars as the text a number object
// gives for them, for descriptions and query strings.
#pragma once

#include <cstdint>
#include <string>

// "YES" or "NO" (not the "1" or "0" of a boolean number).
std::string stringForBoolean(bool value);
std::string stringForInteger(std::int64_t value);
std::string stringForUnsignedInteger(std::uint64_t value);
// Up to 16 significant digits, trailing zeros dropped: 0.5 is "0.5", 3.0 is "3".
std::string stringForDouble(double value);
// Up to 7 significant digits, the precision a float carries: 0.1f is "0.1",
// not the "0.1000000014901161" of the same value widened to a double.
std::string stringForFloat(float value);
