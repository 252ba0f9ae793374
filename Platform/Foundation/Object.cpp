#include "Platform/Foundation/Object.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/internal/PathFollower.h"

#include <algorithm>
#include <cstdio>
#include <cxxabi.h>
#include <mutex>
#include <set>
#include <typeinfo>
#include <utility>

namespace platform {
namespace {

using internal::PathDependency;
using internal::PathFollower;
using internal::PathFollowerRef;

// One registration of an observer for a key.
struct Observance {
    Observance(std::string key, const ObjectRef& observerObject, KeyValueObservingOptions observanceOptions,
               void* observanceContext)
        : keyPath(std::move(key)), observer(observerObject), observerIdentity(observerObject.get()),
          options(observanceOptions), context(observanceContext)
    {
    }

    const std::string keyPath;
    const std::weak_ptr<Object> observer;
    const Object* const observerIdentity;  // compared, never dereferenced
    const KeyValueObservingOptions options;
    void* const context;
    // Set when the registration is removed, so that a delivery already under
    // way skips it.
    std::atomic<bool> removed{false};

    bool wants(KeyValueObservingOptions option) const { return (options & option) != 0; }
};
using ObservanceRef = std::shared_ptr<Observance>;

// The observers of one key as they stood at the "will" call, and the value
// the key had then (taken only when one of them asked for it).
struct KeyChange {
    std::string key;
    std::vector<ObservanceRef> observances;
    Value oldValue;
};

// A change between its "will" and its "did": the key itself first, then the
// observed keys that depend on it.
struct PendingChange {
    const Object* object;
    std::string key;
    KeyValueChange kind;
    std::optional<std::set<std::size_t>> indexes;
    std::vector<KeyChange> keys;
};

// Will/did pairs nest per thread; a change made on another thread meanwhile
// is its own pair.
thread_local std::vector<PendingChange> pendingChanges;

// The object as observers receive it. An object that no shared_ptr owns (one
// on the stack, or one whose owner is letting go) is passed without ownership.
ObjectRef referenceTo(Object& object)
{
    if (auto owned = object.weak_from_this().lock()) {
        return owned;
    }
    return ObjectRef(ObjectRef(), &object);
}

Value orNull(Value value)
{
    return value.isNothing() ? Value::null() : value;
}

Value elementsAt(const Value& arrayValue, const std::set<std::size_t>& indexes)
{
    Array elements;
    const auto* array = arrayValue.array();
    for (const auto index : indexes) {
        elements.push_back(array != nullptr && index < array->size() ? orNull((*array)[index]) : Value::null());
    }
    return elements;
}

Value indexesValue(const std::set<std::size_t>& indexes)
{
    Array values;
    for (const auto index : indexes) {
        values.emplace_back(index);
    }
    return values;
}

bool carriesOldValue(KeyValueChange kind)
{
    return kind == KeyValueChange::Setting || kind == KeyValueChange::Removal || kind == KeyValueChange::Replacement;
}

bool carriesNewValue(KeyValueChange kind)
{
    return kind == KeyValueChange::Setting || kind == KeyValueChange::Insertion || kind == KeyValueChange::Replacement;
}

void deliver(const std::vector<ObservanceRef>& observances, const std::string& key, Object& object,
             const Dictionary& base, const Value* oldValue, const Value* newValue, bool prior)
{
    const ObjectRef self = referenceTo(object);
    for (const auto& observance : observances) {
        if (prior && !observance->wants(NSKeyValueObservingOptionPrior)) {
            continue;
        }
        if (observance->removed.load(std::memory_order_acquire)) {
            continue;
        }
        const auto observer = observance->observer.lock();
        if (!observer) {
            continue;
        }
        Dictionary change = base;
        if (oldValue != nullptr && observance->wants(NSKeyValueObservingOptionOld)) {
            change.set(NSKeyValueChangeOldKey, *oldValue);
        }
        if (newValue != nullptr && observance->wants(NSKeyValueObservingOptionNew)) {
            change.set(NSKeyValueChangeNewKey, *newValue);
        }
        if (prior) {
            change.set(NSKeyValueChangeNotificationIsPriorKey, true);
        }
        observer->observeValueForKeyPath(key, self, change, observance->context);
    }
}

bool anyWants(const std::vector<ObservanceRef>& observances, KeyValueObservingOptions option)
{
    return std::any_of(observances.begin(), observances.end(),
                       [option](const ObservanceRef& observance) { return observance->wants(option); });
}

// The key of the object itself that a dependency names: "operation.URL"
// changes when "operation" does.
std::string_view localKey(std::string_view keyPath)
{
    return keyPath.substr(0, keyPath.find('.'));
}

// Visits the dependencies declared for `key`, directly or through other
// keys of the object, each key's once: `visit` is given the key that
// declares a dependency and the dependency, and ends the walk by answering
// true, which is then the answer.
template <typename Visit>
bool walkDependencies(const Object& object, const std::string& key, Visit visit)
{
    std::set<std::string, std::less<>> visited{key};
    std::vector<std::string> frontier{key};
    while (!frontier.empty()) {
        const auto current = std::move(frontier.back());
        frontier.pop_back();
        for (const auto& source : object.keyPathsForValuesAffectingValueForKey(current)) {
            if (visit(current, source)) {
                return true;
            }
            if (const auto local = localKey(source); visited.insert(std::string(local)).second) {
                frontier.emplace_back(local);
            }
        }
    }
    return false;
}

// Whether a change of `key` changes `candidate`.
bool affects(const Object& object, const std::string& candidate, std::string_view key)
{
    return walkDependencies(object, candidate,
                            [key](const std::string&, const std::string& source) { return localKey(source) == key; });
}

// The key itself, then each observed key that depends on it, directly or
// through other keys.
std::vector<std::string> keysAffectedBy(const Object& object, const std::string& key,
                                        const std::vector<ObservanceRef>& observances)
{
    std::vector<std::string> affected{key};
    for (const auto& observance : observances) {
        const auto& candidate = observance->keyPath;
        if (std::find(affected.begin(), affected.end(), candidate) == affected.end()
            && affects(object, candidate, key)) {
            affected.push_back(candidate);
        }
    }
    return affected;
}

// The dotted dependencies behind `key`: its own, and those of the keys of
// the object that it depends on.
std::vector<PathDependency> pathDependencies(const Object& object, const std::string& key)
{
    std::vector<PathDependency> found;
    walkDependencies(object, key, [&found](const std::string& dependentKey, const std::string& source) {
        PathDependency dependency{dependentKey, source};
        if (localKey(source).size() != source.size()
            && std::find(found.begin(), found.end(), dependency) == found.end()) {
            found.push_back(std::move(dependency));
        }
        return false;
    });
    return found;
}

}  // namespace

struct Object::SideTable {
    std::mutex mutex;  // guards the three lists
    std::vector<ObservanceRef> observances;
    std::vector<std::pair<std::string, Value>> associations;
    std::vector<std::pair<std::string, DestructionHook>> destructionHooks;
    // The number of observances, read without the lock so that a change of
    // an object nobody observes costs two loads.
    std::atomic<std::size_t> observanceCount{0};
    // One follower per dependency through a relationship that an observed
    // key has; `followerCount` read as `observanceCount` is. Followers are
    // made and let go under `followersMutex`, so that an observer that comes
    // while another goes never loses one.
    std::mutex followersMutex;
    std::vector<PathFollowerRef> followers;
    std::atomic<std::size_t> followerCount{0};

