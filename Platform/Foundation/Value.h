// Value: the one dynamic value type of the platform layer.
//
// A Value holds nothing, the null object, a number that remembers whether it
// is a boolean, an integer or a double, a string, data, a date, a URL, an
// array, an insertion-ordered dictionary, a set, an ordered set
// (Platform/Foundation/OrderedSet.h), an error or an object.
// Collections are immutable once wrapped and shared by reference, and so are
// strings too long to sit inside a std::string, so copying a Value never
// allocates: a copy of a long string or a collection is a count increment.
//
//   Dictionary attributes;
//   attributes.set("acct", "jo");
//   attributes.set("port", 443);
//   Value value(attributes);
//   if (auto* port = value.dictionary()->find("port")) ... port->integerValue()
#pragma once

#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/URL.h"

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace platform {

class Object;
class Error;
class Value;
class Dictionary;
class Set;
class OrderedSet;

using ObjectRef = std::shared_ptr<Object>;
using ErrorRef = std::shared_ptr<Error>;
using Data = std::vector<std::uint8_t>;
using Array = std::vector<Value>;

// The null object: a placeholder that stands for "no value" inside collections.
struct Null {
    friend bool operator==(Null, Null) { return true; }
};

class Value {
public:
    enum class Kind {
        Nothing, Null, Boolean, Integer, Double, String, Data, Date, URL,
        Array, Dictionary, Set, OrderedSet, Error, Object,
    };

    Value() = default;
    Value(Null) : storage_(Null{}) {}
    Value(bool boolean) : storage_(boolean) {}
    template <typename Integer,
              std::enable_if_t<std::is_integral_v<Integer> && !std::is_same_v<Integer, bool>, int> = 0>
    Value(Integer integer) : storage_(static_cast<std::int64_t>(integer)) {}
    Value(double number) : storage_(number) {}
    Value(const char* string) : Value(std::string_view(string)) {}
    Value(std::string_view string) : Value(std::string(string)) {}
    Value(std::string string);
    Value(Data data) : storage_(std::make_shared<const platform::Data>(std::move(data))) {}
    Value(Date date) : storage_(date) {}
    Value(URL url) : storage_(std::make_shared<const platform::URL>(std::move(url))) {}
    Value(Array array);
    Value(Dictionary dictionary);
    Value(Set set);
    Value(OrderedSet orderedSet);
    Value(ErrorRef error);
    // Error is final and derives from Object alone, so only a pointer typed
    // Object may hold one and needs looking at when the value is made.
    template <typename T, std::enable_if_t<std::is_base_of_v<Object, T> && !std::is_base_of_v<Error, T>, int> = 0>
    Value(std::shared_ptr<T> object)
        : Value(std::static_pointer_cast<Object>(std::move(object)), ObjectTag{std::is_same_v<T, Object>})
    {
    }
    template <typename T>
    Value(std::optional<T> optional) : Value(optional ? Value(std::move(*optional)) : Value()) {}

    static Value null() { return Value(Null{}); }

    Kind kind() const
    {
        const auto index = storage_.index();
        return static_cast<Kind>(index < sharedStringIndex ? index : index - 1);
    }
    bool isNothing() const { return kind() == Kind::Nothing; }
    bool isNull() const { return kind() == Kind::Null; }
    bool isNumber() const;
    bool isBoolean() const { return kind() == Kind::Boolean; }
    bool isString() const { return kind() == Kind::String; }
    explicit operator bool() const { return !isNothing(); }

    // Typed views: null when the value holds another kind.
    const std::string* string() const;
    const platform::Data* data() const;
    const platform::Date* date() const;
    const platform::URL* url() const;
    const platform::Array* array() const;
    const platform::Dictionary* dictionary() const;
    const platform::Set* set() const;
    const platform::OrderedSet* orderedSet() const;
    ErrorRef error() const;
    ObjectRef object() const;
    template <typename T>
    std::shared_ptr<T> objectAs() const { return std::dynamic_pointer_cast<T>(object()); }

    // Numeric views convert between booleans, integers and doubles, as a
    // number object does; anything else gives nothing.
    std::optional<bool> boolValue() const;
    std::optional<std::int64_t> integerValue() const;
    std::optional<double> doubleValue() const;

    // The text that "%@" prints for this value.
    std::string description() const;

    friend bool operator==(const Value& left, const Value& right);

private:
    struct ObjectTag {
        bool mayBeError;
    };
    Value(ObjectRef object, ObjectTag);

    // A string is held in place while std::string keeps it in its own
    // buffer, and shared beyond that: the shared one is never changed, so
    // copies on any thread may read it while the atomic count keeps it alive.
    // Both alternatives are Kind::String, hence the shift in kind().
    static constexpr std::size_t inlineStringLimit = std::string().capacity();
    static constexpr std::size_t sharedStringIndex = 6;

    std::variant<std::monostate, Null, bool, std::int64_t, double, std::string, std::shared_ptr<const std::string>,
                 std::shared_ptr<const platform::Data>, platform::Date,
                 std::shared_ptr<const platform::URL>,
                 std::shared_ptr<const platform::Array>,
                 std::shared_ptr<const platform::Dictionary>,
                 std::shared_ptr<const platform::Set>,
                 std::shared_ptr<const platform::OrderedSet>, ErrorRef, ObjectRef>
        storage_;
    static_assert(std::is_same_v<std::variant_alternative_t<sharedStringIndex, decltype(storage_)>,
                                 std::shared_ptr<const std::string>>);
    static_assert(std::variant_size_v<decltype(storage_)> == static_cast<std::size_t>(Kind::Object) + 2);
};

// A dictionary with string keys that keeps the order in which keys were first
// inserted; replacing a value keeps the key's place.
class Dictionary {
public:
    using Entry = std::pair<std::string, Value>;

    Dictionary() = default;
    Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries);
    // The entries as a dictionary, in their order, without looking each key
    // up among the others: for callers that know the keys distinct, where
    // `set` would cost a comparison per pair. Equal keys given here make a
    // dictionary that is not one.
    static Dictionary withDistinctKeys(std::vector<Entry> entries);

    void set(std::string_view key, Value value);
    bool remove(std::string_view key);
    const Value* find(std::string_view key) const;
    Value get(std::string_view key) const;  // nothing when absent
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    std::size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    std::vector<std::string> keys() const;
    auto begin() const { return entries_.begin(); }
    auto end() const { return entries_.end(); }

    friend bool operator==(const Dictionary& left, const Dictionary& right);

private:
    std::vector<Entry> entries_;
};

// A set of distinct values that enumerates in insertion order.
class Set {
public:
    Set() = default;
    Set(std::initializer_list<Value> values);
    // The values as a set, in their order, without comparing them with one
    // another: for callers that know them distinct (objects by identity, the
    // members of a relationship), where checking would cost a comparison per
    // pair. Equal values given here make a set that is not one.
    static Set withDistinctValues(Array values);

    bool insert(Value value);  // false when an equal value is present
    bool remove(const Value& value);
    bool contains(const Value& value) const;
    std::size_t size() const { return values_.size(); }
    bool empty() const { return values_.empty(); }
    auto begin() const { return values_.begin(); }
    auto end() const { return values_.end(); }

    friend bool operator==(const Set& left, const Set& right);

private:
    std::vector<Value> values_;
};

}  // namespace platform
