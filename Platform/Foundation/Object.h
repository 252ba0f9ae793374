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
//
// Key-value observing: an observer registers for a key of an object and hears
// of every change that is bracketed by willChangeValueForKey/didChangeValueForKey
// (setValueForKey brackets itself):
//
//   task->addObserver(watcher, "state", NSKeyValueObservingOptionNew | NSKeyValueObservingOptionOld);
//   task->setValueForKey("done", "state");   // watcher->observeValueForKeyPath("state", task, change, nullptr)
//   task->removeObserver(*watcher, "state");
//
// Contract:
// - Notifications are delivered synchronously, on the thread that makes the
//   change, to the observers registered at the time of the "will" call, in the
//   order they registered. No lock of this object is held while an observer
//   runs, so an observer may add or remove observations (its own or others')
//   and may change observed values again.
// - An observer that was removed before its turn is skipped; one that is
//   removed on another thread while it is being called finishes that call.
// - Observers are held weakly: an observer that is destroyed without removing
//   itself is skipped and forgotten, never called after it is gone.
// - An observed key path is one key. Dependent keys come from
//   keyPathsForValuesAffectingValueForKey, and a dependency may run through
//   relationships ("operation.URL"): observers of the dependent key then hear
//   of changes of "operation" and of "URL" of whatever object "operation"
//   holds at the time, on the thread that makes them.
// - An object that is never observed, has no associated objects and no
//   destruction hooks pays one null pointer: the side table that holds all of
//   it is allocated on first use.
//
// Objects are made by makeObject, which puts the object and its reference
// count in one allocation and runs the destruction hooks while the object is
// still whole (virtual functions work). A class whose constructor is not
// public befriends the allocator behind it:
//
//   class Task final : public Object {
//   public:
//       static TaskRef create() { return makeObject<Task>(); }
//   private:
//       template <class> friend struct ObjectAllocator;
//       Task() = default;
//   };
//
// Destruction hooks run once, before the object goes. An object that was not
// made by makeObject (one on the stack, or a member) has them run at the start
// of ~Object instead, when its subclass parts are already destroyed: such a
// hook may only use the Object part (its side table, its address as an
// identity). For an object in a shared_ptr no strong reference remains when
// they run, so weak references to it no longer lock; other threads therefore
// cannot reach it, and a hook that reaches other objects through weak
// references never touches an object that is itself being destroyed. A weak
// reference keeps the object's memory (not the object) until it expires.
#pragma once

#include "Platform/Foundation/Value.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace platform {

class Object;
template <class T>
struct ObjectAllocator;

// What an observer asks to receive in the change dictionary, and when.
using KeyValueObservingOptions = std::uint32_t;
inline constexpr KeyValueObservingOptions NSKeyValueObservingOptionNew = 0x01;
inline constexpr KeyValueObservingOptions NSKeyValueObservingOptionOld = 0x02;
// One notification at registration, with the current value if New is asked.
inline constexpr KeyValueObservingOptions NSKeyValueObservingOptionInitial = 0x04;
// A notification before each change as well as after it.
inline constexpr KeyValueObservingOptions NSKeyValueObservingOptionPrior = 0x08;

// The kind of change, as the change dictionary's "kind" entry carries it.
enum class KeyValueChange : std::uint32_t {
    Setting = 1,
    Insertion = 2,
    Removal = 3,
    Replacement = 4,
};

