#include "Platform/ObjectGraph/ManagedObjectModel.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/JSON.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"

#include <sodium.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

namespace platform {
namespace {

constexpr std::size_t kMaximumModelFileSize = 16u << 20;
constexpr std::string_view kFormatName = "zarvo-object-model";
constexpr std::int64_t kFormatVersion = 1;

constexpr std::pair<AttributeType, std::string_view> kTypeNames[] = {
    {AttributeType::Integer16, "integer16"}, {AttributeType::Integer32, "integer32"},
    {AttributeType::Integer64, "integer64"}, {AttributeType::Double, "double"},
    {AttributeType::String, "string"},       {AttributeType::Boolean, "boolean"},
    {AttributeType::Date, "date"},           {AttributeType::Binary, "binary"},
};

constexpr std::pair<DeleteRule, std::string_view> kRuleNames[] = {
    {DeleteRule::NoAction, "noAction"},
    {DeleteRule::Nullify, "nullify"},
    {DeleteRule::Cascade, "cascade"},
    {DeleteRule::Deny, "deny"},
};

std::string hexHash(std::string_view text, std::size_t bytes)
{
    static const bool initialised = sodium_init() >= 0;
    (void)initialised;
    unsigned char digest[crypto_generichash_BYTES_MAX];
    crypto_generichash(digest, bytes, reinterpret_cast<const unsigned char*>(text.data()), text.size(), nullptr, 0);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(bytes * 2);
    for (std::size_t index = 0; index < bytes; ++index) {
        hex.push_back(kDigits[digest[index] >> 4]);
        hex.push_back(kDigits[digest[index] & 0xf]);
    }
    return hex;
}

// The storage-relevant description of an entity, one line per property, in
// a fixed order so that reordering properties in the file keeps the hash.
std::string layoutText(const EntityDescription& entity)
{
    std::set<std::string> lines;
    for (const auto& attribute : entity.attributes()) {
        lines.insert("a " + attribute->name() + " " + std::string(attributeTypeName(attribute->attributeType())));
    }
    for (const auto& relationship : entity.relationships()) {
        lines.insert("r " + relationship->name() + " " + relationship->destinationEntityName() + " " +
                     (relationship->isToMany() ? (relationship->isOrdered() ? "ordered" : "many") : "one") + " " +
                     relationship->inverseName());
    }
    std::string text = "entity " + entity.name() + "\n";
    for (const auto& line : lines) {
        text += line + "\n";
    }
    return text;
}

ErrorRef invalidModel(std::string reason)
{
    return objectgraph::makeError(NSManagedObjectValidationError, "The managed object model is not consistent.",
                                  std::move(reason));
}

bool isValidName(std::string_view name)
{
    // Names become identifiers in stores and key paths: letters, digits and
    // underscores, not starting with a digit. Leading "Z_" is the stores' own.
    if (name.empty() || name.size() > 128 || (name[0] >= '0' && name[0] <= '9')) {
        return false;
    }
    for (char c : name) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_')) {
            return false;
        }
    }
    return name.substr(0, 2) != "Z_";
}

}  // namespace

std::string_view attributeTypeName(AttributeType type)
{
    for (const auto& [known, name] : kTypeNames) {
        if (known == type) {
            return name;
        }
    }
    return "unknown";
}

std::optional<AttributeType> attributeTypeNamed(std::string_view name)
{
    for (const auto& [type, known] : kTypeNames) {
        if (known == name) {
            return type;
        }
    }
    return std::nullopt;
}

bool valueFitsAttributeType(const Value& value, AttributeType type)
{
    auto integerWithin = [&](std::int64_t low, std::int64_t high) {
        if (value.kind() != Value::Kind::Integer) {
            return false;
        }
        const auto integer = *value.integerValue();
        return integer >= low && integer <= high;
    };
    switch (type) {
    case AttributeType::Integer16:
        return integerWithin(std::numeric_limits<std::int16_t>::min(), std::numeric_limits<std::int16_t>::max());
    case AttributeType::Integer32:
        return integerWithin(std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max());
    case AttributeType::Integer64:
        return value.kind() == Value::Kind::Integer;
    case AttributeType::Double:
        return value.isNumber() && !value.isBoolean();
    case AttributeType::Boolean:
        return value.isBoolean() || integerWithin(0, 1);
    case AttributeType::String:
        return value.isString();
    case AttributeType::Date:
        return value.kind() == Value::Kind::Date;
    case AttributeType::Binary:
        return value.kind() == Value::Kind::Data;
    }
    return false;
}

