// QMRESTAPIModelPropertyMapping: one line of a model's mapping table: the key
// in the JSON object, the model property it fills, the value transformer
// (by class name) that converts between the two, and whether the property is
// sent back in `writableJSONProperties`.
//
//   QMRESTAPIModelPropertyMapping::propertyMappingWithJSONPropertyName(
//       "created_at", "createdAt", "NSStringToRFC3339DateTransformer", true);
//
// A mapping is made once, when a model class lists its mappings, and only
// read afterwards; reading it from several threads at once is safe, changing
// it while others read is not.
#pragma once

#include "Platform/Foundation/Object.h"

#include <concepts>
#include <memory>
#include <optional>
#include <string>

class QMRESTAPIModelPropertyMapping;
using QMRESTAPIModelPropertyMappingRef = std::shared_ptr<QMRESTAPIModelPropertyMapping>;

class QMRESTAPIModelPropertyMapping final : public platform::Object {
public:
    // Both names are required: a missing one fails the parameter assertion
    // "jsonPropertyName" or "modelPropertyName". `create()` names neither.
    static QMRESTAPIModelPropertyMappingRef create();
    static QMRESTAPIModelPropertyMappingRef create(std::optional<std::string> jsonPropertyName,
                                                   std::optional<std::string> modelPropertyName);

    // No transformer, not writable.
    static QMRESTAPIModelPropertyMappingRef propertyMappingWithJSONPropertyName(
        std::optional<std::string> jsonPropertyName, std::optional<std::string> modelPropertyName);
    // No transformer. Only a real bool selects this form: a transformer name
    // given as a string literal would otherwise convert to `true`.
    template <std::same_as<bool> Writable>
    static QMRESTAPIModelPropertyMappingRef propertyMappingWithJSONPropertyName(
        std::optional<std::string> jsonPropertyName, std::optional<std::string> modelPropertyName, Writable writable)
    {
        return propertyMappingWithJSONPropertyName(std::move(jsonPropertyName), std::move(modelPropertyName),
                                                   std::nullopt, writable);
    }
    // Not writable.
    static QMRESTAPIModelPropertyMappingRef propertyMappingWithJSONPropertyName(
        std::optional<std::string> jsonPropertyName, std::optional<std::string> modelPropertyName,
        std::optional<std::string> valueTransformer);
    static QMRESTAPIModelPropertyMappingRef propertyMappingWithJSONPropertyName(
        std::optional<std::string> jsonPropertyName, std::optional<std::string> modelPropertyName,
        std::optional<std::string> valueTransformer, bool writable);

    const std::string& jsonPropertyName() const { return jsonPropertyName_; }
    void setJSONPropertyName(std::string name) { jsonPropertyName_ = std::move(name); }
    const std::string& modelPropertyName() const { return modelPropertyName_; }
    void setModelPropertyName(std::string name) { modelPropertyName_ = std::move(name); }
    // The class name of a value transformer, or nothing.
    const std::optional<std::string>& valueTransformer() const { return valueTransformer_; }
    void setValueTransformer(std::optional<std::string> name) { valueTransformer_ = std::move(name); }
    bool isWritable() const { return writable_; }
    void setWritable(bool writable) { writable_ = writable; }

    std::string className() const override { return "QMRESTAPIModelPropertyMapping"; }
    const platform::PropertyTable& propertyTable() const override;
    std::string description() const override;

private:
    template <class> friend struct platform::ObjectAllocator;
    QMRESTAPIModelPropertyMapping(std::string jsonPropertyName, std::string modelPropertyName);

    std::string jsonPropertyName_;
    std::string modelPropertyName_;
    std::optional<std::string> valueTransformer_;
    bool writable_ = false;
};
