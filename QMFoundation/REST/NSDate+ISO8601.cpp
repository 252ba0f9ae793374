#include "QMFoundation/REST/NSDate+ISO8601.h"

#include "QMFoundation/REST/NSDateFormatter+ISO8601.h"

std::optional<platform::Date> dateWithISO8601DateString(std::string_view text)
{
    return iso8601DateFormatter()->dateFromString(text);
}

std::string iso8601DateString(platform::Date date)
{
    return iso8601DateFormatter()->stringFromDate(date);
}
