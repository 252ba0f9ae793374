#include "QMFoundation/REST/QMOrderedSetToArrayTransformer.h"

#include "Platform/Foundation/OrderedSet.h"

using platform::Value;

PLATFORM_CLASS_REGISTRATION(QMOrderedSetToArrayTransformer) =
    platform::ClassDescription("QMOrderedSetToArrayTransformer")
        .superclass("NSValueTransformer")
        .factory([] { return platform::ObjectRef(QMOrderedSetToArrayTransformer::create()); });

std::shared_ptr<QMOrderedSetToArrayTransformer> QMOrderedSetToArrayTransformer::create()
{
    return platform::makeObject<QMOrderedSetToArrayTransformer>();
}

const platform::Class* QMOrderedSetToArrayTransformer::transformedValueClass() const
{
    return platform::classFromString("NSArray");
}

Value QMOrderedSetToArrayTransformer::transformedValue(const Value& value) const
{
    const auto* ordered = value.orderedSet();
    return ordered != nullptr ? Value(ordered->array()) : Value();
}

Value QMOrderedSetToArrayTransformer::reverseTransformedValue(const Value& value) const
{
    const auto* elements = value.array();
    return elements != nullptr ? Value(platform::OrderedSet::withArray(*elements)) : Value();
}
