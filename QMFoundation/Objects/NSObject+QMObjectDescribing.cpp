#include "QMFoundation/Objects/NSObject+QMObjectDescribing.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/JSON.h"
#include "Platform/Foundation/StringFormat.h"

#include <string_view>

using platform::Value;

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/NSObject+QMObjectDescribing";

std::string heading(const platform::Object& object)
{
    return object.className() + " <" + object.addressString() + ">";
}

std::string pair(const std::string& name, const std::string& valueText)
{
    return name + ": " + valueText;
}

// The attribute check asks whether the value object exists rather than what it
// holds, so every boolean attribute reads "YES", false ones included. That is
// how these descriptions have always read; keep it.
std::string attributeValueText(const Value& value)
{
    return value.isBoolean() ? "YES" : value.description();
}

std::string describeAttributes(const platform::Object& object, std::string_view opening, std::string_view separator,
                               std::string_view closing)
{
    const auto keys = object.attributeKeys();
    if (!keys) {
        // "0x" printed before an address that already carries one, and no
        // closing brace: the shape is kept as it has always been.
        return object.className() + " <0x" + object.addressString() + "> { ";
    }
    std::string text = heading(object);
    text += opening;
    for (std::size_t index = 0; index < keys->size(); ++index) {
        if (index > 0) {
            text += separator;
        }
        const auto& key = (*keys)[index];
        text += pair(key, attributeValueText(object.valueForKey(key)));
    }
    text += closing;
    return text;
}

}  // namespace

std::string prettyDescription(const platform::Object& object)
{
    return describeAttributes(object, " {\n\t", ",\n\t", "\n}");
}

std::string defaultDescription(const platform::Object& object)
{
    return describeAttributes(object, " { ", ", ", " }");
}

std::string prettyDescriptionWithItems(const platform::Object& object, const platform::Array& items)
{
    std::string text = heading(object) + " { ";
    for (std::size_t index = 0; index < items.size(); ++index) {
        if (index > 0) {
            text += ", ";
        }
        const auto& item = items[index];
        if (const auto* entries = item.dictionary()) {
            // Only the last listed key counts; an empty dictionary names nothing.
            const auto keys = entries->keys();
            const Value label = keys.empty() ? Value() : Value(keys.back());
            const Value value = keys.empty() ? Value() : entries->get(keys.back());
            text += pair(label.description(), value.description());
        } else {
            const auto key = item.string() != nullptr ? *item.string() : item.description();
            text += pair(key, object.valueForKey(key).description());
        }
    }
    return text + " }";
}

std::string prettyDescriptionWithDictionary(const platform::Object& object,
                                            const std::optional<platform::Dictionary>& dictionary)
{
    PLATFORM_PARAMETER_ASSERT(dictionary.has_value(), "dictionary");
    const Value value(*dictionary);
    PLATFORM_ASSERT(platform::JSONSerialization::isValidJSONObject(value),
                    platform::formatWithObjects("Is not a valid JSON object: %@", {value}));
    platform::ErrorRef error;
    const auto json =
        platform::JSONSerialization::stringWithValue(value, platform::JSONSerialization::PrettyPrinted, &error);
    PLATFORM_ASSERT(json.has_value(),
                    platform::formatWithObjects("Could not create JSON data from dictionary: %@", {Value(error)}));
    return heading(object) + " " + *json;
}

std::string prettyDescriptionForObject(const platform::Object& /*object*/, const platform::Value& value)
{
    return value.isNothing() ? Value::null().description() : value.description();
}
