#include "QMFoundation/REST/QMRESTAPIModel.h"

#include "Platform/Runtime/ValueTransformer.h"
#include "QMFoundation/Objects/NSObject+QMObjectDescribing.h"

using platform::Class;
using platform::Dictionary;
using platform::Value;
using platform::ValueTransformer;

// Models name these only as text, so nothing else would make the linker take
// their registrations.
PLATFORM_LINK_CLASS(NSStringToRFC3339DateTransformer);
PLATFORM_LINK_CLASS(NSStringToISO8601DateTransformer);
PLATFORM_LINK_CLASS(NSStringToNSURLTransformer);
PLATFORM_LINK_CLASS(NSNumberToBoolTransformer);
PLATFORM_LINK_CLASS(QMOrderedSetToArrayTransformer);
PLATFORM_LINK_CLASS(QMTimeagoTransformer);

PLATFORM_CLASS_REGISTRATION(QMRESTAPIModel) =
    platform::ClassDescription("QMRESTAPIModel")
        .superclass("NSObject")
        .factory([] { return platform::ObjectRef(QMRESTAPIModel::create()); })
        .classOperation<QMRESTAPIModel::PropertyMappings()>("propertyMappings",
                                                            [] { return QMRESTAPIModel::PropertyMappings{}; });

namespace {

const Class& baseModelClass()
{
    return platformClassRegistration_QMRESTAPIModel.registeredClass();
}

template <typename Key>
Dictionary mappingsBy(const Class& modelClass, Key key)
{
    Dictionary byName;
    for (const auto& mapping : QMRESTAPIModel::propertyMappings(modelClass)) {
        byName.set(key(*mapping), Value(mapping));
    }
    return byName;
}

QMRESTAPIModelPropertyMappingRef mappingOf(const Value& value)
{
    return value.objectAs<QMRESTAPIModelPropertyMapping>();
}

// Equality of two property values as the receiver's value decides it:
// text, dates and numbers by value, URLs by their text; anything else (and
// nothing on the receiver's side) is not compared.
bool propertyValuesMatch(const Value& mine, const Value& theirs)
{
    switch (mine.kind()) {
    case Value::Kind::String:
    case Value::Kind::Date:
        return mine.kind() == theirs.kind() && mine == theirs;
    case Value::Kind::Boolean:
    case Value::Kind::Integer:
    case Value::Kind::Double:
        return theirs.isNumber() && mine == theirs;
    case Value::Kind::URL:
        return theirs.url() != nullptr && mine.url()->absoluteString() == theirs.url()->absoluteString();
    default:
        return true;
    }
}

}  // namespace

QMRESTAPIModelRef QMRESTAPIModel::create()
{
    return platform::makeObject<QMRESTAPIModel>();
}

QMRESTAPIModel::PropertyMappings QMRESTAPIModel::propertyMappings(const Class& modelClass)
{
    const auto* operation = modelClass.operation<PropertyMappings()>("propertyMappings");
    return operation != nullptr ? (*operation)() : PropertyMappings{};
}

Dictionary QMRESTAPIModel::propertyMappingsByJSONPropertyName(const Class& modelClass)
{
    return mappingsBy(modelClass, [](const QMRESTAPIModelPropertyMapping& mapping) {
        return mapping.jsonPropertyName();
    });
}

Dictionary QMRESTAPIModel::propertyMappingsByModelPropertyName(const Class& modelClass)
{
    return mappingsBy(modelClass, [](const QMRESTAPIModelPropertyMapping& mapping) {
        return mapping.modelPropertyName();
    });
}

QMRESTAPIModelRef QMRESTAPIModel::objectWithJSONObject(const Class& modelClass, const Dictionary& jsonObject)
{
    if (!modelClass.isSubclassOfClass(baseModelClass())) {
        return nullptr;
    }
    auto object = std::dynamic_pointer_cast<QMRESTAPIModel>(modelClass.makeInstance());
    if (!object) {
        return nullptr;
    }
    const Dictionary mappings = propertyMappingsByJSONPropertyName(modelClass);
    for (const auto& [key, jsonValue] : jsonObject) {
        const auto* found = mappings.find(key);
        if (found == nullptr || jsonValue.isNull()) {
            continue;
        }
        const auto mapping = mappingOf(*found);
        Value value = jsonValue;
        if (mapping->valueTransformer()) {
            const auto transformer = ValueTransformer::transformerOfClassNamed(*mapping->valueTransformer());
            value = transformer ? transformer->transformedValue(value) : Value();
        }
        if (!value.isNothing()) {
            object->setValueForKey(value, mapping->modelPropertyName());
        }
    }
    return object;
}

Dictionary QMRESTAPIModel::writableJSONProperties() const
{
    Dictionary properties;
    for (const auto& mapping : propertyMappings(modelClass())) {
        if (!mapping->isWritable()) {
            continue;
        }
        Value value = valueForKey(mapping->modelPropertyName());
        if (value.isNothing()) {
            continue;
        }
        if (mapping->valueTransformer()) {
            const auto transformer = ValueTransformer::transformerOfClassNamed(*mapping->valueTransformer());
            if (transformer && transformer->allowsReverseTransformation()) {
                value = transformer->reverseTransformedValue(value);
            }
        }
        if (value.isNothing()) {
            properties.remove(mapping->jsonPropertyName());
        } else {
            properties.set(mapping->jsonPropertyName(), std::move(value));
        }
    }
    return properties;
}

bool QMRESTAPIModel::isEqualToObject(const platform::ObjectRef& other) const
{
    if (!other || !platform::isKindOfClass(Value(other), modelClass())) {
        return false;
    }
    if (other.get() == this) {
        return true;
    }
    for (const auto& name : propertyMappingsByModelPropertyName(modelClass()).keys()) {
        if (!propertyValuesMatch(valueForKey(name), other->valueForKey(name))) {
            return false;
        }
    }
    return true;
}

const Class& QMRESTAPIModel::modelClass() const
{
    const Class* own = platform::classOf(*this);
    return own != nullptr ? *own : baseModelClass();
}

const platform::PropertyTable& QMRESTAPIModel::propertyTable() const
{
    static const auto table = platform::PropertyTable::extending<QMRESTAPIModel>(Object::propertyTable(), {
        {"writableJSONProperties", [](const QMRESTAPIModel& model) { return Value(model.writableJSONProperties()); }},
    });
    return table;
}

std::string QMRESTAPIModel::description() const
{
    platform::Array items;
    for (const auto& name : propertyMappingsByModelPropertyName(modelClass()).keys()) {
        items.emplace_back(name);
    }
    return prettyDescriptionWithItems(*this, items);
}
