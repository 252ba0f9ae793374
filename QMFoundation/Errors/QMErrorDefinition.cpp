#include "QMFoundation/Errors/QMErrorDefinition.h"

#include "QMFoundation/Errors/NSString+QMFormat.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/StringValue.h"

using platform::Array;
using platform::Dictionary;
using platform::Value;

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/QMErrorDefinition";
}

QMErrorDefinitionRef QMErrorDefinition::errorDefinitionWithDefinition(std::optional<Dictionary> definition)
{
    PLATFORM_PARAMETER_ASSERT(definition.has_value(), "errorDefinition");
    return platform::makeObject<QMErrorDefinition>(std::move(*definition));
}

std::optional<std::string> QMErrorDefinition::stringEntry(std::string_view key) const
{
    const auto* value = definition_.find(key);
    if (value == nullptr || value->string() == nullptr) {
        return std::nullopt;
    }
    return *value->string();
}

std::optional<Array> QMErrorDefinition::arrayEntry(std::string_view key) const
{
    const auto* value = definition_.find(key);
    if (value == nullptr || value->array() == nullptr) {
        return std::nullopt;
    }
    return *value->array();
}

std::int64_t QMErrorDefinition::code() const
{
    const auto* value = definition_.find("code");
    if (value == nullptr) {
        return 0;
    }
    // Tables read from text may carry the code as a string; it reads as a
    // string's integer value would.
    if (const auto* text = value->string()) {
        return platform::integerValue(*text);
    }
    return value->integerValue().value_or(0);
}

std::optional<std::string> QMErrorDefinition::name() const { return stringEntry("name"); }
std::optional<std::string> QMErrorDefinition::descriptionFormat() const { return stringEntry("description"); }
std::optional<std::string> QMErrorDefinition::failureReasonFormat() const { return stringEntry("failure_reason"); }
std::optional<Array> QMErrorDefinition::descriptionKeys() const { return arrayEntry("description_keys"); }
std::optional<Array> QMErrorDefinition::failureReasonKeys() const { return arrayEntry("failure_reason_keys"); }

std::optional<std::string> QMErrorDefinition::localizedDescription(const Dictionary& userInfo) const
{
    return localizeMessage(descriptionFormat(), descriptionKeys(), userInfo);
}

std::optional<std::string> QMErrorDefinition::localizedFailureReason(const Dictionary& userInfo) const
{
    return localizeMessage(failureReasonFormat(), failureReasonKeys(), userInfo);
}

std::optional<std::string> QMErrorDefinition::localizeMessage(const std::optional<std::string>& message,
                                                              const std::optional<Array>& expectedKeys,
                                                              const Dictionary& userInfo) const
{
    if (!message || !expectedKeys || expectedKeys->empty()) {
        return message;
    }
    Array arguments;
    for (const auto& key : *expectedKeys) {
        const auto* name = key.string();
        const auto* value = name != nullptr ? userInfo.find(*name) : nullptr;
        if (value == nullptr) {
            return message;
        }
        arguments.push_back(*value);
    }
    return stringWithFormat(*message, arguments);
}

const platform::PropertyTable& QMErrorDefinition::propertyTable() const
{
    static const auto table = platform::PropertyTable::extending<QMErrorDefinition>(Object::propertyTable(), {
        {"definition", [](const QMErrorDefinition& self) { return Value(self.definition()); }},
        {"code", [](const QMErrorDefinition& self) { return Value(self.code()); }},
        {"name", [](const QMErrorDefinition& self) { return Value(self.name()); }},
        {"descriptionFormat", [](const QMErrorDefinition& self) { return Value(self.descriptionFormat()); }},
        {"failureReasonFormat", [](const QMErrorDefinition& self) { return Value(self.failureReasonFormat()); }},
        {"descriptionKeys", [](const QMErrorDefinition& self) { return Value(self.descriptionKeys()); }},
        {"failureReasonKeys", [](const QMErrorDefinition& self) { return Value(self.failureReasonKeys()); }},
    });
    return table;
}
