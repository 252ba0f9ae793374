// Object: the root class of every object with identity.
//
// Objects live in std::shared_ptr and are made by factories. Key-value coding
// reads and writes properties by name through a per-class PropertyTable, so
// describing helpers and observers can reach attributes without knowing the
// class:
//
//   const PropertyTable& QMKeychain::propertyTable() const
//   {
//       static const auto table = PropertyTable::extending<QMKeychain>(Object::propertyTable(), {
//           {"path", [](const QMKeychain& keychain) { return Value(keychain.path()); }},
//       });
//       return table;
//   }
#pragma once

#include "Platform/Foundation/Value.h"

#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class Object;

// The named properties of a class: a getter each, and a setter for the
// writable ones. A subclass's table extends its base class's.
class PropertyTable {
public:
    using Getter = std::function<Value(const Object&)>;
    using Setter = std::function<void(Object&, const Value&)>;

    struct Property {
        std::string name;
        Getter get;
        Setter set;  // empty for a read-only property
    };

    template <typename T>
    struct TypedProperty {
        std::string name;
        std::function<Value(const T&)> get;
        std::function<void(T&, const Value&)> set = nullptr;
    };

    PropertyTable() = default;

    template <typename T>
    static PropertyTable extending(const PropertyTable& base, std::initializer_list<TypedProperty<T>> properties)
    {
        PropertyTable table = base;
        for (const auto& property : properties) {
            Setter setter;
            if (property.set) {
                setter = [set = property.set](Object& object, const Value& value) { set(static_cast<T&>(object), value); };
            }
            table.add({property.name,
                       [get = property.get](const Object& object) { return get(static_cast<const T&>(object)); },
                       std::move(setter)});
        }
        return table;
    }

    const Property* find(std::string_view name) const;
    const std::vector<Property>& properties() const { return properties_; }

private:
    void add(Property property);

    std::vector<Property> properties_;
};

class Object : public std::enable_shared_from_this<Object> {
public:
    virtual ~Object();
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    // The class name, as descriptions print it.
    virtual std::string className() const;
    // "<ClassName: 0x...>" unless a class says more.
    virtual std::string description() const;
    // Identity unless a class compares by value.
    virtual bool isEqual(const Object& other) const;

    // Key-value coding. An unknown key raises "NSUndefinedKeyException"; so
    // does writing a read-only property.
    virtual const PropertyTable& propertyTable() const;
    Value valueForKey(std::string_view key) const;
    void setValueForKey(const Value& value, std::string_view key);

    // The attribute names that the describing helpers list; nothing unless a
    // class declares them.
    virtual std::optional<std::vector<std::string>> attributeKeys() const;

    // The address as the platform's "%p" prints it: "0x" and lower-case hex.
    std::string addressString() const;

protected:
    Object() = default;
};

}  // namespace platform
