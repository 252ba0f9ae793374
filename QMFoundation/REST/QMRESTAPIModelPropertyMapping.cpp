#include "QMFoundation/REST/QMRESTAPIModelPropertyMapping.h"

#include "Platform/Foundation/Exception.h"
#include "QMFoundation/Objects/NSObject+QMObjectDescribing.h"

using platform::Value;

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/QMRESTAPIModelPropertyMapping";
}

QMRESTAPIModelPropertyMapping::QMRESTAPIModelPropertyMapping(std::string jsonPropertyName,
                                                             std::string modelPropertyName)
    : jsonPropertyName_(std::move(jsonPropertyName)), modelPropertyName_(std::move(modelPropertyName))
{
}

QMRESTAPIModelPropertyMappingRef QMRESTAPIModelPropertyMapping::create()
{
    return create(std::nullopt, std::nullopt);
}

QMRESTAPIModelPropertyMappingRef QMRESTAPIModelPropertyMapping::create(std::optional<std::string> jsonPropertyName,
                                                                       std::optional<std::string> modelPropertyName)
{
    // Applications match these two failures by their lines.
    PLATFORM_PARAMETER_ASSERT_AT_LINE(jsonPropertyName.has_value(), "jsonPropertyName", 42);
    PLATFORM_PARAMETER_ASSERT_AT_LINE(modelPropertyName.has_value(), "modelPropertyName", 43);
    return platform::makeObject<QMRESTAPIModelPropertyMapping>(std::move(*jsonPropertyName), std::move(*modelPropertyName));
}

QMRESTAPIModelPropertyMappingRef QMRESTAPIModelPropertyMapping::propertyMappingWithJSONPropertyName(
    std::optional<std::string> jsonPropertyName, std::optional<std::string> modelPropertyName)
{
    return propertyMappingWithJSONPropertyName(std::move(jsonPropertyName), std::move(modelPropertyName),
                                               std::nullopt, false);
}

QMRESTAPIModelPropertyMappingRef QMRESTAPIModelPropertyMapping::propertyMappingWithJSONPropertyName(
    std::optional<std::string> jsonPropertyName, std::optional<std::string> modelPropertyName,
    std::optional<std::string> valueTransformer)
{
    return propertyMappingWithJSONPropertyName(std::move(jsonPropertyName), std::move(modelPropertyName),
                                               std::move(valueTransformer), false);
}

QMRESTAPIModelPropertyMappingRef QMRESTAPIModelPropertyMapping::propertyMappingWithJSONPropertyName(
    std::optional<std::string> jsonPropertyName, std::optional<std::string> modelPropertyName,
    std::optional<std::string> valueTransformer, bool writable)
{
    auto mapping = create(std::move(jsonPropertyName), std::move(modelPropertyName));
    mapping->setValueTransformer(std::move(valueTransformer));
    mapping->setWritable(writable);
    return mapping;
}

const platform::PropertyTable& QMRESTAPIModelPropertyMapping::propertyTable() const
{
    using Mapping = QMRESTAPIModelPropertyMapping;
    static const auto table = platform::PropertyTable::extending<Mapping>(Object::propertyTable(), {
        {"jsonPropertyName", [](const Mapping& mapping) { return Value(mapping.jsonPropertyName()); }},
        {"modelPropertyName", [](const Mapping& mapping) { return Value(mapping.modelPropertyName()); }},
        {"valueTransformer", [](const Mapping& mapping) { return Value(mapping.valueTransformer()); }},
        {"writable", [](const Mapping& mapping) { return Value(mapping.isWritable()); }},
    });
    return table;
}

std::string QMRESTAPIModelPropertyMapping::description() const
{
    return prettyDescriptionWithItems(*this,
                                      {"jsonPropertyName", "modelPropertyName", "valueTransformer", "writable"});
}
