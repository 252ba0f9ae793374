#include "QMFoundation/REST/NSDateFormatter+ISO8601.h"

const platform::DateFormatterRef& iso8601DateFormatter()
{
    static const platform::DateFormatterRef formatter = [] {
        auto made = platform::DateFormatter::create();
        made->setDateFormat("yyyy'-'MM'-'dd'T'HH':'mm':'ss'.'SSSSS'Z'");
        made->setTimeZone(platform::TimeZone::utc());
        return made;
    }();
    return formatter;
}
