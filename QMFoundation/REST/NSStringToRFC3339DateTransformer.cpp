#include "QMFoundation/REST/NSStringToRFC3339DateTransformer.h"

#include "QMFoundation/REST/NSDate+RFC3339.h"

PLATFORM_CLASS_REGISTRATION(NSStringToRFC3339DateTransformer) =
    platform::ClassDescription("NSStringToRFC3339DateTransformer")
        .superclass("NSValueTransformer")
        .factory([] { return platform::ObjectRef(NSStringToRFC3339DateTransformer::create()); });

NSStringToRFC3339DateTransformer::NSStringToRFC3339DateTransformer()
    : QMDateStringTransformer(dateWithRFC3339DateString, rfc3339DateString)
{
}

std::shared_ptr<NSStringToRFC3339DateTransformer> NSStringToRFC3339DateTransformer::create()
{
    return platform::makeObject<NSStringToRFC3339DateTransformer>();
}
