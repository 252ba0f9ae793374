#include "Platform/Foundation/JSON.h"

#include "Platform/Foundation/Error.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <optional>

namespace platform {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::int64_t kWriteInvalidCode = 3851;  // the platform's "could not write" code
constexpr std::int64_t kReadCorruptCode = 3840;   // the platform's "could not read" code

bool isValidElement(const Value& value)
{
    switch (value.kind()) {
    case Value::Kind::Null:
    case Value::Kind::Boolean:
    case Value::Kind::Integer:
    case Value::Kind::String:
        return true;
    case Value::Kind::Double:
        return std::isfinite(*value.doubleValue());
    case Value::Kind::Array:
        return std::all_of(value.array()->begin(), value.array()->end(), isValidElement);
    case Value::Kind::Dictionary:
        return std::all_of(value.dictionary()->begin(), value.dictionary()->end(),
                           [](const Dictionary::Entry& entry) { return isValidElement(entry.second); });
    default:
        return false;
    }
}

Json toJson(const Value& value, bool sortKeys)
{
    switch (value.kind()) {
    case Value::Kind::Boolean:
        return *value.boolValue();
    case Value::Kind::Integer:
        return *value.integerValue();
    case Value::Kind::Double:
        return *value.doubleValue();
    case Value::Kind::String:
        return *value.string();
    case Value::Kind::Array: {
        auto array = Json::array();
        for (const auto& element : *value.array()) {
            array.push_back(toJson(element, sortKeys));
        }
        return array;
    }
    case Value::Kind::Dictionary: {
        auto object = Json::object();
        auto keys = value.dictionary()->keys();
        if (sortKeys) {
            std::sort(keys.begin(), keys.end());
        }
        for (const auto& key : keys) {
            object[key] = toJson(*value.dictionary()->find(key), sortKeys);
        }
        return object;
    }
    default:
        return nullptr;
    }
}

// More levels of arrays and objects than any real document has. The parser
// itself keeps its levels on the heap, but turning them into values recurses,
// so a document of nothing but brackets would otherwise exhaust the stack.
constexpr int kMaxNestingDepth = 512;

// Nothing when the document nests deeper than `kMaxNestingDepth`.
std::optional<Value> fromJson(const Json& json, int depth)
{
    switch (json.type()) {
    case Json::value_t::boolean:
        return Value(json.get<bool>());
    case Json::value_t::number_integer:
        return Value(json.get<std::int64_t>());
    case Json::value_t::number_unsigned: {
        const auto number = json.get<std::uint64_t>();
        return number <= static_cast<std::uint64_t>(INT64_MAX) ? Value(static_cast<std::int64_t>(number))
                                                                : Value(static_cast<double>(number));
    }
    case Json::value_t::number_float:
        return Value(json.get<double>());
    case Json::value_t::string:
        return Value(json.get<std::string>());
    case Json::value_t::array: {
        if (depth == kMaxNestingDepth) {
            return std::nullopt;
        }
        Array array;
        array.reserve(json.size());
        for (const auto& element : json) {
            auto value = fromJson(element, depth + 1);
            if (!value) {
                return std::nullopt;
            }
            array.push_back(std::move(*value));
        }
        return Value(std::move(array));
    }
    case Json::value_t::object: {
        if (depth == kMaxNestingDepth) {
            return std::nullopt;
        }
        Dictionary dictionary;
        for (const auto& [key, element] : json.items()) {
            auto value = fromJson(element, depth + 1);
            if (!value) {
                return std::nullopt;
            }
            dictionary.set(key, std::move(*value));
        }
        return Value(std::move(dictionary));
    }
    default:
        return Value::null();
    }
}

bool isContainer(const Value& value)
{
    return value.kind() == Value::Kind::Array || value.kind() == Value::Kind::Dictionary;
}

}  // namespace

bool JSONSerialization::isValidJSONObject(const Value& value, unsigned options)
{
    return (isContainer(value) || (options & FragmentsAllowed)) && isValidElement(value);
}

std::optional<std::string> JSONSerialization::stringWithValue(const Value& value, unsigned options, ErrorRef* error)
{
    if (!isValidJSONObject(value, options)) {
        setError(error, Error::create(std::string(NSCocoaErrorDomain), kWriteInvalidCode,
                                      Dictionary{{NSLocalizedDescriptionKey, "Invalid type in JSON write."}}));
        return std::nullopt;
    }
    const auto json = toJson(value, (options & SortedKeys) != 0);
    // Invalid UTF-8 in a string is replaced rather than failing the write.
    return json.dump((options & PrettyPrinted) ? 2 : -1, ' ', false, Json::error_handler_t::replace);
}

std::optional<Value> JSONSerialization::valueWithString(std::string_view text, unsigned options, ErrorRef* error)
{
    Json json;
    std::optional<std::size_t> failedAt;
    try {
        json = Json::parse(text.begin(), text.end());
    } catch (const Json::parse_error& failure) {
        // The parser counts the byte it stopped at from 1.
        failedAt = failure.byte > 0 ? failure.byte - 1 : 0;
    }
    std::optional<Value> value;
    if (!failedAt && (json.is_structured() || (options & AllowFragments))) {
        value = fromJson(json, 0);
    }
    if (!value) {
        Dictionary userInfo{{NSLocalizedDescriptionKey, "The data couldn\u2019t be read because it isn\u2019t in the correct format."}};
        if (failedAt) {
            // Where the text stops being JSON, as an editor shows it, so that
            // a hand-written file can be mended.
            const std::size_t end = std::min(*failedAt, text.size());
            std::size_t line = 1;
            std::size_t lineStart = 0;
            for (std::size_t index = 0; index < end; ++index) {
                if (text[index] == '\n') {
                    ++line;
                    lineStart = index + 1;
                }
            }
            userInfo.set(NSLocalizedFailureReasonErrorKey, "Malformed JSON at line " + std::to_string(line) +
                                                               ", column " + std::to_string(end - lineStart + 1) + ".");
            userInfo.set("NSJSONSerializationErrorIndex", Value(static_cast<std::int64_t>(end)));
        }
        setError(error, Error::create(std::string(NSCocoaErrorDomain), kReadCorruptCode, std::move(userInfo)));
        return std::nullopt;
    }
    return value;
}

}  // namespace platform
