#include "QMFoundation/REST/NSNumberToBoolTransformer.h"

using platform::Value;

PLATFORM_CLASS_REGISTRATION(NSNumberToBoolTransformer) =
    platform::ClassDescription("NSNumberToBoolTransformer")
        .superclass("NSValueTransformer")
        .factory([] { return platform::ObjectRef(NSNumberToBoolTransformer::create()); });

namespace {
bool booleanOfNumber(const Value& value)
{
    return value.isNumber() && value.boolValue().value_or(false);
}
}  // namespace

std::shared_ptr<NSNumberToBoolTransformer> NSNumberToBoolTransformer::create()
{
    return platform::makeObject<NSNumberToBoolTransformer>();
}

const platform::Class* NSNumberToBoolTransformer::transformedValueClass() const
{
    return platform::classFromString("NSNumber");
}

Value NSNumberToBoolTransformer::transformedValue(const Value& value) const
{
    return Value(booleanOfNumber(value));
}

Value NSNumberToBoolTransformer::reverseTransformedValue(const Value& value) const
{
    return Value(booleanOfNumber(value));
}
