// NSDate(RFC3339): dates to and from RFC 3339 timestamps
// ("2014-03-05T10:11:12.123Z"), through the shared formatter of
// NSDateFormatter(RFC3339).
#pragma once

#include "Platform/Foundation/Date.h"

#include <optional>
#include <string>
#include <string_view>

// Nothing when the text is not exactly of the formatter's shape.
[[nodiscard]] std::optional<platform::Date> dateWithRFC3339DateString(std::string_view text);
// In UTC, whatever the local zone.
std::string rfc3339DateString(platform::Date date);
