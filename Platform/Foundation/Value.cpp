#include "Platform/Foundation/Value.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/OrderedSet.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace platform {
namespace {

template <typename T, typename Storage>
const T* pointerTo(const Storage& storage)
{
    const auto* held = std::get_if<std::shared_ptr<const T>>(&storage);
    return held != nullptr ? held->get() : nullptr;
}

std::string indent(const std::string& text)
{
    std::string result;
    for (const char character : text) {
        result += character;
        if (character == '\n') {
            result += "    ";
        }
    }
    return result;
}

// Strings print bare when they are plain words, quoted otherwise, as
// collection descriptions do.
std::string elementDescription(const Value& value)
{
    if (const auto* string = value.string()) {
        const bool plain = !string->empty() && std::all_of(string->begin(), string->end(), [](char character) {
            return std::isalnum(static_cast<unsigned char>(character)) || character == '_' || character == '.';
        });
        if (plain) {
            return *string;
        }
        std::string quoted = "\"";
        for (const char character : *string) {
            if (character == '"' || character == '\\') {
                quoted += '\\';
            }
            quoted += character;
        }
        return quoted + "\"";
    }
    return indent(value.description());
}

std::string describeData(const Data& data)
{
    std::string text = "<";
    char byte[3];
    for (std::size_t index = 0; index < data.size(); ++index) {
        if (index > 0 && index % 4 == 0) {
            text += ' ';
        }
        std::snprintf(byte, sizeof byte, "%02x", data[index]);
        text += byte;
    }
    return text + ">";
}

// Sets and ordered sets print alike: "{(", the elements in order, ")}".
template <typename Members>
std::string describeSet(const Members& members)
{
    std::string text = "{(";
    bool first = true;
    for (const auto& element : members) {
        text += (first ? "\n    " : ",\n    ") + elementDescription(element);
        first = false;
    }
    return text + "\n)}";
}

std::string describeDouble(double number)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.16g", number);
    return text;
}

}  // namespace

Value::Value(std::string string)
{
    if (string.size() <= inlineStringLimit) {
        storage_ = std::move(string);
    } else {
        storage_ = std::make_shared<const std::string>(std::move(string));
    }
}

Value::Value(Array array) : storage_(std::make_shared<const platform::Array>(std::move(array))) {}
Value::Value(Dictionary dictionary) : storage_(std::make_shared<const platform::Dictionary>(std::move(dictionary))) {}
Value::Value(Set set) : storage_(std::make_shared<const platform::Set>(std::move(set))) {}
Value::Value(OrderedSet orderedSet)
    : storage_(std::make_shared<const platform::OrderedSet>(std::move(orderedSet))) {}
Value::Value(ErrorRef error)
{
    if (error) {
        storage_ = std::move(error);
    }
}
Value::Value(ObjectRef object, ObjectTag tag)
{
    static_assert(std::is_final_v<Error>, "a pointer typed as a subclass of Object may hold an Error");
    if (auto error = tag.mayBeError ? std::dynamic_pointer_cast<Error>(object) : nullptr) {
        storage_ = std::move(error);
    } else if (object) {
        storage_ = std::move(object);
    }
}

bool Value::isNumber() const
{
    const auto current = kind();
    return current == Kind::Boolean || current == Kind::Integer || current == Kind::Double;
}

const std::string* Value::string() const
{
    if (const auto* inlined = std::get_if<std::string>(&storage_)) {
        return inlined;
    }
    return pointerTo<std::string>(storage_);
}
const Data* Value::data() const { return pointerTo<platform::Data>(storage_); }
const Date* Value::date() const { return std::get_if<platform::Date>(&storage_); }
const URL* Value::url() const { return pointerTo<platform::URL>(storage_); }
const Array* Value::array() const { return pointerTo<platform::Array>(storage_); }
const Dictionary* Value::dictionary() const { return pointerTo<platform::Dictionary>(storage_); }
const Set* Value::set() const { return pointerTo<platform::Set>(storage_); }
const OrderedSet* Value::orderedSet() const { return pointerTo<platform::OrderedSet>(storage_); }

ErrorRef Value::error() const
{
    const auto* held = std::get_if<ErrorRef>(&storage_);
    return held != nullptr ? *held : nullptr;
}

ObjectRef Value::object() const
{
    if (const auto* held = std::get_if<ObjectRef>(&storage_)) {
        return *held;
    }
    return error();
}

std::optional<bool> Value::boolValue() const
{
    if (const auto* boolean = std::get_if<bool>(&storage_)) {
        return *boolean;
    }
    if (const auto* integer = std::get_if<std::int64_t>(&storage_)) {
        return *integer != 0;
    }
    if (const auto* number = std::get_if<double>(&storage_)) {
        return *number != 0;
    }
    return std::nullopt;
}

std::optional<std::int64_t> Value::integerValue() const
{
    if (const auto* boolean = std::get_if<bool>(&storage_)) {
        return *boolean ? 1 : 0;
    }
    if (const auto* integer = std::get_if<std::int64_t>(&storage_)) {
        return *integer;
    }
    if (const auto* number = std::get_if<double>(&storage_)) {
        if (*number >= -9.2e18 && *number <= 9.2e18) {
            return static_cast<std::int64_t>(*number);
        }
        return *number < 0 ? INT64_MIN : INT64_MAX;
    }
    return std::nullopt;
}

