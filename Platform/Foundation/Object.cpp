#include "Platform/Foundation/Object.h"

#include "Platform/Foundation/Exception.h"

#include <cstdio>
#include <cxxabi.h>
#include <typeinfo>

namespace platform {

void PropertyTable::add(Property property)
{
    for (auto& existing : properties_) {
        if (existing.name == property.name) {
            existing = std::move(property);  // a subclass overrides its base's accessor
            return;
        }
    }
    properties_.push_back(std::move(property));
}

const PropertyTable::Property* PropertyTable::find(std::string_view name) const
{
    for (const auto& property : properties_) {
        if (property.name == name) {
            return &property;
        }
    }
    return nullptr;
}

Object::~Object() = default;

std::string Object::className() const
{
    int status = 0;
    char* demangled = abi::__cxa_demangle(typeid(*this).name(), nullptr, nullptr, &status);
    std::string name = status == 0 && demangled != nullptr ? demangled : typeid(*this).name();
    std::free(demangled);
    if (const auto separator = name.rfind("::"); separator != std::string::npos) {
        name.erase(0, separator + 2);
    }
    return name;
}

std::string Object::description() const
{
    return "<" + className() + ": " + addressString() + ">";
}

bool Object::isEqual(const Object& other) const
{
    return this == &other;
}

const PropertyTable& Object::propertyTable() const
{
    static const PropertyTable empty;
    return empty;
}

Value Object::valueForKey(std::string_view key) const
{
    const auto* property = propertyTable().find(key);
    if (property == nullptr) {
        throw Exception(NSUndefinedKeyException,
                        "[<" + className() + " " + addressString() + "> valueForUndefinedKey:]: this class is not key value coding-compliant for the key "
                            + std::string(key) + ".");
    }
    return property->get(*this);
}

void Object::setValueForKey(const Value& value, std::string_view key)
{
    const auto* property = propertyTable().find(key);
    if (property == nullptr || !property->set) {
        throw Exception(NSUndefinedKeyException,
                        "[<" + className() + " " + addressString() + "> setValue:forUndefinedKey:]: this class is not key value coding-compliant for the key "
                            + std::string(key) + ".");
    }
    property->set(*this, value);
}

std::optional<std::vector<std::string>> Object::attributeKeys() const
{
    return std::nullopt;
}

std::string Object::addressString() const
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", static_cast<const void*>(this));
    return text;
}

}  // namespace platform