std::string_view deleteRuleName(DeleteRule rule)
{
    for (const auto& [known, name] : kRuleNames) {
        if (known == rule) {
            return name;
        }
    }
    return "unknown";
}

std::optional<DeleteRule> deleteRuleNamed(std::string_view name)
{
    for (const auto& [rule, known] : kRuleNames) {
        if (known == name) {
            return rule;
        }
    }
    return std::nullopt;
}

// --- Descriptions -----------------------------------------------------------

AttributeDescription::AttributeDescription(std::string name, AttributeType type, Options options)
    : PropertyDescription(std::move(name), options.optional),
      type_(type),
      default_(std::move(options.defaultValue)),
      indexed_(options.indexed)
{
}

std::shared_ptr<AttributeDescription> AttributeDescription::create(std::string name, AttributeType type,
                                                                   Options options)
{
    return makeObject<AttributeDescription>(std::move(name), type, std::move(options));
}

std::string AttributeDescription::description() const
{
    return "(<NSAttributeDescription: " + addressString() + ">), name " + name() + ", type " +
           std::string(attributeTypeName(type_)) + (isOptional() ? ", optional" : "") + (indexed_ ? ", indexed" : "");
}

RelationshipDescription::RelationshipDescription(std::string name, std::string destination, Options options)
    : PropertyDescription(std::move(name), options.optional),
      destinationName_(std::move(destination)),
      inverseName_(std::move(options.inverse)),
      toMany_(options.toMany),
      ordered_(options.toMany && options.ordered),
      deleteRule_(options.deleteRule)
{
}

std::shared_ptr<RelationshipDescription> RelationshipDescription::create(std::string name, std::string destination,
                                                                         Options options)
{
    return makeObject<RelationshipDescription>(std::move(name), std::move(destination), std::move(options));
}

std::string RelationshipDescription::description() const
{
    return "(<NSRelationshipDescription: " + addressString() + ">), name " + name() + ", destination " +
           destinationName_ + (toMany_ ? (ordered_ ? ", ordered to-many" : ", to-many") : ", to-one") +
           (inverseName_.empty() ? "" : ", inverse " + inverseName_) + ", delete rule " +
           std::string(deleteRuleName(deleteRule_));
}

EntityDescription::EntityDescription(std::string name, std::vector<AttributeDescriptionRef> attributes,
                                     std::vector<RelationshipDescriptionRef> relationships, std::string className)
    : name_(std::move(name)),
      className_(className.empty() ? name_ : std::move(className)),
      attributes_(std::move(attributes)),
      relationships_(std::move(relationships))
{
}

std::shared_ptr<EntityDescription> EntityDescription::create(std::string name,
                                                             std::vector<AttributeDescriptionRef> attributes,
                                                             std::vector<RelationshipDescriptionRef> relationships,
                                                             std::string managedObjectClassName)
{
    return makeObject<EntityDescription>(std::move(name), std::move(attributes), std::move(relationships),
                                         std::move(managedObjectClassName));
}

const PropertyDescription* EntityDescription::propertyNamed(std::string_view name) const
{
    for (const auto* property : properties_) {
        if (property->name() == name) {
            return property;
        }
    }
    return nullptr;
}

const AttributeDescription* EntityDescription::attributeNamed(std::string_view name) const
{
    for (const auto& attribute : attributes_) {
        if (attribute->name() == name) {
            return attribute.get();
        }
    }
    return nullptr;
}

const RelationshipDescription* EntityDescription::relationshipNamed(std::string_view name) const
{
    for (const auto& relationship : relationships_) {
        if (relationship->name() == name) {
            return relationship.get();
        }
    }
    return nullptr;
}

Dictionary EntityDescription::attributesByName() const
{
    Dictionary byName;
    for (const auto& attribute : attributes_) {
        byName.set(attribute->name(), Value(attribute));
    }
    return byName;
}

Dictionary EntityDescription::relationshipsByName() const
{
    Dictionary byName;
    for (const auto& relationship : relationships_) {
        byName.set(relationship->name(), Value(relationship));
    }
    return byName;
}