    // The followers whose path starts at a key that a change of `key` changes.
    std::vector<PathFollowerRef> followersAfterChangeOf(const Object& object, std::string_view key)
    {
        std::vector<PathFollowerRef> all;
        {
            std::lock_guard lock(mutex);
            all = followers;
        }
        std::erase_if(all, [&](const PathFollowerRef& follower) {
            return follower->firstKey() != key && !affects(object, follower->firstKey(), key);
        });
        return all;
    }

    // The registrations whose observers are still alive; the others are
    // dropped on the way.
    std::vector<ObservanceRef> liveObservances()
    {
        std::lock_guard lock(mutex);
        std::erase_if(observances, [](const ObservanceRef& observance) {
            if (observance->observer.expired()) {
                observance->removed.store(true, std::memory_order_release);
                return true;
            }
            return false;
        });
        observanceCount.store(observances.size(), std::memory_order_release);
        return observances;
    }
};

// Brackets setValueForKey's write; a write that throws ends the change
// without notifying.
class Object::ChangeScope {
public:
    ChangeScope(Object& object, std::string_view key, bool active) : object_(object), key_(key), active_(active)
    {
        if (active_) {
            object_.beginChange(KeyValueChange::Setting, std::nullopt, key_);
        }
    }
    ~ChangeScope()
    {
        if (active_) {
            object_.endChange(key_, false);
        }
    }
    ChangeScope(const ChangeScope&) = delete;
    ChangeScope& operator=(const ChangeScope&) = delete;

