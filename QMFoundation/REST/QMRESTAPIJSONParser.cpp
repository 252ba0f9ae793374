#include "QMFoundation/REST/QMRESTAPIJSONParser.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/JSON.h"

#include <string_view>

using platform::Class;
using platform::Data;
using platform::Dictionary;
using platform::ErrorRef;
using platform::Value;

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/QMRESTAPIJSONParser";
// The decoder's own code for data it cannot read.
constexpr std::int64_t kReadCorruptCode = 3840;

std::optional<Value> decode(const Data& data, ErrorRef* error)
{
    const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    return platform::JSONSerialization::valueWithString(text, 0, error);
}

void setWrongKindError(ErrorRef* error, std::string_view expected)
{
    if (error != nullptr) {
        *error = platform::Error::create(
            std::string(platform::NSCocoaErrorDomain), kReadCorruptCode,
            Dictionary{{platform::NSLocalizedDescriptionKey,
                        "The data couldn\u2019t be read because its top level is not " + std::string(expected) + "."}});
    }
}

bool isModelClass(const Class& modelClass)
{
    const Class* base = platform::classFromString("QMRESTAPIModel");
    return base != nullptr && modelClass.isSubclassOfClass(*base);
}

}  // namespace

QMRESTAPIModelRef QMRESTAPIJSONParser::parseObjectFromJSONData(const std::optional<Data>& jsonData,
                                                               const Class* modelClass, ErrorRef* error)
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(jsonData.has_value(), "jsonData", 15);
    PLATFORM_PARAMETER_ASSERT_AT_LINE(modelClass != nullptr, "modelClass", 16);
    PLATFORM_PARAMETER_ASSERT_AT_LINE(isModelClass(*modelClass), "[modelClass isSubclassOfClass:[QMRESTAPIModel class]]",
                                      17);
    const auto decoded = decode(*jsonData, error);
    if (!decoded) {
        return nullptr;
    }
    const auto* object = decoded->dictionary();
    if (object == nullptr) {
        setWrongKindError(error, "an object");
        return nullptr;
    }
    return QMRESTAPIModel::objectWithJSONObject(*modelClass, *object);
}

std::optional<std::vector<QMRESTAPIModelRef>> QMRESTAPIJSONParser::parseObjectsFromJSONData(
    const std::optional<Data>& jsonData, const Class* modelClass, ErrorRef* error)
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(jsonData.has_value(), "jsonData", 35);
    PLATFORM_PARAMETER_ASSERT_AT_LINE(modelClass != nullptr, "modelClass", 36);
    PLATFORM_PARAMETER_ASSERT_AT_LINE(isModelClass(*modelClass), "[modelClass isSubclassOfClass:[QMRESTAPIModel class]]",
                                      37);
    const auto decoded = decode(*jsonData, error);
    if (!decoded) {
        return std::nullopt;
    }
    const auto* elements = decoded->array();
    if (elements == nullptr) {
        setWrongKindError(error, "an array");
        return std::nullopt;
    }
    std::vector<QMRESTAPIModelRef> objects;
    for (const auto& element : *elements) {
        if (const auto* object = element.dictionary()) {
            if (auto model = QMRESTAPIModel::objectWithJSONObject(*modelClass, *object)) {
                objects.push_back(std::move(model));
            }
        }
    }
    return objects;
}