std::string EntityDescription::description() const
{
    return "(<NSEntityDescription: " + addressString() + ">) name " + name_ + ", managedObjectClassName " +
           className_ + ", " + std::to_string(attributes_.size()) + " attributes, " +
           std::to_string(relationships_.size()) + " relationships";
}

// --- The model ----------------------------------------------------------------

namespace {

// A property (`kind`: "attribute" or "relationship") that is there, with a
// name that is a name, not one the managed object itself answers by
// key-value coding, and not one the entity has already.
bool checkProperty(const std::string& where, const PropertyDescription* candidate, std::string_view kind,
                   std::set<std::string, std::less<>>& propertyNames, ErrorRef* error)
{
    if (candidate == nullptr) {
        setError(error, invalidModel(where + ": a null " + std::string(kind) + "."));
        return false;
    }
    const PropertyDescription& property = *candidate;
    if (!isValidName(property.name())) {
        setError(error, invalidModel(where + ": \"" + property.name() + "\" is not a property name."));
        return false;
    }
    if (property.name() == "objectID" || property.name() == "entity" || property.name() == "managedObjectContext") {
        setError(error, invalidModel(where + ": the property name \"" + property.name() + "\" is reserved."));
        return false;
    }
    if (!propertyNames.insert(property.name()).second) {
        setError(error, invalidModel(where + ": the property " + property.name() + " is defined twice."));
        return false;
    }
    return true;
}

}  // namespace

ManagedObjectModelRef ManagedObjectModel::create(std::vector<EntityDescriptionRef> entities, ErrorRef* error)
{
    if (!checkEntityNames(entities, error)) {
        return nullptr;
    }
    for (const auto& entity : entities) {
        std::set<std::string, std::less<>> propertyNames;
        if (!checkAttributes(*entity, propertyNames, error) ||
            !resolveDestinations(*entity, entities, propertyNames, error)) {
            return nullptr;
        }
    }
    if (!resolveInverses(entities, error)) {
        return nullptr;
    }
    return assemble(std::move(entities));
}

bool ManagedObjectModel::checkEntityNames(const std::vector<EntityDescriptionRef>& entities, ErrorRef* error)
{
    std::set<std::string, std::less<>> entityNames;
    for (const auto& entity : entities) {
        if (!entity) {
            Exception::raise(NSInvalidArgumentException, "A model cannot hold a null entity.");
        }
        if (entity->model_ != nullptr) {
            Exception::raise(NSInvalidArgumentException,
                             "The entity " + entity->name() + " already belongs to another model.");
        }
        if (!isValidName(entity->name())) {
            setError(error, invalidModel("The entity name \"" + entity->name() +
                                         "\" is not a name (letters, digits and \"_\", not starting with a digit "
                                         "or \"Z_\")."));
            return false;
        }
        if (!entityNames.insert(entity->name()).second) {
            setError(error, invalidModel("The entity " + entity->name() + " is defined twice."));
            return false;
        }
    }
    return true;
}

bool ManagedObjectModel::checkAttributes(const EntityDescription& entity,
                                         std::set<std::string, std::less<>>& propertyNames, ErrorRef* error)
{
    const std::string where = "entity " + entity.name();
    for (const auto& attribute : entity.attributes_) {
        if (!checkProperty(where, attribute.get(), "attribute", propertyNames, error)) {
            return false;
        }
        const Value& defaultValue = attribute->defaultValue();
        if (defaultValue && !valueFitsAttributeType(defaultValue, attribute->attributeType())) {
            setError(error, invalidModel(where + ", attribute " + attribute->name() +
                                         ": the default value is not of the type " +
                                         std::string(attributeTypeName(attribute->attributeType())) + "."));
            return false;
        }
    }
    return true;
}

bool ManagedObjectModel::resolveDestinations(const EntityDescription& entity,
                                             const std::vector<EntityDescriptionRef>& entities,
                                             std::set<std::string, std::less<>>& propertyNames, ErrorRef* error)
{
    const std::string where = "entity " + entity.name();
    for (const auto& relationship : entity.relationships_) {
        if (!checkProperty(where, relationship.get(), "relationship", propertyNames, error)) {
            return false;
        }
        const auto destination = std::find_if(entities.begin(), entities.end(), [&](const EntityDescriptionRef& candidate) {
            return candidate->name() == relationship->destinationEntityName();
        });
        if (destination == entities.end()) {
            setError(error, invalidModel(where + ", relationship " + relationship->name() + ": no entity named \"" +
                                         relationship->destinationEntityName() + "\"."));
            return false;
        }
        relationship->destination_ = destination->get();
    }
    return true;
}

