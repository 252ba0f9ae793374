#include "QMFoundation/REST/NSStringToISO8601DateTransformer.h"

#include "QMFoundation/REST/NSDate+ISO8601.h"

using platform::Value;

PLATFORM_CLASS_REGISTRATION(NSStringToISO8601DateTransformer) =
    platform::ClassDescription("NSStringToISO8601DateTransformer")
        .superclass("NSValueTransformer")
        .factory([] { return platform::ObjectRef(NSStringToISO8601DateTransformer::create()); });

std::shared_ptr<NSStringToISO8601DateTransformer> NSStringToISO8601DateTransformer::create()
{
    return std::shared_ptr<NSStringToISO8601DateTransformer>(new NSStringToISO8601DateTransformer(),
                                                             platform::ObjectDeleter());
}

const platform::Class* NSStringToISO8601DateTransformer::transformedValueClass() const
{
    return platform::classFromString("NSDate");
}

Value NSStringToISO8601DateTransformer::transformedValue(const Value& value) const
{
    const auto* text = value.string();
    return text != nullptr ? Value(dateWithISO8601DateString(*text)) : Value();
}

Value NSStringToISO8601DateTransformer::reverseTransformedValue(const Value& value) const
{
    const auto* date = value.date();
    return date != nullptr ? Value(iso8601DateString(*date)) : Value();
}
