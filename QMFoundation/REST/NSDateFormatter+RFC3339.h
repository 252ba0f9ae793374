// NSDateFormatter(RFC3339): the one shared formatter of RFC 3339 timestamps,
// made once per process: pattern "yyyy'-'MM'-'dd'T'HH':'mm':'ss'.'SSS'Z'",
// UTC, no locale of its own (the current locale applies, as everywhere else
// a formatter has none).
//
// Formatting always gives the fixed number of fraction digits and a literal
// "Z". Parsing needs that shape, except that the fraction may have any
// number of digits (".12" is 120 ms; digits past the millisecond are
// dropped): no fraction, or an offset such as "+02:00", does not parse (the
// "Z" is text, not a zone). The formatter may be used from any thread
// (DateFormatter.h).
#pragma once

#include "Platform/DateFormatting/DateFormatter.h"

const platform::DateFormatterRef& rfc3339DateFormatter();