// Inverses once every destination is known: each must exist and name this
// relationship back, so that both sides are kept in step.
bool ManagedObjectModel::resolveInverses(const std::vector<EntityDescriptionRef>& entities, ErrorRef* error)
{
    for (const auto& entity : entities) {
        for (const auto& relationship : entity->relationships_) {
            if (relationship->inverseName().empty()) {
                continue;
            }
            const RelationshipDescription* inverse =
                relationship->destination_->relationshipNamed(relationship->inverseName());
            const std::string where = "entity " + entity->name() + ", relationship " + relationship->name();
            if (inverse == nullptr) {
                setError(error, invalidModel(where + ": the inverse " + relationship->destinationEntityName() + "." +
                                             relationship->inverseName() + " does not exist."));
                return false;
            }
            if (inverse->inverseName() != relationship->name() ||
                inverse->destinationEntityName() != entity->name()) {
                setError(error, invalidModel(where + ": the inverse " + relationship->destinationEntityName() + "." +
                                             inverse->name() + " does not name it back."));
                return false;
            }
            relationship->inverse_ = inverse;
        }
    }
    return true;
}

// The model of checked entities: each property gets its entity and index
// (attributes first, then relationships), each entity and the model their
// version hashes.
ManagedObjectModelRef ManagedObjectModel::assemble(std::vector<EntityDescriptionRef> entities)
{
    auto model = makeObject<ManagedObjectModel>();
    std::set<std::string> entityTexts;
    for (const auto& entity : entities) {
        entity->model_ = model.get();
        std::size_t index = 0;
        for (const auto& attribute : entity->attributes_) {
            attribute->entity_ = entity.get();
            attribute->index_ = index++;
            entity->properties_.push_back(attribute.get());
        }
        for (const auto& relationship : entity->relationships_) {
            relationship->entity_ = entity.get();
            relationship->index_ = index++;
            entity->properties_.push_back(relationship.get());
        }
        const std::string text = layoutText(*entity);
        entity->versionHash_ = hexHash(text, 16);
        entityTexts.insert(text);
    }
    // Sorted, so that the order of entities in the file does not count.
    std::string modelText;
    for (const auto& text : entityTexts) {
        modelText += text;
    }
    model->versionHash_ = hexHash(modelText, 32);
    model->entities_ = std::move(entities);
    return model;
}

const EntityDescription* ManagedObjectModel::entityNamed(std::string_view name) const
{
    for (const auto& entity : entities_) {
        if (entity->name() == name) {
            return entity.get();
        }
    }
    return nullptr;
}

Dictionary ManagedObjectModel::entitiesByName() const
{
    Dictionary byName;
    for (const auto& entity : entities_) {
        byName.set(entity->name(), Value(entity));
    }
    return byName;
}

std::string ManagedObjectModel::description() const
{
    std::string text = "(<NSManagedObjectModel: " + addressString() + ">) entities:";
    for (const auto& entity : entities_) {
        text += " " + entity->name();
    }
    return text;
}

// --- The model file ------------------------------------------------------------

namespace {

// Reads one model file, remembering where it is so that a fault names its
// place: "entities[1].attributes[0].type".
class ModelReader {
public:
    explicit ModelReader(std::string_view source) : source_(source) {}

    [[nodiscard]] ManagedObjectModelRef read(const Value& root, ErrorRef* error)
    {
        const Dictionary* top = root.dictionary();
        if (top == nullptr) {
            return fail("", "the file is not a JSON object", error);
        }
        if (!onlyKeys(*top, "", {"format", "formatVersion", "entities"}, error)) {
            return nullptr;
        }
        if (top->get("format") != Value(kFormatName)) {
            return fail("format", "expected \"" + std::string(kFormatName) + "\"", error);
        }
        if (top->get("formatVersion") != Value(kFormatVersion)) {
            return fail("formatVersion", "expected " + std::to_string(kFormatVersion), error);
        }
        const Value* entitiesValue = top->find("entities");
        const Array* entities = entitiesValue != nullptr ? entitiesValue->array() : nullptr;
        if (entities == nullptr) {
            return fail("entities", "expected an array of entities", error);
        }
        std::vector<EntityDescriptionRef> built;
        for (std::size_t index = 0; index < entities->size(); ++index) {
            auto entity = readEntity((*entities)[index], "entities[" + std::to_string(index) + "]", error);
            if (!entity) {
                return nullptr;
            }
            built.push_back(std::move(entity));
        }
        ErrorRef modelError;
        auto model = ManagedObjectModel::create(std::move(built), &modelError);
        if (!model) {
            return fail("entities", modelError->localizedFailureReason().value_or("the model is not consistent"),
                        error);
        }
        return model;
    }

private:
    std::nullptr_t fail(const std::string& place, const std::string& problem, ErrorRef* error) const
    {
        std::string reason = std::string(source_) + (place.empty() ? "" : ": " + place) + ": " + problem + ".";
        setError(error, objectgraph::makeError(NSFileReadCorruptFileError,
                                               "The model file " + std::string(source_) + " is not a valid model.",
                                               std::move(reason)));
        return nullptr;
    }

