// ManagedObjectModel: the entities of an object graph, their attributes and
// relationships, read from and written to a model file.
//
//   ErrorRef error;
//   auto model = ManagedObjectModel::modelWithContentsOfURL(*bundle->URLForResource("Sample", "momd"), &error);
//   const EntityDescription* person = model->entityNamed("Person");
//   person->attributeNamed("name")->attributeType();       // AttributeType::String
//   person->relationshipNamed("friends")->isToMany();       // true
//
// A model is made in one step (`create`, or the file reader) and is immutable
// from then on: every member of every description may be called from any
// thread. `create` checks the model as a whole (names unique, destinations
// and inverses that exist and point back, defaults of the attribute's type)
// and refuses one that is not consistent.
//
// Entity inheritance is not supported: each entity stands alone. The model
// file is JSON; its format, with an example, is in docs/ARCHITECTURE.md
// ("Model files").
//
// The version hash covers what decides how a store lays out its data: entity
// names, attribute names and types, relationship names, destinations, kinds
// (to-one, to-many, ordered) and inverses. Optionality, defaults, indexes and
// delete rules can change without changing it; a store checks it on opening.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class Class;
class EntityDescription;
class ManagedObjectModel;
using ManagedObjectModelRef = std::shared_ptr<const ManagedObjectModel>;

enum class AttributeType {
    Integer16,
    Integer32,
    Integer64,
    Double,
    String,
    Boolean,
    Date,
    Binary,
};

// The name a model file gives the type ("integer16", "string", ...), and back.
std::string_view attributeTypeName(AttributeType type);
[[nodiscard]] std::optional<AttributeType> attributeTypeNamed(std::string_view name);

// Whether `value` may be stored in an attribute of `type` as it stands: an
// integer within the type's range, any number for a double, a boolean (or the
// integers 0 and 1) for a boolean, a string, a date, data. Nothing and null
// are never of a type; optionality is checked separately.
bool valueFitsAttributeType(const Value& value, AttributeType type);

enum class DeleteRule {
    NoAction,  // the destination keeps pointing at the deleted object
    Nullify,   // the deleted object is removed from the destination's inverse
    Cascade,   // the destination objects are deleted too
    Deny,      // the save fails while the relationship holds any object
};

std::string_view deleteRuleName(DeleteRule rule);
[[nodiscard]] std::optional<DeleteRule> deleteRuleNamed(std::string_view name);

class PropertyDescription : public Object {
public:
    const std::string& name() const { return name_; }
    bool isOptional() const { return optional_; }
    // The entity the property belongs to.
    const EntityDescription& entity() const { return *entity_; }
    // The property's place among its entity's properties: attributes first,
    // in model order, then relationships.
    std::size_t index() const { return index_; }
    virtual bool isRelationship() const = 0;

protected:
    PropertyDescription(std::string name, bool optional) : name_(std::move(name)), optional_(optional) {}

private:
    friend class ManagedObjectModel;
    std::string name_;
    bool optional_;
    const EntityDescription* entity_ = nullptr;
    std::size_t index_ = 0;
};

class AttributeDescription final : public PropertyDescription {
public:
    struct Options {
        bool optional = true;
        Value defaultValue;  // nothing: no default
        bool indexed = false;
    };
    static std::shared_ptr<AttributeDescription> create(std::string name, AttributeType type, Options options);
    static std::shared_ptr<AttributeDescription> create(std::string name, AttributeType type)
    {
        return create(std::move(name), type, Options{});
    }

    AttributeType attributeType() const { return type_; }
    const Value& defaultValue() const { return default_; }
    bool isIndexed() const { return indexed_; }
    bool isRelationship() const override { return false; }
    std::string className() const override { return "NSAttributeDescription"; }
    std::string description() const override;

private:
    template <class> friend struct ObjectAllocator;
    AttributeDescription(std::string name, AttributeType type, Options options);
    AttributeType type_;
    Value default_;
    bool indexed_;
};

class RelationshipDescription final : public PropertyDescription {
public:
    struct Options {
        std::string inverse;  // empty: none
        bool toMany = false;
        bool ordered = false;  // only with toMany
        bool optional = true;
        DeleteRule deleteRule = DeleteRule::Nullify;
    };
    static std::shared_ptr<RelationshipDescription> create(std::string name, std::string destination, Options options);

    const std::string& destinationEntityName() const { return destinationName_; }
    const EntityDescription& destinationEntity() const { return *destination_; }
    // The relationship of the destination that points back, or null.
    const RelationshipDescription* inverseRelationship() const { return inverse_; }
    const std::string& inverseName() const { return inverseName_; }
    bool isToMany() const { return toMany_; }
    bool isOrdered() const { return ordered_; }
    DeleteRule deleteRule() const { return deleteRule_; }
    bool isRelationship() const override { return true; }
    std::string className() const override { return "NSRelationshipDescription"; }
    std::string description() const override;

private:
    friend class ManagedObjectModel;
    template <class> friend struct ObjectAllocator;
    RelationshipDescription(std::string name, std::string destination, Options options);
    std::string destinationName_;
    std::string inverseName_;
    bool toMany_;
    bool ordered_;
    DeleteRule deleteRule_;
    const EntityDescription* destination_ = nullptr;
    const RelationshipDescription* inverse_ = nullptr;
};

using AttributeDescriptionRef = std::shared_ptr<AttributeDescription>;
using RelationshipDescriptionRef = std::shared_ptr<RelationshipDescription>;

