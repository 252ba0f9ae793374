// Object formatting: fills "%@" with the descriptions of values, in order, and
// turns "%%" into "%". "%N$@" (N from 1) names its argument, so a translated
// message may reorder them; it does not move the running position of plain
// "%@". Every other character, "%" included, is copied as it stands, so a
// format string from outside can never read beyond its arguments: a "%@" or
// "%N$@" without an argument prints "(null)".
#pragma once

#include "Platform/Foundation/Value.h"

#include <string>
#include <string_view>

namespace platform {

std::string formatWithObjects(std::string_view format, const Array& arguments);

}  // namespace platform