    bool onlyKeys(const Dictionary& dictionary, const std::string& place, std::initializer_list<std::string_view> keys,
                  ErrorRef* error) const
    {
        for (const auto& [key, value] : dictionary) {
            bool known = false;
            for (auto allowed : keys) {
                known = known || key == allowed;
            }
            if (!known) {
                fail(place.empty() ? key : place + "." + key, "unknown key", error);
                return false;
            }
        }
        return true;
    }

    const std::string* string(const Dictionary& dictionary, const std::string& place, std::string_view key,
                              ErrorRef* error) const
    {
        const Value* value = dictionary.find(key);
        const std::string* text = value != nullptr ? value->string() : nullptr;
        if (text == nullptr) {
            fail(place + "." + std::string(key), "expected a string", error);
        }
        return text;
    }

    std::optional<bool> flag(const Dictionary& dictionary, const std::string& place, std::string_view key,
                             bool fallback, ErrorRef* error) const
    {
        const Value value = dictionary.get(key);
        if (!value) {
            return fallback;
        }
        if (!value.isBoolean()) {
            fail(place + "." + std::string(key), "expected true or false", error);
            return std::nullopt;
        }
        return value.boolValue();
    }

    EntityDescriptionRef readEntity(const Value& value, const std::string& place, ErrorRef* error) const
    {
        const Dictionary* entity = value.dictionary();
        if (entity == nullptr) {
            return fail(place, "expected an object", error);
        }
        if (!onlyKeys(*entity, place, {"name", "class", "attributes", "relationships"}, error)) {
            return nullptr;
        }
        const std::string* name = string(*entity, place, "name", error);
        if (name == nullptr) {
            return nullptr;
        }
        std::string className;
        if (entity->contains("class")) {
            const std::string* text = string(*entity, place, "class", error);
            if (text == nullptr) {
                return nullptr;
            }
            className = *text;
        }
        std::vector<AttributeDescriptionRef> attributes;
        if (const Value* list = entity->find("attributes")) {
            if (list->array() == nullptr) {
                return fail(place + ".attributes", "expected an array", error);
            }
            for (std::size_t index = 0; index < list->array()->size(); ++index) {
                auto attribute =
                    readAttribute((*list->array())[index], place + ".attributes[" + std::to_string(index) + "]", error);
                if (!attribute) {
                    return nullptr;
                }
                attributes.push_back(std::move(attribute));
            }
        }
        std::vector<RelationshipDescriptionRef> relationships;
        if (const Value* list = entity->find("relationships")) {
            if (list->array() == nullptr) {
                return fail(place + ".relationships", "expected an array", error);
            }
            for (std::size_t index = 0; index < list->array()->size(); ++index) {
                auto relationship = readRelationship((*list->array())[index],
                                                     place + ".relationships[" + std::to_string(index) + "]", error);
                if (!relationship) {
                    return nullptr;
                }
                relationships.push_back(std::move(relationship));
            }
        }
        return EntityDescription::create(*name, std::move(attributes), std::move(relationships), className);
    }

