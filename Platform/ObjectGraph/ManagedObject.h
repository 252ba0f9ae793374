// ManagedObject: one object of the graph, as one context sees it.
//
//   auto person = ManagedObject::insertNewObjectForEntityForName("Person", *context);
//   person->setValueForKey("Ada", "name");                 // key-value coding, observed
//   person->setValueForKey(Value(department), "department"); // the inverse follows
//   context->save(&error);
//   person->objectID()->URIRepresentation();               // permanent from now on
//
// The entity decides the class: the class registry is asked for the entity's
// class name (Platform/Runtime/Class.h); a class registered there must derive
// from ManagedObject and have a factory; any other name gives the generic
// ManagedObject. Its properties answer key-value coding and observing by
// name; "objectID" reads the ID.
//
// Values by kind of property, as valueForKey answers them and setValueForKey
// takes them: attributes as Values of their type (nothing for nil); to-one
// relationships as the related object or nothing; to-many as a Set of
// objects, ordered to-many as an OrderedSet (setValueForKey also takes an
// Array). Setting a relationship changes the inverse on the other side in the
// same step (and observers of the other side hear of it).
//
// Threading: an object belongs to its context and is used only where the
// context may be used (ManagedObjectContext.h). The one exception is
// `objectID()`, which any thread may read at any time: merges read the IDs of
// another context's saved objects from the thread that saved.
//
// Faults: an object fetched or looked up by ID starts as a fault, with no
// values. The first access to a property (valueForKey, primitiveValueForKey,
// willAccessValueForKey) fills it from the parent context or the store; a
// fault whose object no longer exists raises "NSObjectInaccessibleException".
//
// Not promised: validation of a value's type when it is set (that happens at
// save, NSManagedObjectValidationError), or that a to-many Set keeps any order.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/ObjectGraph/ManagedObjectID.h"
#include "Platform/ObjectGraph/ManagedObjectModel.h"
#include "Platform/ObjectGraph/PersistentStore.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

namespace objectgraph {
class RegisteredObjects;
}
class ManagedObjectContext;
class ManagedObject;
using ManagedObjectRef = std::shared_ptr<ManagedObject>;

inline constexpr std::string_view NSObjectInaccessibleException = "NSObjectInaccessibleException";

class ManagedObject : public Object {
public:
    ~ManagedObject() override;

    // A new object of `entity`, inserted into `context` (when given) or in no
    // context at all: such an object keeps its values in memory and is saved
    // only once inserted (ManagedObjectContext::insertObject). Defaults of
    // the entity's attributes are set; awakeFromInsert runs.
    static ManagedObjectRef create(const EntityDescription& entity, ManagedObjectContext* context);
    // The same by entity name in the context's model; raises
    // "NSInternalInconsistencyException" for an unknown name.
    static ManagedObjectRef insertNewObjectForEntityForName(std::string_view entityName, ManagedObjectContext& context);

    // The managed object `value` holds, or null. Objects of entities without a
    // class of their own, the common case, are recognised without the cost of
    // a dynamic_cast.
    static ManagedObjectRef refIn(const Value& value);
    // The same without a reference of its own: the value keeps it alive.
    static ManagedObject* inValue(const Value& value) { return refIn(value).get(); }

    const EntityDescription& entity() const { return *entity_; }
    // Any thread; see the banner. The same ID object on every call until the
    // ID changes (a fault makes it on the first call).
    ManagedObjectIDRef objectID() const;
    // Nothing when the object is in no context (made without one, or its
    // deletion was saved, or its context is gone).
    std::shared_ptr<ManagedObjectContext> managedObjectContext() const;

    bool isFault() const { return fault_; }
    bool isInserted() const { return inserted_; }
    bool isUpdated() const { return updated_; }
    bool isDeleted() const { return deleted_; }
    bool hasChanges() const { return inserted_ || updated_ || deleted_; }

    // The values of the properties that differ from the last saved (or
    // fetched) ones, by name.
    Dictionary changedValues() const;
    // The last saved (or fetched) values of the named properties (all when
    // empty), by name.
    Dictionary committedValuesForKeys(const std::vector<std::string>& keys = {}) const;

    // Values without observer notifications or inverse changes; a change still
    // counts as one for saving. Unknown keys raise "NSUndefinedKeyException".
    Value primitiveValueForKey(std::string_view key) const;
    void setPrimitiveValueForKey(const Value& value, std::string_view key);

    // Every property read goes through these; the first call fires a fault.
    // `key` may be empty (fire only). Subclasses may override them and must
    // call the base.
    virtual void willAccessValueForKey(std::string_view key) const;
    virtual void didAccessValueForKey(std::string_view key) const;

    // setValueForKey for each entry, in order.
    void setValuesForKeysWithDictionary(const Dictionary& values);

    // Adds or removes one object of a to-many relationship (and the inverse).
    void addObjectToRelationship(const ManagedObjectRef& object, std::string_view key);
    void removeObjectFromRelationship(const ManagedObjectRef& object, std::string_view key);

    // Hooks for subclasses: after insertion (defaults are set), after a fault
    // is filled, before the context saves the object.
    virtual void awakeFromInsert() {}
    virtual void awakeFromFetch() {}
    virtual void willSave() {}

    const PropertyTable& propertyTable() const override;
    std::string className() const override;
    // "<Class: 0x...> (entity: E; id: <uri>; data: <fault>|{...})"; values of
    // attributes are left out, they may be secrets.
    std::string description() const override;

protected:
    // For registered subclasses' factories; the entity is bound afterwards.
    ManagedObject() = default;

private:
    friend class ManagedObjectContext;
    friend class EntityDescription;
    friend class objectgraph::RegisteredObjects;