class EntityDescription final : public Object {
public:
    // The entity before it joins a model; `managedObjectClassName` empty
    // means the entity's own name (the class registry is asked for a class of
    // that name; an unknown one gives the generic managed object).
    static std::shared_ptr<EntityDescription> create(std::string name, std::vector<AttributeDescriptionRef> attributes,
                                                     std::vector<RelationshipDescriptionRef> relationships,
                                                     std::string managedObjectClassName = {});

    const std::string& name() const { return name_; }
    const std::string& managedObjectClassName() const { return className_; }
    // The model the entity belongs to; valid while the model lives.
    const ManagedObjectModel& managedObjectModel() const { return *model_; }

    const std::vector<AttributeDescriptionRef>& attributes() const { return attributes_; }
    const std::vector<RelationshipDescriptionRef>& relationships() const { return relationships_; }
    // Attributes, then relationships: the order of PropertyDescription::index.
    const std::vector<const PropertyDescription*>& properties() const { return properties_; }

    // Null when the entity has no such property.
    const PropertyDescription* propertyNamed(std::string_view name) const;
    const AttributeDescription* attributeNamed(std::string_view name) const;
    const RelationshipDescription* relationshipNamed(std::string_view name) const;
    // Name to description, in model order; each value holds the description.
    Dictionary attributesByName() const;
    Dictionary relationshipsByName() const;

    // A short hash (hex) of what the model's version hash covers for this entity.
    const std::string& versionHash() const { return versionHash_; }

    std::string className() const override { return "NSEntityDescription"; }
    std::string description() const override;

    // The key-value coding table of the entity's managed objects, made on
    // first use (ManagedObject.cpp).
    const PropertyTable& objectPropertyTable() const;
    // The registered class its managed objects are made of, or nothing for
    // the generic one (ManagedObject.cpp). Remembered, as every new object
    // asks: a class found stays registered for good, and that none was found
    // holds until the class registry changes.
    const Class* managedObjectClass() const;

private:
    friend class ManagedObjectModel;
    template <class> friend struct ObjectAllocator;
    EntityDescription(std::string name, std::vector<AttributeDescriptionRef> attributes,
                      std::vector<RelationshipDescriptionRef> relationships, std::string className);

    std::string name_;
    std::string className_;
    std::vector<AttributeDescriptionRef> attributes_;
    std::vector<RelationshipDescriptionRef> relationships_;
    std::vector<const PropertyDescription*> properties_;
    std::string versionHash_;
    const ManagedObjectModel* model_ = nullptr;
    mutable std::once_flag tableOnce_;
    mutable PropertyTable table_;
    mutable std::atomic<const Class*> class_{nullptr};
    // One more than the registry's generation when the class was last not
    // found; 0 before the first look-up.
    mutable std::atomic<std::uint64_t> classMissedAt_{0};
};

using EntityDescriptionRef = std::shared_ptr<EntityDescription>;

class ManagedObjectModel final : public Object {
public:
    // The model of these entities, or nothing with a validation error
    // (NSManagedObjectValidationError) that names the entity and property at
    // fault. An entity joins one model only: reusing one raises
    // "NSInvalidArgumentException".
    [[nodiscard]] static ManagedObjectModelRef create(std::vector<EntityDescriptionRef> entities,
                                                      ErrorRef* error = nullptr);

    // Reads a model file. A missing file is NSFileReadNoSuchFileError; a file
    // that is not a model (bad JSON, unknown keys, wrong types, an
    // inconsistent model) is NSFileReadCorruptFileError whose failure reason
    // names the file and the place ("entities[1].attributes[0].type").
    // Files larger than 16 MiB are refused as not a model.
    [[nodiscard]] static ManagedObjectModelRef modelWithContentsOfURL(const URL& url, ErrorRef* error = nullptr);
    // The same from text; `sourceName` stands for the file in messages.
    [[nodiscard]] static ManagedObjectModelRef modelWithJSONText(std::string_view text, std::string_view sourceName,
                                                                 ErrorRef* error = nullptr);
    // The model file's text: reading it back gives an equal model (same
    // version hash, same options).
    std::string JSONText() const;
    // Writes the model file atomically (a temporary file, then a rename).
    [[nodiscard]] bool writeToURL(const URL& url, ErrorRef* error = nullptr) const;

    const std::vector<EntityDescriptionRef>& entities() const { return entities_; }
    // Null when there is no entity of that name.
    const EntityDescription* entityNamed(std::string_view name) const;
    Dictionary entitiesByName() const;

    // 64 hex digits; equal for models that lay out their data alike.
    const std::string& versionHash() const { return versionHash_; }

    std::string className() const override { return "NSManagedObjectModel"; }
    std::string description() const override;

private:
    template <class> friend struct ObjectAllocator;
    ManagedObjectModel() = default;

    // The steps of `create`: each false with an error for a model it refuses.
    [[nodiscard]] static bool checkEntityNames(const std::vector<EntityDescriptionRef>& entities, ErrorRef* error);
    [[nodiscard]] static bool checkAttributes(const EntityDescription& entity,
                                              std::set<std::string, std::less<>>& propertyNames, ErrorRef* error);
    [[nodiscard]] static bool resolveDestinations(const EntityDescription& entity,
                                                  const std::vector<EntityDescriptionRef>& entities,
                                                  std::set<std::string, std::less<>>& propertyNames, ErrorRef* error);
    [[nodiscard]] static bool resolveInverses(const std::vector<EntityDescriptionRef>& entities, ErrorRef* error);
    static ManagedObjectModelRef assemble(std::vector<EntityDescriptionRef> entities);

    std::vector<EntityDescriptionRef> entities_;
    std::string versionHash_;
};

}  // namespace platform
