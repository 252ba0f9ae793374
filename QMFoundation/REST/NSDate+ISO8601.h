// NSDate(ISO8601): dates to and from ISO 8601 timestamps
// ("2014-03-05T10:11:12.12345Z"), through the shared formatter of
// NSDateFormatter(ISO8601).
#pragma once

#include "Platform/Foundation/Date.h"

#include <optional>
#include <string>
#include <string_view>

// Nothing when the text is not exactly of the formatter's shape.
[[nodiscard]] std::optional<platform::Date> dateWithISO8601DateString(std::string_view text);
// In UTC, whatever the local zone.
std::string iso8601DateString(platform::Date date);