    AttributeDescriptionRef readAttribute(const Value& value, const std::string& place, ErrorRef* error) const
    {
        const Dictionary* attribute = value.dictionary();
        if (attribute == nullptr) {
            return fail(place, "expected an object", error);
        }
        if (!onlyKeys(*attribute, place, {"name", "type", "optional", "default", "indexed"}, error)) {
            return nullptr;
        }
        const std::string* name = string(*attribute, place, "name", error);
        const std::string* typeName = name ? string(*attribute, place, "type", error) : nullptr;
        if (typeName == nullptr) {
            return nullptr;
        }
        const auto type = attributeTypeNamed(*typeName);
        if (!type) {
            return fail(place + ".type", "unknown attribute type \"" + *typeName + "\"", error);
        }
        AttributeDescription::Options options;
        const auto optional = flag(*attribute, place, "optional", true, error);
        const auto indexed = optional ? flag(*attribute, place, "indexed", false, error) : std::nullopt;
        if (!indexed) {
            return nullptr;
        }
        options.optional = *optional;
        options.indexed = *indexed;
        if (const Value* defaultValue = attribute->find("default")) {
            auto converted = defaultFromJSON(*defaultValue, *type);
            if (!converted) {
                return fail(place + ".default", "not a value of the type " + *typeName, error);
            }
            options.defaultValue = std::move(*converted);
        }
        return AttributeDescription::create(*name, *type, std::move(options));
    }

    // Defaults as JSON can hold them: numbers, booleans and strings as they
    // are, dates as seconds since 1970. Binary attributes take no default.
    static std::optional<Value> defaultFromJSON(const Value& value, AttributeType type)
    {
        if (type == AttributeType::Date) {
            if (value.isNumber() && !value.isBoolean() && std::isfinite(*value.doubleValue())) {
                return Value(Date(*value.doubleValue()));
            }
            return std::nullopt;
        }
        if (type == AttributeType::Double && value.kind() == Value::Kind::Integer) {
            return Value(static_cast<double>(*value.integerValue()));
        }
        if (type == AttributeType::Boolean && !value.isBoolean()) {
            return std::nullopt;
        }
        if (type == AttributeType::Binary || !valueFitsAttributeType(value, type)) {
            return std::nullopt;
        }
        return value;
    }

    RelationshipDescriptionRef readRelationship(const Value& value, const std::string& place, ErrorRef* error) const
    {
        const Dictionary* relationship = value.dictionary();
        if (relationship == nullptr) {
            return fail(place, "expected an object", error);
        }
        if (!onlyKeys(*relationship, place,
                      {"name", "destination", "inverse", "toMany", "ordered", "optional", "deleteRule"}, error)) {
            return nullptr;
        }
        const std::string* name = string(*relationship, place, "name", error);
        const std::string* destination = name ? string(*relationship, place, "destination", error) : nullptr;
        if (destination == nullptr) {
            return nullptr;
        }
        RelationshipDescription::Options options;
        if (relationship->contains("inverse")) {
            const std::string* inverse = string(*relationship, place, "inverse", error);
            if (inverse == nullptr) {
                return nullptr;
            }
            options.inverse = *inverse;
        }
        const auto toMany = flag(*relationship, place, "toMany", false, error);
        const auto ordered = toMany ? flag(*relationship, place, "ordered", false, error) : std::nullopt;
        const auto optional = ordered ? flag(*relationship, place, "optional", true, error) : std::nullopt;
        if (!optional) {
            return nullptr;
        }
        if (*ordered && !*toMany) {
            return fail(place + ".ordered", "only a to-many relationship can be ordered", error);
        }
        options.toMany = *toMany;
        options.ordered = *ordered;
        options.optional = *optional;
        if (relationship->contains("deleteRule")) {
            const std::string* ruleName = string(*relationship, place, "deleteRule", error);
            if (ruleName == nullptr) {
                return nullptr;
            }
            const auto rule = deleteRuleNamed(*ruleName);
            if (!rule) {
                return fail(place + ".deleteRule", "unknown delete rule \"" + *ruleName + "\"", error);
            }
            options.deleteRule = *rule;
        }
        return RelationshipDescription::create(*name, *destination, std::move(options));
    }

