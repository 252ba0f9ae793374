#include "Platform/ObjectGraph/ManagedObject.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/OrderedSet.h"
#include "Platform/ObjectGraph/ManagedObjectContext.h"
#include "Platform/Runtime/Class.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <typeinfo>
#include <utility>

namespace platform {
namespace {

// The objects a relationship value holds, whatever collection it came in.
std::vector<ManagedObjectRef> objectsOf(const Value& value, std::string_view key)
{
    std::vector<ManagedObjectRef> objects;
    auto add = [&](const Value& element) {
        auto object = ManagedObject::refIn(element);
        if (!object) {
            Exception::raise(NSInvalidArgumentException,
                             "The relationship " + std::string(key) + " takes managed objects only.");
        }
        if (std::find(objects.begin(), objects.end(), object) == objects.end()) {
            objects.push_back(std::move(object));
        }
    };
    if (value.isNothing() || value.isNull()) {
        return objects;
    }
    if (const Array* array = value.array()) {
        for (const auto& element : *array) {
            add(element);
        }
    } else if (const Set* set = value.set()) {
        for (const auto& element : *set) {
            add(element);
        }
    } else if (const OrderedSet* ordered = value.orderedSet()) {
        for (const auto& element : *ordered) {
            add(element);
        }
    } else {
        add(value);
    }
    return objects;
}

// The class of objects whose entity names no class of its own.
struct PlainObject final : ManagedObject {};

ManagedObjectRef makeInstance(const EntityDescription& entity)
{
    if (const Class* cls = entity.managedObjectClass(); cls != nullptr && cls->canMakeInstance()) {
        if (auto object = std::dynamic_pointer_cast<ManagedObject>(cls->makeInstance())) {
            return object;
        }
    }
    return makeObject<PlainObject>();
}

const PropertyDescription& propertyOrRaise(const EntityDescription& entity, std::string_view key)
{
    const PropertyDescription* property = entity.propertyNamed(key);
    if (property == nullptr) {
        Exception::raise(NSUndefinedKeyException, "The entity " + entity.name() +
                                                      " is not key value coding-compliant for the key \"" +
                                                      std::string(key) + "\".");
    }
    return *property;
}

}  // namespace

const PropertyTable& EntityDescription::objectPropertyTable() const
{
    std::call_once(tableOnce_, [this] {
        PropertyTable table = Object::propertyTable();
        table = PropertyTable::extending<ManagedObject>(
            table, {{"objectID", [](const ManagedObject& object) { return Value(object.objectID()); }}});
        for (const auto* property : properties()) {
            table = PropertyTable::extending<ManagedObject>(
                table, {{property->name(),
                         [property](const ManagedObject& object) { return object.publicValue(*property); },
                         [property](ManagedObject& object, const Value& value) {
                             object.setPublicValue(*property, value, true);
                         }}});
        }
        table_ = std::move(table);
    });
    return table_;
}

const Class* EntityDescription::managedObjectClass() const
{
    if (const Class* known = class_.load(std::memory_order_acquire)) {
        return known;
    }
    // Read before the look-up: a class registered meanwhile moves it on, so
    // a miss recorded under it is never taken for the newer registry.
    const std::uint64_t generation = classRegistryGeneration();
    if (classMissedAt_.load(std::memory_order_relaxed) == generation + 1) {
        return nullptr;
    }
    const Class* found = classFromString(className_);
    if (found != nullptr) {
        class_.store(found, std::memory_order_release);
    } else {
        classMissedAt_.store(generation + 1, std::memory_order_relaxed);
    }
    return found;
}

// A fault stays under 200 bytes only while the object fits a 128-byte block
// with its control block (see the members).
static_assert(sizeof(void*) != 8 || sizeof(ManagedObject) <= 104, "a fault would outgrow its allocation block");

ManagedObject::~ManagedObject() = default;

ManagedObjectRef ManagedObject::create(const EntityDescription& entity, ManagedObjectContext* context)
{
    auto object = makeInstance(entity);
    object->bind(entity);
    object->values_.resize(entity.properties().size());
    object->committed_.resize(entity.properties().size());
    for (const auto& attribute : entity.attributes()) {
        object->values_[attribute->index()] = attribute->defaultValue();
    }
    for (const auto& relationship : entity.relationships()) {
        if (relationship->isToMany()) {
            object->values_[relationship->index()] = Value(Array{});
            object->committed_[relationship->index()] = Value(Array{});
        }
    }
    object->setObjectID(ManagedObjectID::temporaryID(entity));
    if (context != nullptr) {
        context->insertObject(object);
    }
    object->awakeFromInsert();
    return object;
}

ManagedObjectRef ManagedObject::insertNewObjectForEntityForName(std::string_view entityName,
                                                                ManagedObjectContext& context)
{
    const EntityDescription* entity = context.model().entityNamed(entityName);
    if (entity == nullptr) {
        Exception::raise(NSInternalInconsistencyException,
                         "The model has no entity named \"" + std::string(entityName) + "\".");
    }
    return create(*entity, &context);
}

void ManagedObject::bind(const EntityDescription& entity)
{
    entity_ = &entity;
}

ManagedObjectRef ManagedObject::makeFault(const EntityDescription& entity, ManagedObjectIDRef id)
{
    auto object = makeInstance(entity);
    object->bind(entity);
    object->fault_ = true;
    if (!id || !object->keepIDInParts(*id)) {
        object->setObjectID(std::move(id));
    }
    return object;
}

ManagedObjectRef ManagedObject::makeWithID(const EntityDescription& entity, ManagedObjectIDRef id)
{
    auto object = makeInstance(entity);
    object->bind(entity);
    object->keepIDInParts(*id);
    // No other thread knows the object yet: no lock.
    object->objectID_ = std::move(id);
    return object;
}

ManagedObjectRef ManagedObject::refIn(const Value& value)
{
    ObjectRef object = value.object();
    if (object && typeid(*object) == typeid(PlainObject)) {
        return std::static_pointer_cast<ManagedObject>(std::move(object));
    }
    return std::dynamic_pointer_cast<ManagedObject>(std::move(object));
}

bool ManagedObject::keepIDInParts(const ManagedObjectID& id)
{
    if (id.isTemporaryID() || &id.entity() != entity_) {
        return false;
    }
    partsStore_ = id.store_;
    partsKey_ = id.primaryKey();
    idInParts_ = true;
    return true;
}

std::mutex& ManagedObject::idLock() const
{
    // A lock is held for a few instructions, so a few dozen serve every object.
    static std::array<std::mutex, 64> locks;
    return locks[(reinterpret_cast<std::uintptr_t>(this) >> 6) % locks.size()];
}

ManagedObjectIDRef ManagedObject::objectID() const
{
    std::lock_guard lock(idLock());
    if (!objectID_ && partsKey_ != 0) {
        // Kept, so that the ID stays one object however often it is asked for.
        objectID_ = ManagedObjectID::fromParts(*entity_, partsStore_, partsKey_);
    }
    return objectID_;
}

void ManagedObject::setObjectID(ManagedObjectIDRef id)
{
    {
        std::lock_guard lock(idLock());
        std::swap(objectID_, id);
    }
    idInParts_ = false;
}  // the ID it had goes here, outside the lock

ManagedObjectIDKey ManagedObject::idKey() const
{
    if (idInParts_) {
        return {entity_, partsStore_, partsKey_, false};
    }
    // Only this thread replaces objectID_, so the ID outlives the key.
    std::lock_guard lock(idLock());
    return objectID_ ? objectID_->key() : ManagedObjectIDKey{};
}

// --- ValueSlots ----------------------------------------------------------------------------

ManagedObject::ValueSlots::Header* ManagedObject::ValueSlots::allocate(std::size_t size)
{
    auto* header = static_cast<Header*>(::operator new(sizeof(Header) + size * sizeof(Value)));
    header->size = size;
    return header;
}

ManagedObject::ValueSlots& ManagedObject::ValueSlots::operator=(std::vector<Value> values)
{
    clear();
    if (!values.empty()) {
        Header* header = allocate(values.size());
        std::uninitialized_move(values.begin(), values.end(), reinterpret_cast<Value*>(header + 1));
        header_ = header;
    }
    return *this;
}

void ManagedObject::ValueSlots::resize(std::size_t size)
{
    const std::size_t old = this->size();
    if (size == old) {
        return;
    }
    if (size == 0) {
        clear();
        return;
    }
    Header* header = allocate(size);
    auto* target = reinterpret_cast<Value*>(header + 1);
    const std::size_t kept = std::min(size, old);
    if (kept > 0) {
        std::uninitialized_move_n(items(), kept, target);
    }
    std::uninitialized_value_construct(target + kept, target + size);
    clear();
    header_ = header;
}

void ManagedObject::ValueSlots::copyFrom(const ValueSlots& other)
{
    Header* header = nullptr;
    if (other.size() > 0) {
        header = allocate(other.size());
        try {
            std::uninitialized_copy_n(other.items(), other.size(), reinterpret_cast<Value*>(header + 1));
        } catch (...) {
            ::operator delete(header);
            throw;
        }
    }
    clear();
    header_ = header;
}

void ManagedObject::ValueSlots::clear()
{
    if (header_ == nullptr) {
        return;
    }
    // Destroying a value may release objects whose destruction reaches this
    // object again (relationships hold each other): detach first.
    Header* header = std::exchange(header_, nullptr);
    std::destroy_n(std::launder(reinterpret_cast<Value*>(header + 1)), header->size);
    ::operator delete(header);
}

std::shared_ptr<ManagedObjectContext> ManagedObject::managedObjectContext() const
{
    return context_ != nullptr ? std::static_pointer_cast<ManagedObjectContext>(context_->shared_from_this()) : nullptr;
}

std::string ManagedObject::className() const
{
    return "NSManagedObject";
}

const PropertyTable& ManagedObject::propertyTable() const
{
    return entity_->objectPropertyTable();
}

void ManagedObject::fireFault() const
{
    if (!fault_) {
        return;
    }
    ErrorRef error;
    if (context_ == nullptr || !context_->fulfillFault(const_cast<ManagedObject&>(*this), &error)) {
        Exception::raise(NSObjectInaccessibleException,
                         "The object " + objectID()->description() + " could not be read: " +
                             (error ? error->localizedDescription() : std::string("it has no context")));
    }
}

void ManagedObject::willAccessValueForKey(std::string_view) const
{
    if (context_ != nullptr) {
        context_->checkAccess("willAccessValueForKey");
    }
    fireFault();
}

void ManagedObject::didAccessValueForKey(std::string_view) const {}

const Value& ManagedObject::storedValue(std::size_t index) const
{
    static const Value nothing;
    return index < values_.size() ? values_[index] : nothing;
}

void ManagedObject::noteChanged()
{
    if (context_ != nullptr && !inserted_ && !deleted_) {
        context_->noteUpdated(*this);
    }
}

std::vector<ManagedObjectRef> ManagedObject::storedTargets(const Value& stored)
{
    std::vector<ManagedObjectRef> targets;
    if (const Array* array = stored.array()) {
        targets.reserve(array->size());
        for (const auto& element : *array) {
            targets.push_back(refIn(element));
        }
    } else if (auto target = refIn(stored)) {
        targets.push_back(std::move(target));
    }
    return targets;
}

void ManagedObject::setStoredValue(std::size_t index, Value value)
{
    if (value.isNull()) {
        value = Value();
    }
    values_[index] = std::move(value);
    noteChanged();
}

Value ManagedObject::publicValue(const PropertyDescription& property) const
{
    willAccessValueForKey(property.name());
    Value value = storedValue(property.index());
    if (property.isRelationship() && static_cast<const RelationshipDescription&>(property).isToMany()) {
        const Array* array = value.array();
        if (static_cast<const RelationshipDescription&>(property).isOrdered()) {
            value = Value(array != nullptr ? OrderedSet::withArray(*array) : OrderedSet());
        } else {
            // A relationship holds each object once.
            value = Value(Set::withDistinctValues(array != nullptr ? *array : Array{}));
        }
    }
    didAccessValueForKey(property.name());
    return value;
}

Value ManagedObject::primitiveValueForKey(std::string_view key) const
{
    const PropertyDescription& property = propertyOrRaise(*entity_, key);
    fireFault();
    if (property.isRelationship() && static_cast<const RelationshipDescription&>(property).isToMany()) {
        return publicValue(property);
    }
    return storedValue(property.index());
}

void ManagedObject::setPrimitiveValueForKey(const Value& value, std::string_view key)
{
    const PropertyDescription& property = propertyOrRaise(*entity_, key);
    willAccessValueForKey(key);
    if (!property.isRelationship()) {
        setStoredValue(property.index(), value);
        return;
    }
    const auto& relationship = static_cast<const RelationshipDescription&>(property);
    const auto objects = objectsOf(value, key);
    if (!relationship.isToMany()) {
        setStoredValue(property.index(), objects.empty() ? Value() : Value(objects.front()));
        return;
    }
    Array array;
    for (const auto& object : objects) {
        array.push_back(Value(object));
    }
    setStoredValue(property.index(), Value(std::move(array)));
}

void ManagedObject::setValuesForKeysWithDictionary(const Dictionary& values)
{
    for (const auto& [key, value] : values) {
        setValueForKey(value, key);
    }
}

void ManagedObject::relateTo(const RelationshipDescription& relationship, const ManagedObjectRef& target, bool add,
                             bool maintainInverse)
{
    if (target->context_ != context_) {
        Exception::raise(NSInvalidArgumentException, "Illegal attempt to establish a relationship \"" +
                                                         relationship.name() +
                                                         "\" between objects in different contexts.");
    }
    fireFault();
    const std::size_t index = relationship.index();
    const Value targetValue(target);
    bool changed = false;
    if (!relationship.isToMany()) {
        const bool holds = values_[index] == targetValue;
        if (add && !holds) {
            values_[index] = targetValue;
            changed = true;
        } else if (!add && holds) {
            values_[index] = Value();
            changed = true;
        }
    } else {
        Array array = values_[index].array() != nullptr ? *values_[index].array() : Array{};
        const auto found = std::find(array.begin(), array.end(), targetValue);
        if (add && found == array.end()) {
            array.push_back(targetValue);
            changed = true;
        } else if (!add && found != array.end()) {
            array.erase(found);
            changed = true;
        }
        if (changed) {
            values_[index] = Value(std::move(array));
        }
    }
    if (changed) {
        noteChanged();
    }
    const RelationshipDescription* inverse = relationship.inverseRelationship();
    if (!maintainInverse || inverse == nullptr || !changed) {
        return;
    }
    const auto self = std::static_pointer_cast<ManagedObject>(shared_from_this());
    target->fireFault();
    if (add && !inverse->isToMany()) {
        // The target can point back at one object only: the one it pointed
        // at before loses it.
        if (auto previous = refIn(target->storedValue(inverse->index()));
            previous && previous != self) {
            previous->willChangeValueForKey(relationship.name());
            previous->relateTo(relationship, target, false, false);
            previous->didChangeValueForKey(relationship.name());
        }
    }
    target->willChangeValueForKey(inverse->name());
    target->relateTo(*inverse, self, add, false);
    target->didChangeValueForKey(inverse->name());
}

void ManagedObject::setPublicValue(const PropertyDescription& property, const Value& value, bool maintainInverse)
{
    willAccessValueForKey(property.name());
    if (!property.isRelationship()) {
        setStoredValue(property.index(), value);
        return;
    }
    const auto& relationship = static_cast<const RelationshipDescription&>(property);
    const auto wanted = objectsOf(value, property.name());
    if (!relationship.isToMany()) {
        if (wanted.size() > 1) {
            Exception::raise(NSInvalidArgumentException,
                             "The to-one relationship " + property.name() + " takes one object.");
        }
        const auto current = refIn(storedValue(property.index()));
        const auto next = wanted.empty() ? nullptr : wanted.front();
        if (current == next) {
            return;
        }
        if (current) {
            relateTo(relationship, current, false, maintainInverse);
        }
        if (next) {
            relateTo(relationship, next, true, maintainInverse);
        }
        return;
    }
    const auto current = objectsOf(storedValue(property.index()), property.name());
    for (const auto& object : current) {
        if (std::find(wanted.begin(), wanted.end(), object) == wanted.end()) {
            relateTo(relationship, object, false, maintainInverse);
        }
    }
    for (const auto& object : wanted) {
        if (std::find(current.begin(), current.end(), object) == current.end()) {
            relateTo(relationship, object, true, maintainInverse);
        }
    }
    if (relationship.isOrdered()) {
        // The order asked for, now that the members are the same.
        Array ordered;
        for (const auto& object : wanted) {
            ordered.push_back(Value(object));
        }
        if (!(ordered == *values_[property.index()].array())) {
            setStoredValue(property.index(), Value(std::move(ordered)));
        }
    }
}

void ManagedObject::addObjectToRelationship(const ManagedObjectRef& object, std::string_view key)
{
    const PropertyDescription& property = propertyOrRaise(*entity_, key);
    if (!property.isRelationship() || !static_cast<const RelationshipDescription&>(property).isToMany()) {
        Exception::raise(NSInvalidArgumentException, std::string(key) + " is not a to-many relationship.");
    }
    willAccessValueForKey(key);
    willChangeValueForKey(key);
    relateTo(static_cast<const RelationshipDescription&>(property), object, true, true);
    didChangeValueForKey(key);
}

void ManagedObject::removeObjectFromRelationship(const ManagedObjectRef& object, std::string_view key)
{
    const PropertyDescription& property = propertyOrRaise(*entity_, key);
    if (!property.isRelationship() || !static_cast<const RelationshipDescription&>(property).isToMany()) {
        Exception::raise(NSInvalidArgumentException, std::string(key) + " is not a to-many relationship.");
    }
    willAccessValueForKey(key);
    willChangeValueForKey(key);
    relateTo(static_cast<const RelationshipDescription&>(property), object, false, true);
    didChangeValueForKey(key);
}

namespace {

// A relationship value as IDs, the form snapshots and committed values use.
Value asIDs(const Value& value)
{
    if (const Array* array = value.array()) {
        Array ids;
        ids.reserve(array->size());
        for (const auto& element : *array) {
            ids.push_back(Value(ManagedObject::inValue(element)->objectID()));
        }
        return Value(std::move(ids));
    }
    if (const auto* object = ManagedObject::inValue(value)) {
        return Value(object->objectID());
    }
    return value;
}

}  // namespace

Value ManagedObject::snapshotValue(const PropertyDescription& property, const Value& value)
{
    return property.isRelationship() ? asIDs(value) : value;
}

// Committed values hold relationships as IDs, never objects, so writing over
// them in place cannot release this object (values_ may: see clear()).
void ManagedObject::commitValues(std::vector<Value>&& values)
{
    if (committed_.size() != values.size()) {
        committed_ = std::move(values);
        return;
    }
    for (std::size_t index = 0; index < values.size(); ++index) {
        committed_[index] = std::move(values[index]);
    }
}

void ManagedObject::commitCurrentValues()
{
    if (committed_.size() != values_.size()) {
        // Copied whole, which costs less than filling new slots one by one.
        committed_.copyFrom(values_);
        for (const auto& relationship : entity_->relationships()) {
            committed_[relationship->index()] = asIDs(values_[relationship->index()]);
        }
        return;
    }
    for (const auto* property : entity_->properties()) {
        committed_[property->index()] = snapshotValue(*property, values_[property->index()]);
    }
}

const Value& ManagedObject::committedValue(const PropertyDescription& property) const
{
    if (property.index() < committed_.size()) {
        return committed_[property.index()];
    }
    static const Value nothing;
    static const Value noObjects{Array{}};
    const bool toMany = property.isRelationship() && static_cast<const RelationshipDescription&>(property).isToMany();
    return toMany ? noObjects : nothing;
}

Dictionary ManagedObject::changedValues() const
{
    Dictionary changed;
    if (fault_) {
        return changed;
    }
    for (const auto* property : entity_->properties()) {
        const Value& value = values_[property->index()];
        const Value current = snapshotValue(*property, value);
        if (!(current == committedValue(*property))) {
            changed.set(property->name(), property->isRelationship() ? publicValue(*property) : value);
        }
    }
    return changed;
}

Dictionary ManagedObject::committedValuesForKeys(const std::vector<std::string>& keys) const
{
    fireFault();
    Dictionary committed;
    for (const auto* property : entity_->properties()) {
        if (keys.empty() || std::find(keys.begin(), keys.end(), property->name()) != keys.end()) {
            committed.set(property->name(), committedValue(*property));
        }
    }
    return committed;
}

std::string ManagedObject::description() const
{
    const auto id = objectID();
    std::string text = "<" + className() + ": " + addressString() + "> (entity: " + entity_->name() +
                       "; id: " + (id ? id->description() : "(null)") + "; data: ";
    if (fault_) {
        return text + "<fault>)";
    }
    // Names only: attribute values may be secrets.
    text += "{";
    bool first = true;
    for (const auto* property : entity_->properties()) {
        text += (first ? "" : ", ") + property->name();
        first = false;
    }
    return text + "})";
}

}  // namespace platform