std::optional<double> Value::doubleValue() const
{
    if (const auto* number = std::get_if<double>(&storage_)) {
        return *number;
    }
    if (auto integer = integerValue()) {
        return static_cast<double>(*integer);
    }
    return std::nullopt;
}

std::string Value::description() const
{
    switch (kind()) {
    case Kind::Nothing:
        return "(null)";
    case Kind::Null:
        return "<null>";
    case Kind::Boolean:
        return std::get<bool>(storage_) ? "1" : "0";
    case Kind::Integer:
        return std::to_string(std::get<std::int64_t>(storage_));
    case Kind::Double:
        return describeDouble(std::get<double>(storage_));
    case Kind::String:
        return *string();
    case Kind::Data:
        return describeData(*data());
    case Kind::Date:
        return date()->description();
    case Kind::URL:
        return url()->absoluteString();
    case Kind::Array: {
        std::string text = "(";
        const auto& elements = *array();
        for (std::size_t index = 0; index < elements.size(); ++index) {
            text += (index == 0 ? "\n    " : ",\n    ") + elementDescription(elements[index]);
        }
        return text + "\n)";
    }
    case Kind::Dictionary: {
        std::string text = "{\n";
        for (const auto& [key, value] : *dictionary()) {
            text += "    " + elementDescription(Value(key)) + " = " + elementDescription(value) + ";\n";
        }
        return text + "}";
    }
    case Kind::Set:
        return describeSet(*set());
    case Kind::OrderedSet:
        return describeSet(*orderedSet());
    case Kind::Error:
    case Kind::Object:
        return object()->description();
    }
    return {};
}

bool operator==(const Value& left, const Value& right)
{
    if (left.isNumber() && right.isNumber()) {
        if (left.kind() == Value::Kind::Double || right.kind() == Value::Kind::Double) {
            return left.doubleValue() == right.doubleValue();
        }
        return left.integerValue() == right.integerValue();
    }
    if (left.kind() != right.kind()) {
        return false;
    }
    switch (left.kind()) {
    case Value::Kind::Nothing:
    case Value::Kind::Null:
        return true;
    case Value::Kind::String:
        return *left.string() == *right.string();
    case Value::Kind::Data:
        return *left.data() == *right.data();
    case Value::Kind::Date:
        return *left.date() == *right.date();
    case Value::Kind::URL:
        return *left.url() == *right.url();
    case Value::Kind::Array:
        return *left.array() == *right.array();
    case Value::Kind::Dictionary:
        return *left.dictionary() == *right.dictionary();
    case Value::Kind::Set:
        return *left.set() == *right.set();
    case Value::Kind::OrderedSet:
        return *left.orderedSet() == *right.orderedSet();
    case Value::Kind::Error:
    case Value::Kind::Object:
        return left.object()->isEqual(*right.object());
    default:
        return false;
    }
}

Dictionary::Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries)
{
    for (const auto& [key, value] : entries) {
        set(key, value);
    }
}

Dictionary Dictionary::withDistinctKeys(std::vector<Entry> entries)
{
    Dictionary dictionary;
    dictionary.entries_ = std::move(entries);
    return dictionary;
}

void Dictionary::set(std::string_view key, Value value)
{
    for (auto& entry : entries_) {
        if (entry.first == key) {
            entry.second = std::move(value);
            return;
        }
    }
    entries_.emplace_back(std::string(key), std::move(value));
}

bool Dictionary::remove(std::string_view key)
{
    const auto found = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) { return entry.first == key; });
    if (found == entries_.end()) {
        return false;
    }
    entries_.erase(found);
    return true;
}

const Value* Dictionary::find(std::string_view key) const
{
    for (const auto& entry : entries_) {
        if (entry.first == key) {
            return &entry.second;
        }
    }
    return nullptr;
}

Value Dictionary::get(std::string_view key) const
{
    const auto* value = find(key);
    return value != nullptr ? *value : Value();
}

std::vector<std::string> Dictionary::keys() const
{
    std::vector<std::string> keys;
    keys.reserve(entries_.size());
    for (const auto& entry : entries_) {
        keys.push_back(entry.first);
    }
    return keys;
}

// Equal dictionaries hold the same keys with equal values, in any order.
bool operator==(const Dictionary& left, const Dictionary& right)
{
    if (left.size() != right.size()) {
        return false;
    }
    return std::all_of(left.begin(), left.end(), [&](const Dictionary::Entry& entry) {
        const auto* other = right.find(entry.first);
        return other != nullptr && *other == entry.second;
    });
}

Set::Set(std::initializer_list<Value> values)
{
    for (const auto& value : values) {
        insert(value);
    }
}

Set Set::withDistinctValues(Array values)
{
    Set set;
    set.values_ = std::move(values);
    return set;
}

bool Set::insert(Value value)
{
    if (contains(value)) {
        return false;
    }
    values_.push_back(std::move(value));
    return true;
}

bool Set::remove(const Value& value)
{
    const auto found = std::find(values_.begin(), values_.end(), value);
    if (found == values_.end()) {
        return false;
    }
    values_.erase(found);
    return true;
}

bool Set::contains(const Value& value) const
{
    return std::find(values_.begin(), values_.end(), value) != values_.end();
}

bool operator==(const Set& left, const Set& right)
{
    return left.size() == right.size()
        && std::all_of(left.begin(), left.end(), [&](const Value& value) { return right.contains(value); });
}

}  // namespace platform