    std::string_view source_;
};

// How deep the brackets of `text` nest, outside strings. A model nests five
// levels; text nested thousands deep is refused before the JSON reader, whose
// conversion into values recurses once per level, sees it.
std::size_t nestingDepth(std::string_view text)
{
    std::size_t depth = 0;
    std::size_t deepest = 0;
    bool inString = false;
    for (std::size_t index = 0; index < text.size(); ++index) {
        const char c = text[index];
        if (inString) {
            if (c == '\\') {
                ++index;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return deepest;
}

constexpr std::size_t kMaximumNesting = 32;

}  // namespace

ManagedObjectModelRef ManagedObjectModel::modelWithJSONText(std::string_view text, std::string_view sourceName,
                                                            ErrorRef* error)
{
    if (nestingDepth(text) > kMaximumNesting) {
        setError(error, objectgraph::makeError(NSFileReadCorruptFileError,
                                               "The model file " + std::string(sourceName) + " is not a valid model.",
                                               std::string(sourceName) + ": nested deeper than a model is."));
        return nullptr;
    }
    ErrorRef parseError;
    auto root = JSONSerialization::valueWithString(text, 0, &parseError);
    if (!root) {
        setError(error, objectgraph::makeError(
                            NSFileReadCorruptFileError,
                            "The model file " + std::string(sourceName) + " is not a valid model.",
                            std::string(sourceName) + ": " +
                                parseError->localizedFailureReason().value_or("Malformed JSON."),
                            parseError));
        return nullptr;
    }
    return ModelReader(sourceName).read(*root, error);
}

ManagedObjectModelRef ManagedObjectModel::modelWithContentsOfURL(const URL& url, ErrorRef* error)
{
    const std::string path = url.path();
    ErrorRef readError;
    auto contents = FileManager::contentsAtPath(path, kMaximumModelFileSize, &readError);
    if (!contents) {
        const bool missing = readError->domain() == NSPOSIXErrorDomain && readError->code() == ENOENT;
        const bool tooLarge = readError->domain() == NSPOSIXErrorDomain && readError->code() == EFBIG;
        setError(error, objectgraph::makeError(
                            missing ? NSFileReadNoSuchFileError : NSFileReadCorruptFileError,
                            missing ? "The model file " + path + " does not exist."
                                    : "The model file " + path + " could not be read.",
                            tooLarge ? path + ": larger than a model file can be." : std::string(), readError,
                            Dictionary{{NSStoreFilePathErrorKey, Value(path)}}));
        return nullptr;
    }
    const std::string text(contents->begin(), contents->end());
    return modelWithJSONText(text, path, error);
}

std::string ManagedObjectModel::JSONText() const
{
    Array entities;
    for (const auto& entity : entities_) {
        Dictionary entityObject;
        entityObject.set("name", entity->name());
        if (entity->managedObjectClassName() != entity->name()) {
            entityObject.set("class", entity->managedObjectClassName());
        }
        Array attributes;
        for (const auto& attribute : entity->attributes()) {
            Dictionary object;
            object.set("name", attribute->name());
            object.set("type", attributeTypeName(attribute->attributeType()));
            object.set("optional", attribute->isOptional());
            if (attribute->isIndexed()) {
                object.set("indexed", true);
            }
            if (const Value& defaultValue = attribute->defaultValue()) {
                if (const Date* date = defaultValue.date()) {
                    object.set("default", date->timeIntervalSince1970());
                } else {
                    object.set("default", defaultValue);
                }
            }
            attributes.push_back(Value(std::move(object)));
        }
        entityObject.set("attributes", Value(std::move(attributes)));
        Array relationships;
        for (const auto& relationship : entity->relationships()) {
            Dictionary object;
            object.set("name", relationship->name());
            object.set("destination", relationship->destinationEntityName());
            if (!relationship->inverseName().empty()) {
                object.set("inverse", relationship->inverseName());
            }
            object.set("toMany", relationship->isToMany());
            if (relationship->isOrdered()) {
                object.set("ordered", true);
            }
            object.set("optional", relationship->isOptional());
            object.set("deleteRule", deleteRuleName(relationship->deleteRule()));
            relationships.push_back(Value(std::move(object)));
        }
        entityObject.set("relationships", Value(std::move(relationships)));
        entities.push_back(Value(std::move(entityObject)));
    }
    Dictionary root;
    root.set("format", kFormatName);
    root.set("formatVersion", kFormatVersion);
    root.set("entities", Value(std::move(entities)));
    return JSONSerialization::stringWithValue(Value(std::move(root)), JSONSerialization::PrettyPrinted)
               .value_or(std::string()) +
           "\n";
}

bool ManagedObjectModel::writeToURL(const URL& url, ErrorRef* error) const
{
    const std::string text = JSONText();
    return FileManager::writeContentsAtomically(url.path(), Data(text.begin(), text.end()), error);
}

}  // namespace platform
