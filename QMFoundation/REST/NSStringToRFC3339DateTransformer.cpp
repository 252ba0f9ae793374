#include "QMFoundation/REST/NSStringToRFC3339DateTransformer.h"

#include "QMFoundation/REST/NSDate+RFC3339.h"

using platform::Value;

PLATFORM_CLASS_REGISTRATION(NSStringToRFC3339DateTransformer) =
    platform::ClassDescription("NSStringToRFC3339DateTransformer")
        .superclass("NSValueTransformer")
        .factory([] { return platform::ObjectRef(NSStringToRFC3339DateTransformer::create()); });

std::shared_ptr<NSStringToRFC3339DateTransformer> NSStringToRFC3339DateTransformer::create()
{
    return std::shared_ptr<NSStringToRFC3339DateTransformer>(new NSStringToRFC3339DateTransformer(),
                                                             platform::ObjectDeleter());
}

const platform::Class* NSStringToRFC3339DateTransformer::transformedValueClass() const
{
    return platform::classFromString("NSDate");
}

Value NSStringToRFC3339DateTransformer::transformedValue(const Value& value) const
{
    const auto* text = value.string();
    return text != nullptr ? Value(dateWithRFC3339DateString(*text)) : Value();
}

Value NSStringToRFC3339DateTransformer::reverseTransformedValue(const Value& value) const
{
    const auto* date = value.date();
    return date != nullptr ? Value(rfc3339DateString(*date)) : Value();
}
