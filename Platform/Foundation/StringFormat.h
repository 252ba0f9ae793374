// Object formatting: fills "%@" with the descriptions of values, in order, and
// turns "%%" into "%". Every other character, "%" included, is copied as it
// stands, so a format string from outside can never read beyond its
// arguments: a "%@" without an argument prints "(null)".
#pragma once

#include "Platform/Foundation/Value.h"

#include <string>
#include <string_view>

namespace platform {

std::string formatWithObjects(std::string_view format, const Array& arguments);

}  // namespace platform
