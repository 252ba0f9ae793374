#include "QMFoundation/REST/NSDate+RFC3339.h"

#include "QMFoundation/REST/NSDateFormatter+RFC3339.h"

std::optional<platform::Date> dateWithRFC3339DateString(std::string_view text)
{
    return rfc3339DateFormatter()->dateFromString(text);
}

std::string rfc3339DateString(platform::Date date)
{
    return rfc3339DateFormatter()->stringFromDate(date);
}
