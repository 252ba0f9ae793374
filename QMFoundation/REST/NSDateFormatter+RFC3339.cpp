#include "QMFoundation/REST/NSDateFormatter+RFC3339.h"

const platform::DateFormatterRef& rfc3339DateFormatter()
{
    static const platform::DateFormatterRef formatter = [] {
        auto made = platform::DateFormatter::create();
        made->setDateFormat("yyyy'-'MM'-'dd'T'HH':'mm':'ss'.'SSS'Z'");
        made->setTimeZone(platform::TimeZone::utc());
        return made;
    }();
    return formatter;
}
