#include "QMFoundation/REST/NSStringToNSURLTransformer.h"

using platform::Value;

PLATFORM_CLASS_REGISTRATION(NSStringToNSURLTransformer) =
    platform::ClassDescription("NSStringToNSURLTransformer")
        .superclass("NSValueTransformer")
        .factory([] { return platform::ObjectRef(NSStringToNSURLTransformer::create()); });

std::shared_ptr<NSStringToNSURLTransformer> NSStringToNSURLTransformer::create()
{
    return platform::makeObject<NSStringToNSURLTransformer>();
}

const platform::Class* NSStringToNSURLTransformer::transformedValueClass() const
{
    return platform::classFromString("NSURL");
}

Value NSStringToNSURLTransformer::transformedValue(const Value& value) const
{
    const auto* text = value.string();
    return text != nullptr ? Value(platform::URL::fromString(*text)) : Value();
}

Value NSStringToNSURLTransformer::reverseTransformedValue(const Value& value) const
{
    const auto* url = value.url();
    return url != nullptr ? Value(url->absoluteString()) : Value();
}