    void commit()
    {
        if (active_) {
            active_ = false;
            object_.endChange(key_, true);
        }
    }

private:
    Object& object_;
    std::string_view key_;
    bool active_;
};

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

Object::~Object()
{
    runDestructionHooks();
    delete sideTable_.load(std::memory_order_acquire);
}

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
    // An object without a side table has never been observed: skip the
    // bracketing (and its virtual call) altogether.
    ChangeScope scope(*this, key, existingSideTable() != nullptr && automaticallyNotifiesObserversForKey(key));
    property->set(*this, value);
    scope.commit();
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

Object::SideTable& Object::sideTable() const
{
    if (auto* table = existingSideTable()) {
        return *table;
    }
    auto fresh = std::make_unique<SideTable>();
    SideTable* expected = nullptr;
    if (sideTable_.compare_exchange_strong(expected, fresh.get(), std::memory_order_acq_rel,
                                           std::memory_order_acquire)) {
        return *fresh.release();
    }
    return *expected;  // another thread won the race
}

void Object::runDestructionHooks()
{
    auto* table = existingSideTable();
    if (table == nullptr) {
        return;
    }
    // A hook may set another hook; that one runs too.
    for (;;) {
        std::vector<std::pair<std::string, DestructionHook>> hooks;
        {
            std::lock_guard lock(table->mutex);
            hooks.swap(table->destructionHooks);
        }
        if (hooks.empty()) {
            return;
        }
        for (auto& [key, hook] : hooks) {
            hook(*this);
        }
    }
}

void Object::setDestructionHook(std::string_view key, DestructionHook hook)
{
    auto& table = sideTable();
    std::lock_guard lock(table.mutex);
    for (auto& [existingKey, existingHook] : table.destructionHooks) {
        if (existingKey == key) {
            existingHook = std::move(hook);
            return;
        }
    }
    table.destructionHooks.emplace_back(std::string(key), std::move(hook));
}

void Object::setAssociatedObject(std::string_view key, Value value)
{
    auto& table = sideTable();
    Value released;  // let go of the previous value outside the lock: its destruction may reach back here
    std::lock_guard lock(table.mutex);
    auto& associations = table.associations;
    const auto found = std::find_if(associations.begin(), associations.end(),
                                    [&](const auto& association) { return association.first == key; });
    if (found != associations.end()) {
        released = std::move(found->second);
        if (value.isNothing()) {
            associations.erase(found);
        } else {
            found->second = std::move(value);
        }
    } else if (!value.isNothing()) {
        associations.emplace_back(std::string(key), std::move(value));
    }
}

Value Object::associatedObject(std::string_view key) const
{
    auto* table = existingSideTable();
    if (table == nullptr) {
        return {};
    }
    std::lock_guard lock(table->mutex);
    for (const auto& [existingKey, value] : table->associations) {
        if (existingKey == key) {
            return value;
        }
    }
    return {};
}

Value Object::associatedObject(std::string_view key, const std::function<Value()>& makeIfAbsent)
{
    auto& table = sideTable();
    std::lock_guard lock(table.mutex);
    for (const auto& [existingKey, value] : table.associations) {
        if (existingKey == key) {
            return value;
        }
    }
    Value made = makeIfAbsent();
    if (!made.isNothing()) {
        table.associations.emplace_back(std::string(key), made);
    }
    return made;
}

void Object::addObserver(const ObjectRef& observer, std::string keyPath, KeyValueObservingOptions options,
                         void* context)
{
    if (!observer) {
        Exception::raise(NSInvalidArgumentException,
                         "An observer is needed to observe \"" + keyPath + "\" of " + description() + ".");
    }
    auto observance = std::make_shared<Observance>(std::move(keyPath), observer, options, context);
    auto& table = sideTable();
    {
        std::lock_guard lock(table.mutex);
        table.observances.push_back(observance);
        table.observanceCount.store(table.observances.size(), std::memory_order_release);
    }
    followPathDependencies(observance->keyPath);
    if (observance->wants(NSKeyValueObservingOptionInitial)) {
        Dictionary change{{NSKeyValueChangeKindKey, static_cast<std::uint32_t>(KeyValueChange::Setting)}};
        if (observance->wants(NSKeyValueObservingOptionNew)) {
            change.set(NSKeyValueChangeNewKey, orNull(valueForKey(observance->keyPath)));
        }
        observer->observeValueForKeyPath(observance->keyPath, referenceTo(*this), change, context);
    }
}

void Object::removeObserver(const Object& observer, std::string_view keyPath, std::optional<void*> context)
{
    ObservanceRef removed;
    if (auto* table = existingSideTable()) {
        std::lock_guard lock(table->mutex);
        auto& observances = table->observances;
        for (auto position = observances.rbegin(); position != observances.rend(); ++position) {
            const auto& observance = **position;
            if (observance.observerIdentity == &observer && observance.keyPath == keyPath
                && (!context || *context == observance.context)) {
                removed = *position;
                observances.erase(std::next(position).base());
                break;
            }
        }
        table->observanceCount.store(observances.size(), std::memory_order_release);
    }
    if (!removed) {
        Exception::raise(NSRangeException, observer.addressString() + " is not registered to observe \""
                                               + std::string(keyPath) + "\" of " + description() + ".");
    }
    removed->removed.store(true, std::memory_order_release);
    dropUnneededFollowers();
}

void Object::followPathDependencies(const std::string& key)
{
    const auto dependencies = pathDependencies(*this, key);
    if (dependencies.empty()) {
        return;
    }
    auto& table = sideTable();
    std::lock_guard guard(table.followersMutex);
    for (const auto& dependency : dependencies) {
        PathFollowerRef made;
        {
            std::lock_guard lock(table.mutex);
            const auto existing = std::find_if(table.followers.begin(), table.followers.end(),
                                               [&](const PathFollowerRef& follower) { return follower->dependency() == dependency; });
            if (existing != table.followers.end()) {
                continue;
            }
            made = makeObject<PathFollower>(*this, dependency);
            table.followers.push_back(made);
            table.followerCount.store(table.followers.size(), std::memory_order_release);
        }
        made->relink(0);
    }
}

void Object::dropUnneededFollowers()
{
    auto* table = existingSideTable();
    if (table == nullptr || table->followerCount.load(std::memory_order_acquire) == 0) {
        return;
    }
    std::lock_guard guard(table->followersMutex);
    std::set<std::string, std::less<>> observedKeys;
    {
        std::lock_guard lock(table->mutex);
        for (const auto& observance : table->observances) {
            observedKeys.insert(observance->keyPath);
        }
    }
    std::vector<PathDependency> needed;
    for (const auto& key : observedKeys) {
        for (auto& dependency : pathDependencies(*this, key)) {
            needed.push_back(std::move(dependency));
        }
    }
    std::vector<PathFollowerRef> unneeded;
    {
        std::lock_guard lock(table->mutex);
        std::erase_if(table->followers, [&](const PathFollowerRef& follower) {
            if (std::find(needed.begin(), needed.end(), follower->dependency()) != needed.end()) {
                return false;
            }
            unneeded.push_back(follower);
            return true;
        });
        table->followerCount.store(table->followers.size(), std::memory_order_release);
    }
    for (const auto& follower : unneeded) {
        follower->detach();
    }
}

void Object::observeValueForKeyPath(const std::string& keyPath, const ObjectRef& object, const Dictionary& change,
                                    void* context)
{
    (void)change;
    char contextText[32];
    std::snprintf(contextText, sizeof contextText, "%p", context);
    Exception::raise(NSInternalInconsistencyException,
                     description() + " observes \"" + keyPath + "\" of "
                         + (object ? object->description() : std::string("(null)"))
                         + " but does not handle the notification (context " + contextText + ").");
}

void Object::willChangeValueForKey(std::string_view key)
{
    beginChange(KeyValueChange::Setting, std::nullopt, key);
}

void Object::didChangeValueForKey(std::string_view key)
{
    endChange(key, true);
}

void Object::willChange(KeyValueChange kind, const std::set<std::size_t>& indexes, std::string_view key)
{
    beginChange(kind, indexes, key);
}

void Object::didChange(KeyValueChange kind, const std::set<std::size_t>& indexes, std::string_view key)
{
    (void)kind;
    (void)indexes;  // both were recorded by willChange
    endChange(key, true);
}

std::vector<std::string> Object::keyPathsForValuesAffectingValueForKey(std::string_view key) const
{
    (void)key;
    return {};
}

bool Object::automaticallyNotifiesObserversForKey(std::string_view key) const
{
    (void)key;
    return true;
}

std::size_t Object::observationCount() const
{
    auto* table = existingSideTable();
    if (table == nullptr) {
        return 0;
    }
    std::lock_guard lock(table->mutex);
    return table->observances.size();
}

void Object::beginChange(KeyValueChange kind, std::optional<std::set<std::size_t>> indexes, std::string_view key)
{
    auto* table = existingSideTable();
    if (table == nullptr) {
        // Never observed, and an unpaired "did" finds nothing to pop.
        return;
    }
    // Once there is a side table every "will" pushes, empty or not, so that
    // its "did" never pops an outer change of the same key.
    PendingChange change{this, std::string(key), kind, std::move(indexes), {}};
    if (table->observanceCount.load(std::memory_order_acquire) == 0) {
        pendingChanges.push_back(std::move(change));
        return;
    }
    const auto observances = table->liveObservances();
    for (auto& affectedKey : keysAffectedBy(*this, change.key, observances)) {
        KeyChange keyChange{std::move(affectedKey), {}, {}};
        for (const auto& observance : observances) {
            if (observance->keyPath == keyChange.key) {
                keyChange.observances.push_back(observance);
            }
        }
        if (keyChange.observances.empty()) {
            continue;
        }
        if (anyWants(keyChange.observances, NSKeyValueObservingOptionOld)) {
            const bool elementwise = change.indexes && keyChange.key == change.key;
            if (!elementwise) {
                keyChange.oldValue = orNull(valueForKey(keyChange.key));
            } else if (carriesOldValue(kind)) {
                keyChange.oldValue = elementsAt(valueForKey(keyChange.key), *change.indexes);
            }
        }
        change.keys.push_back(std::move(keyChange));
    }

    // Prior notifications go out after the push: an observer that changes
    // the object from here nests its own pair inside this one.
    std::vector<KeyChange> priors;
    for (const auto& keyChange : change.keys) {
        if (anyWants(keyChange.observances, NSKeyValueObservingOptionPrior)) {
            priors.push_back(keyChange);
        }
    }
    const std::optional<std::set<std::size_t>> priorIndexes = change.indexes;
    pendingChanges.push_back(std::move(change));

    for (const auto& keyChange : priors) {
        const bool elementwise = priorIndexes && keyChange.key == key;
        Dictionary base{{NSKeyValueChangeKindKey,
                         static_cast<std::uint32_t>(elementwise ? kind : KeyValueChange::Setting)}};
        if (elementwise) {
            base.set(NSKeyValueChangeIndexesKey, indexesValue(*priorIndexes));
        }
        const Value* oldValue = keyChange.oldValue.isNothing() ? nullptr : &keyChange.oldValue;
        deliver(keyChange.observances, keyChange.key, *this, base, oldValue, nullptr, true);
    }
}

void Object::endChange(std::string_view key, bool notify)
{
    auto& stack = pendingChanges;
    auto found = std::find_if(stack.rbegin(), stack.rend(), [&](const PendingChange& change) {
        return change.object == this && change.key == key;
    });
    if (found == stack.rend()) {
        return;
    }
    PendingChange change = std::move(*found);
    stack.erase(std::next(found).base());
    // Paths that run through the changed key lead elsewhere now; they are
    // followed anew before anyone hears of the change, so that an observer
    // that changes the new object at once is heard.
    if (auto* table = existingSideTable(); table != nullptr && table->followerCount.load(std::memory_order_acquire) > 0) {
        for (const auto& follower : table->followersAfterChangeOf(*this, key)) {
            follower->relink(0);
        }
    }
    if (!notify || change.keys.empty()) {
        return;
    }

    for (const auto& keyChange : change.keys) {
        const bool elementwise = change.indexes && keyChange.key == change.key;
        const auto kind = elementwise ? change.kind : KeyValueChange::Setting;
        Dictionary base{{NSKeyValueChangeKindKey, static_cast<std::uint32_t>(kind)}};
        Value newValue;
        if (anyWants(keyChange.observances, NSKeyValueObservingOptionNew) && carriesNewValue(kind)) {
            newValue = elementwise ? elementsAt(valueForKey(keyChange.key), *change.indexes)
                                   : orNull(valueForKey(keyChange.key));
        }
        if (elementwise) {
            base.set(NSKeyValueChangeIndexesKey, indexesValue(*change.indexes));
        }
        const Value* oldValue = keyChange.oldValue.isNothing() ? nullptr : &keyChange.oldValue;
        deliver(keyChange.observances, keyChange.key, *this, base, oldValue, newValue.isNothing() ? nullptr : &newValue,
                false);
    }
}

namespace {

std::vector<ObjectRef> objectsAtIndexes(const Array& objects, const std::set<std::size_t>& indexes)
{
    std::vector<ObjectRef> selected;
    for (const auto index : indexes) {
        if (index >= objects.size()) {
            Exception::raise(NSRangeException, "Index " + std::to_string(index) + " is beyond the "
                                                   + std::to_string(objects.size()) + " objects of the array.");
        }
        auto object = objects[index].object();
        if (!object) {
            Exception::raise(NSInvalidArgumentException,
                             "Element " + std::to_string(index) + " of the array is not an object and cannot be observed.");
        }
        selected.push_back(std::move(object));
    }
    return selected;
}

}  // namespace

void addObserverToObjectsAtIndexes(const Array& objects, const std::set<std::size_t>& indexes, const ObjectRef& observer,
                                   const std::string& keyPath, KeyValueObservingOptions options, void* context)
{
    for (const auto& object : objectsAtIndexes(objects, indexes)) {
        object->addObserver(observer, keyPath, options, context);
    }
}

void removeObserverFromObjectsAtIndexes(const Array& objects, const std::set<std::size_t>& indexes, const Object& observer,
                                        std::string_view keyPath, std::optional<void*> context)
{
    for (const auto& object : objectsAtIndexes(objects, indexes)) {
        object->removeObserver(observer, keyPath, context);
    }
}

}  // namespace platform
