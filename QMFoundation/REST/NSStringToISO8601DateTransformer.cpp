#include "QMFoundation/REST/NSStringToISO8601DateTransformer.h"

#include "QMFoundation/REST/NSDate+ISO8601.h"

PLATFORM_CLASS_REGISTRATION(NSStringToISO8601DateTransformer) =
    platform::ClassDescription("NSStringToISO8601DateTransformer")
        .superclass("NSValueTransformer")
        .factory([] { return platform::ObjectRef(NSStringToISO8601DateTransformer::create()); });

NSStringToISO8601DateTransformer::NSStringToISO8601DateTransformer()
    : QMDateStringTransformer(dateWithISO8601DateString, iso8601DateString)
{
}

std::shared_ptr<NSStringToISO8601DateTransformer> NSStringToISO8601DateTransformer::create()
{
    return platform::makeObject<NSStringToISO8601DateTransformer>();
}
