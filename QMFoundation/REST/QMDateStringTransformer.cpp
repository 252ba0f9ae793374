#include "QMFoundation/REST/QMDateStringTransformer.h"

using platform::Value;

const platform::Class* QMDateStringTransformer::transformedValueClass() const
{
    return platform::classFromString("NSDate");
}

Value QMDateStringTransformer::transformedValue(const Value& value) const
{
    const auto* text = value.string();
    return text != nullptr ? Value(dateFromString_(*text)) : Value();
}

Value QMDateStringTransformer::reverseTransformedValue(const Value& value) const
{
    const auto* date = value.date();
    return date != nullptr ? Value(stringFromDate_(*date)) : Value();
}
