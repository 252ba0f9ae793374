// NSString(QMFormat): formatting with an argument list assembled at run time.
#pragma once

#include "Platform/Foundation/Value.h"

#include <string>
#include <string_view>

// The most arguments `stringWithFormat` takes.
inline constexpr std::size_t QMStringFormatMaximumArgumentCount = 10;

// Fills the object specifiers of `format` ("%@", "%N$@", and "%%" for a
// percent sign) with the descriptions of `arguments`, in order. Any other
// specifier is left as text, so a format from outside never reads a value it
// was not given.
//
// No arguments return the format untouched: "%%" stays two characters, as a
// message without substitutions is shown as written. More than
// QMStringFormatMaximumArgumentCount arguments are a programming error and
// raise "Only 10 string format arguments supported.".
std::string stringWithFormat(std::string_view format, const platform::Array& arguments);