    // Values by property index in one allocation that carries its size, so
    // that an object without values (a fault) spends one pointer on them
    // rather than a vector's three. Indexes are not checked.
    class ValueSlots {
    public:
        ValueSlots() = default;
        ValueSlots(const ValueSlots&) = delete;
        ValueSlots& operator=(const ValueSlots&) = delete;
        ~ValueSlots() { clear(); }

        ValueSlots& operator=(std::vector<Value> values);
        std::size_t size() const { return header_ != nullptr ? header_->size : 0; }
        Value& operator[](std::size_t index) { return items()[index]; }
        const Value& operator[](std::size_t index) const { return items()[index]; }
        // Keeps the first values, adds nothing-values after them.
        void resize(std::size_t size);
        // Copies of another object's values, in one allocation.
        void copyFrom(const ValueSlots& other);
        void clear();

    private:
        struct Header {
            std::size_t size;
        };
        static_assert(sizeof(Header) % alignof(Value) == 0);
        static Header* allocate(std::size_t size);
        Value* items() const { return std::launder(reinterpret_cast<Value*>(header_ + 1)); }

        Header* header_ = nullptr;
    };

    void bind(const EntityDescription& entity);
    // An object of the entity's class with no values, to be registered as a
    // fault: nothing is allocated for values until it fires.
    static ManagedObjectRef makeFault(const EntityDescription& entity, ManagedObjectIDRef id);
    // An object of the entity's class under this very ID object, with no
    // values: a parent context's copy of a child's new object, so that both
    // answer one ID object. A permanent ID is kept in parts as well, so that
    // the registration reads it without the ID lock.
    static ManagedObjectRef makeWithID(const EntityDescription& entity, ManagedObjectIDRef id);
    // Keeps `id` as its parts when it is permanent and of the object's own
    // entity, so that the ID key is read without the ID lock; false (and
    // nothing kept) otherwise. On a new object only, before it is shared.
    bool keepIDInParts(const ManagedObjectID& id);
    // A property's value as snapshots and committed values hold it:
    // attributes as they are, relationships as the IDs of their objects.
    static Value snapshotValue(const PropertyDescription& property, const Value& value);
    // The committed values become these (a snapshot's), or the current
    // values as a snapshot holds them. Written into the slots the object
    // has when they fit, sparing an allocation per object and save.
    void commitValues(std::vector<Value>&& values);
    void commitCurrentValues();
    // A property's committed value. An inserted object that a parent context
    // took from a child has none until it is saved: they are nothing then
    // (no objects for a to-many relationship), as for any new object.
    const Value& committedValue(const PropertyDescription& property) const;
    void setObjectID(ManagedObjectIDRef id);
    // The current ID as a small value; on the context's thread only.
    ManagedObjectIDKey idKey() const;
    // Guards objectID_, which any thread may read: one of a few locks shared
    // by all objects, so that an object carries no lock of its own.
    std::mutex& idLock() const;
    void fireFault() const;
    const Value& storedValue(std::size_t index) const;
    void setStoredValue(std::size_t index, Value value);  // marks the change
    Value publicValue(const PropertyDescription& property) const;
    void setPublicValue(const PropertyDescription& property, const Value& value, bool maintainInverse);
    void relateTo(const RelationshipDescription& relationship, const ManagedObjectRef& target, bool add,
                  bool maintainInverse);
    void noteChanged();
    // The objects a stored relationship value holds (an Array for to-many,
    // the object or nothing for to-one).
    static std::vector<ManagedObjectRef> storedTargets(const Value& stored);

    // A fault costs what these members take (with the control block of its
    // shared_ptr and the context's registration): keep them few and small.
    // 104 bytes here make a 128-byte block with the control block, the
    // allocator's header and its rounding; 8 more would make it 144.
    const EntityDescription* entity_ = nullptr;
    ManagedObjectContext* context_ = nullptr;  // the context that holds this object registered
    // A fault's ID in parts (with entity_): most faults are never asked for
    // an ID object, and one would cost as much again as the fault. Written
    // once, before the object is shared, and never changed: a later ID goes
    // into objectID_, which readers look at first.
    const std::string* partsStore_ = nullptr;  // interned (InternedStoreIdentifier)
    std::int64_t partsKey_ = 0;
    // The ID object, when one was set or made from the parts (idLock()).
    mutable ManagedObjectIDRef objectID_;
    // By property index. Relationships hold objects: to-one the object or
    // nothing, to-many an Array of objects. Empty while a fault.
    mutable ValueSlots values_;
    // The values as last fetched or saved (relationships as object IDs), for
    // changedValues and merging; empty for an object inserted from a child
    // context until it is saved (committedValue).
    mutable ValueSlots committed_;
    // The store version the committed values came with, and the state, in
    // one word. A version counts the saves of one row: 56 bits do not run
    // out. All of these are read and written on the context's thread only,
    // as they share a memory location.
    mutable std::int64_t version_ : 56 = 0;
    mutable bool fault_ : 1 = false;
    bool inserted_ : 1 = false;
    bool updated_ : 1 = false;
    bool deleted_ : 1 = false;
    // Whether the parts are the current ID (other threads go by objectID_
    // first).
    bool idInParts_ : 1 = false;
};

}  // namespace platform