// Keys of the change dictionary. A nothing value appears as the null object.
inline constexpr std::string_view NSKeyValueChangeKindKey = "kind";
inline constexpr std::string_view NSKeyValueChangeNewKey = "new";
inline constexpr std::string_view NSKeyValueChangeOldKey = "old";
inline constexpr std::string_view NSKeyValueChangeIndexesKey = "indexes";
inline constexpr std::string_view NSKeyValueChangeNotificationIsPriorKey = "notificationIsPrior";

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
    // does writing a read-only property. Writing notifies the key's observers
    // unless automaticallyNotifiesObserversForKey says the class does it itself.
    virtual const PropertyTable& propertyTable() const;
    Value valueForKey(std::string_view key) const;
    void setValueForKey(const Value& value, std::string_view key);

    // The attribute names that the describing helpers list; nothing unless a
    // class declares them.
    virtual std::optional<std::vector<std::string>> attributeKeys() const;

    // The address as the platform's "%p" prints it: "0x" and lower-case hex.
    std::string addressString() const;

    // --- Key-value observing ---------------------------------------------

    // Registers `observer` (held weakly) for changes of `keyPath`. The same
    // observer may register several times; each registration is notified.
    void addObserver(const ObjectRef& observer, std::string keyPath, KeyValueObservingOptions options = 0,
                     void* context = nullptr);
    // Removes the most recent matching registration (any context when none is
    // given). Raises "NSRangeException" when there is none.
    void removeObserver(const Object& observer, std::string_view keyPath,
                        std::optional<void*> context = std::nullopt);
    // What an observer receives. `object` is the changed object; it does not
    // own it when that object is not held by a shared_ptr. The root class
    // raises "NSInternalInconsistencyException": a subclass that registers
    // must handle its notifications and pass on the ones of other contexts.
    virtual void observeValueForKeyPath(const std::string& keyPath, const ObjectRef& object, const Dictionary& change,
                                        void* context);

    // Brackets a change of a key; calls pair up per thread, innermost first.
    // An unpaired "did" does nothing.
    void willChangeValueForKey(std::string_view key);
    void didChangeValueForKey(std::string_view key);
    // The same for an insertion, removal or replacement of elements of an
    // array-valued key; old and new values are the elements at `indexes`.
    void willChange(KeyValueChange kind, const std::set<std::size_t>& indexes, std::string_view key);
    void didChange(KeyValueChange kind, const std::set<std::size_t>& indexes, std::string_view key);

    // The keys whose changes also change `key` (a full name that depends on
    // a first and a last name), or key paths through relationships
    // ("partner.fullName"). Observers of `key` hear of changes of these too,
    // transitively. Nothing by default.
    virtual std::vector<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key) const;
    // Whether setValueForKey brackets the change itself; a class whose setter
    // sends will/did on its own answers false for that key.
    virtual bool automaticallyNotifiesObserversForKey(std::string_view key) const;

    // How many registrations this object holds (all keys, live observers or not).
    std::size_t observationCount() const;

    // --- Associated objects ------------------------------------------------

    // Values attached to the object under a key, held strongly until they are
    // replaced, cleared (set to nothing) or the object goes.
    void setAssociatedObject(std::string_view key, Value value);
    Value associatedObject(std::string_view key) const;
    // The value under `key`, made by `makeIfAbsent` first when there is none;
    // the check and the insertion are one step, so racing callers get the same
    // value. `makeIfAbsent` runs under the object's lock: it must not touch
    // this object.
    Value associatedObject(std::string_view key, const std::function<Value()>& makeIfAbsent);

    // --- Destruction hooks -------------------------------------------------

    // Clean-up run once before the object goes (see the banner for where).
    // One hook per key, run in the order the keys were first set; setting a
    // key again replaces its hook. The hook receives the dying object.
    using DestructionHook = std::function<void(Object&)>;
    void setDestructionHook(std::string_view key, DestructionHook hook);

protected:
    Object() = default;

private:
    template <class>
    friend struct ObjectAllocator;
    struct SideTable;
    class ChangeScope;

    SideTable& sideTable() const;
    SideTable* existingSideTable() const { return sideTable_.load(std::memory_order_acquire); }
    void runDestructionHooks();
    void followPathDependencies(const std::string& key);
    void dropUnneededFollowers();
    void beginChange(KeyValueChange kind, std::optional<std::set<std::size_t>> indexes, std::string_view key);
    void endChange(std::string_view key, bool notify);

    // Allocated on first use, freed by ~Object.
    mutable std::atomic<SideTable*> sideTable_{nullptr};
};

// The allocator behind makeObject. A class whose constructor is not public
// befriends it:
//   template <class> friend struct platform::ObjectAllocator;
template <class T>
struct ObjectAllocator {
    using value_type = T;

    ObjectAllocator() = default;
    template <class U>
    ObjectAllocator(const ObjectAllocator<U>&) noexcept
    {
    }

    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* storage, std::size_t count) noexcept { std::allocator<T>().deallocate(storage, count); }

    template <class U, class... Arguments>
    void construct(U* storage, Arguments&&... arguments)
    {
        ::new (static_cast<void*>(storage)) U(std::forward<Arguments>(arguments)...);
    }
    template <class U>
    void destroy(U* object)
    {
        if constexpr (std::is_base_of_v<Object, U>) {
            static_cast<Object&>(*object).runDestructionHooks();
        }
        object->~U();
    }

    template <class U>
    bool operator==(const ObjectAllocator<U>&) const noexcept
    {
        return true;
    }
};

// Makes an object and its reference count in one allocation, as
// std::make_shared does, with the destruction hooks run while the object is
// still whole. For objects made on one thread and let go on another, as a
// request's are, every allocation saved is a slow path of malloc saved on both
// threads. Every factory makes its objects this way.
//   return platform::makeObject<Task>(...);
template <class T, class... Arguments>
std::shared_ptr<T> makeObject(Arguments&&... arguments)
{
    return std::allocate_shared<T>(ObjectAllocator<T>(), std::forward<Arguments>(arguments)...);
}

// Observing the objects of an array: registers (or removes) the observer on
// each element at `indexes`. Elements must be objects ("NSInvalidArgumentException"
// otherwise) and indexes in range ("NSRangeException").
void addObserverToObjectsAtIndexes(const Array& objects, const std::set<std::size_t>& indexes, const ObjectRef& observer,
                                   const std::string& keyPath, KeyValueObservingOptions options = 0,
                                   void* context = nullptr);
void removeObserverFromObjectsAtIndexes(const Array& objects, const std::set<std::size_t>& indexes, const Object& observer,
                                        std::string_view keyPath, std::optional<void*> context = std::nullopt);

}  // namespace platform
