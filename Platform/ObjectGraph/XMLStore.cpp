#include "Platform/ObjectGraph/XMLStore.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/Unicode.h"
#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "Platform/Predicates/Predicate.h"
#include "Platform/Predicates/SortDescriptor.h"

#include <pugixml.hpp>
#include <sodium.h>

#include <algorithm>
#include <charconv>
#include <sstream>

namespace platform {

namespace {

constexpr std::string_view kRootName = "zarvo-object-graph";
constexpr std::string_view kFormatVersion = "1";
// A graph file larger than this is refused rather than read into memory.
constexpr std::size_t kMaximumFileSize = std::size_t(1) << 30;

std::string base64(const Data& data)
{
    std::string text(sodium_base64_ENCODED_LEN(data.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
    sodium_bin2base64(text.data(), text.size(), data.data(), data.size(), sodium_base64_VARIANT_ORIGINAL);
    text.resize(text.size() - 1);  // the terminating NUL
    return text;
}

std::optional<Data> fromBase64(std::string_view text)
{
    Data data(text.size() / 4 * 3 + 3);
    std::size_t length = 0;
    if (sodium_base642bin(data.data(), data.size(), text.data(), text.size(), nullptr, &length, nullptr,
                          sodium_base64_VARIANT_ORIGINAL) != 0) {
        return std::nullopt;
    }
    data.resize(length);
    return data;
}

// Whether XML carries the text unchanged in an attribute value.
bool isPlainText(std::string_view text)
{
    return isValidUTF8(text) && std::none_of(text.begin(), text.end(), [](char c) {
               return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
           });
}

std::optional<std::int64_t> parseInteger(std::string_view text)
{
    std::int64_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec != std::errc{} || result.ptr != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::optional<double> parseDouble(std::string_view text)
{
    double value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec != std::errc{} || result.ptr != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::string formatDouble(double value)
{
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

Value idValue(const ManagedObjectIDRef& id)
{
    return Value(std::const_pointer_cast<ManagedObjectID>(id));
}

}  // namespace

// A stored object as predicates and sort descriptors see it: its properties
// by name through key-value coding, relationships as further stored objects.
// Lives only during one fetch: it points into the store's tables.
class XMLStore::StoredObject final : public Object {
public:
    StoredObject(const XMLStore& store, const EntityDescription& entity, std::int64_t primaryKey,
                 const ObjectSnapshot& snapshot)
        : store_(&store), entity_(&entity), primaryKey_(primaryKey), snapshot_(&snapshot)
    {
    }

    const PropertyTable& propertyTable() const override { return store_->propertyTables_.at(entity_); }

    // Equal to the same stored object, and to its permanent ID.
    bool isEqual(const Object& other) const override
    {
        if (const auto* stored = dynamic_cast<const StoredObject*>(&other)) {
            return stored->entity_ == entity_ && stored->primaryKey_ == primaryKey_;
        }
        if (const auto* id = dynamic_cast<const ManagedObjectID*>(&other)) {
            return !id->isTemporaryID() && &id->entity() == entity_ && id->primaryKey() == primaryKey_ &&
                store_->identifier() && id->storeIdentifier() == *store_->identifier();
        }
        return false;
    }

    std::int64_t primaryKey() const { return primaryKey_; }

    Value valueAt(std::size_t index) const
    {
        const Value& value = snapshot_->values.at(index);
        const auto* property = entity_->properties().at(index);
        if (!property->isRelationship()) {
            return value;
        }
        if (const auto* ids = value.array()) {
            Array objects;
            objects.reserve(ids->size());
            for (const auto& id : *ids) {
                if (Value object = store_->storedObject(id); !object.isNothing()) {
                    objects.push_back(std::move(object));
                }
            }
            return objects;
        }
        return store_->storedObject(value);
    }

private:
    const XMLStore* store_;
    const EntityDescription* entity_;
    std::int64_t primaryKey_;
    const ObjectSnapshot* snapshot_;
};

std::shared_ptr<XMLStore> XMLStore::create(Configuration configuration)
{
    return std::shared_ptr<XMLStore>(new XMLStore(std::move(configuration)));
}

Value XMLStore::storedObject(const Value& idOrObject) const
{
    auto object = idOrObject.object();
    if (!object) {
        return {};
    }
    auto id = std::dynamic_pointer_cast<ManagedObjectID>(object);
    if (!id && object->propertyTable().find("objectID")) {
        id = object->valueForKey("objectID").objectAs<ManagedObjectID>();
    }
    if (!id || id->isTemporaryID() || !identifier() || id->storeIdentifier() != *identifier()) {
        return {};
    }
    const auto table = tables_.find(&id->entity());
    if (table == tables_.end()) {
        return {};
    }
    const auto found = table->second.objects.find(id->primaryKey());
    if (found == table->second.objects.end()) {
        return {};
    }
    return Value(std::make_shared<StoredObject>(*this, id->entity(), found->first, found->second));
}

bool XMLStore::load(ErrorRef* error)
{
    for (const auto& entity : model().entities()) {
        tables_[entity.get()];
        PropertyTable table = Object::propertyTable();
        for (const auto* property : entity->properties()) {
            const std::size_t index = property->index();
            table = PropertyTable::extending<StoredObject>(
                table, {{property->name(), [index](const StoredObject& object) { return object.valueAt(index); }}});
        }
        propertyTables_.emplace(entity.get(), std::move(table));
    }
    if (!url() || !url()->isFileURL()) {
        setError(error, objectgraph::makeError(NSPersistentStoreOpenError, "An XML store needs a file URL."));
        return false;
    }
    const std::string path = url()->path();
    if (!FileManager::fileExistsAtPath(path)) {
        setIdentifier(makeStoreIdentifier());
        if (!write(error)) {
            return false;
        }
        loaded_ = true;
        return true;
    }
    ErrorRef underlying;
    const auto contents = FileManager::contentsAtPath(path, kMaximumFileSize, &underlying);
    if (!contents) {
        setError(error, objectgraph::makeError(NSPersistentStoreOpenError, "The XML store could not be read.",
                                               "The file " + path + " could not be read.", underlying));
        return false;
    }
    if (!read(*contents, error)) {
        return false;
    }
    loaded_ = true;
    return true;
}

bool XMLStore::read(const Data& contents, ErrorRef* error)
{
    const std::string path = url()->path();
    const auto notOurs = [&](const std::string& why) {
        setError(error, objectgraph::makeError(NSPersistentStoreTypeMismatchError, "The file is not an XML store.",
                                               path + ": " + why, nullptr,
                                               Dictionary{{NSStoreFilePathErrorKey, path}}));
        return false;
    };
    pugi::xml_document document;
    // Text is taken exactly as written: no end-of-line or white-space
    // conversion inside attribute values.
    const unsigned flags = pugi::parse_default & ~(pugi::parse_eol | pugi::parse_wconv_attribute);
    const auto parsed = document.load_buffer(contents.data(), contents.size(), flags, pugi::encoding_utf8);
    if (!parsed) {
        return notOurs(std::string("not XML (") + parsed.description() + " at byte " + std::to_string(parsed.offset) +
                       ")");
    }
    const auto root = document.document_element();
    if (std::string_view(root.name()) != kRootName || std::string_view(root.attribute("format").value()) != kFormatVersion) {
        return notOurs("not an object graph of this format");
    }
    const std::string_view uuid = root.attribute("uuid").value();
    if (uuid.empty()) {
        return notOurs("the graph has no identifier");
    }
    if (std::string_view(root.attribute("model").value()) != model().versionHash()) {
        setError(error, objectgraph::makeError(NSPersistentStoreIncompatibleVersionHashError,
                                               "The XML store was made with another model.",
                                               "The model of " + path + " has another version hash.", nullptr,
                                               Dictionary{{NSStoreFilePathErrorKey, path}}));
        return false;
    }
    setIdentifier(std::string(uuid));

    // References are checked once every object is known.
    struct PendingReference {
        std::string place;
        const RelationshipDescription* relationship;
        std::int64_t key;
    };
    std::vector<PendingReference> references;
    for (const auto& entityNode : root.children("entity")) {
        const auto* entity = model().entityNamed(entityNode.attribute("name").value());
        if (!entity) {
            return notOurs(std::string("unknown entity \"") + entityNode.attribute("name").value() + "\"");
        }
        auto& table = tables_[entity];
        const auto nextKey = parseInteger(entityNode.attribute("next-key").value());
        if (!nextKey) {
            return notOurs("entity " + entity->name() + " has no next key");
        }
        table.nextKey = *nextKey;
        for (const auto& objectNode : entityNode.children("object")) {
            const auto key = parseInteger(objectNode.attribute("pk").value());
            const auto version = parseInteger(objectNode.attribute("version").value());
            if (!key || !version) {
                return notOurs("an object of " + entity->name() + " without key or version");
            }
            const std::string place = entity->name() + " " + std::to_string(*key);
            ObjectSnapshot snapshot;
            snapshot.version = *version;
            snapshot.values.resize(entity->properties().size());
            for (const auto& propertyNode : objectNode.children("p")) {
                const auto* property = entity->propertyNamed(propertyNode.attribute("n").value());
                if (!property) {
                    return notOurs(place + ": unknown property \"" + propertyNode.attribute("n").value() + "\"");
                }
                const std::string_view type = propertyNode.attribute("t").value();
                const std::string_view text = propertyNode.attribute("v").value();
                Value& slot = snapshot.values[property->index()];
                const auto bad = [&] { return notOurs(place + ": bad value of " + property->name()); };
                if (const auto* relationship = dynamic_cast<const RelationshipDescription*>(property)) {
                    if (type != (relationship->isToMany() ? "refs" : "ref")) {
                        return bad();
                    }
                    Array ids;
                    std::istringstream keys{std::string(text)};
                    std::string word;
                    while (keys >> word) {
                        const auto target = parseInteger(word);
                        if (!target) {
                            return bad();
                        }
                        references.push_back({place, relationship, *target});
                        ids.push_back(idValue(objectIDFor(relationship->destinationEntity(), *target)));
                    }
                    if (relationship->isToMany()) {
                        slot = std::move(ids);
                    } else if (ids.size() == 1) {
                        slot = ids.front();
                    } else {
                        return bad();
                    }
                    continue;
                }
                const auto attributeType = static_cast<const AttributeDescription*>(property)->attributeType();
                if (attributeType == AttributeType::String && type == "string64") {
                    auto bytes = fromBase64(text);
                    if (!bytes) {
                        return bad();
                    }
                    slot = std::string(bytes->begin(), bytes->end());
                    continue;
                }
                if (type != attributeTypeName(attributeType)) {
                    return bad();
                }
                switch (attributeType) {
                case AttributeType::Integer16:
                case AttributeType::Integer32:
                case AttributeType::Integer64:
                    if (auto number = parseInteger(text)) {
                        slot = *number;
                    }
                    break;
                case AttributeType::Double:
                    if (auto number = parseDouble(text)) {
                        slot = *number;
                    }
                    break;
                case AttributeType::Date:
                    if (auto number = parseDouble(text)) {
                        slot = Date(*number);
                    }
                    break;
                case AttributeType::Boolean:
                    if (text == "true" || text == "false") {
                        slot = text == "true";
                    }
                    break;
                case AttributeType::String:
                    slot = std::string(text);
                    break;
                case AttributeType::Binary:
                    if (auto bytes = fromBase64(text)) {
                        slot = std::move(*bytes);
                    }
                    break;
                }
                if (slot.isNothing() || !valueFitsAttributeType(slot, attributeType)) {
                    return bad();
                }
            }
            for (const auto& relationship : entity->relationships()) {
                if (relationship->isToMany() && snapshot.values[relationship->index()].isNothing()) {
                    snapshot.values[relationship->index()] = Array();
                }
            }
            if (!table.objects.emplace(*key, std::move(snapshot)).second) {
                return notOurs(place + " appears twice");
            }
            table.nextKey = std::max(table.nextKey, *key + 1);
        }
    }
    for (const auto& reference : references) {
        const auto& objects = tables_[&reference.relationship->destinationEntity()].objects;
        if (!objects.count(reference.key)) {
            return notOurs(reference.place + ": " + reference.relationship->name() + " refers to no object");
        }
    }
    return true;
}

std::string XMLStore::serialize() const
{
    pugi::xml_document document;
    auto declaration = document.append_child(pugi::node_declaration);
    declaration.append_attribute("version") = "1.0";
    declaration.append_attribute("encoding") = "UTF-8";
    auto root = document.append_child(std::string(kRootName).c_str());
    root.append_attribute("format") = std::string(kFormatVersion).c_str();
    root.append_attribute("uuid") = identifier() ? identifier()->c_str() : "";
    root.append_attribute("model") = model().versionHash().c_str();
    // In model order, so that the file does not change between saves that
    // change nothing.
    for (const auto& entity : model().entities()) {
        const auto found = tables_.find(entity.get());
        if (found == tables_.end()) {
            continue;
        }
        auto entityNode = root.append_child("entity");
        entityNode.append_attribute("name") = entity->name().c_str();
        entityNode.append_attribute("next-key") = std::to_string(found->second.nextKey).c_str();
        for (const auto& [key, snapshot] : found->second.objects) {
            auto objectNode = entityNode.append_child("object");
            objectNode.append_attribute("pk") = std::to_string(key).c_str();
            objectNode.append_attribute("version") = std::to_string(snapshot.version).c_str();
            for (const auto* property : entity->properties()) {
                const Value& value = snapshot.values.at(property->index());
                if (value.isNothing() || value.isNull()) {
                    continue;
                }
                std::string type;
                std::string text;
                if (const auto* relationship = dynamic_cast<const RelationshipDescription*>(property)) {
                    type = relationship->isToMany() ? "refs" : "ref";
                    // A reference to an object that is gone (its delete came
                    // without the change of this side) is left out, so that
                    // the file never refers to nothing.
                    const auto& targets = tables_.at(&relationship->destinationEntity()).objects;
                    const auto appendKey = [&](const Value& idValue) {
                        if (auto id = idValue.objectAs<ManagedObjectID>(); id && targets.count(id->primaryKey())) {
                            text += (text.empty() ? "" : " ") + std::to_string(id->primaryKey());
                        }
                    };
                    if (const auto* ids = value.array()) {
                        std::for_each(ids->begin(), ids->end(), appendKey);
                    } else {
                        appendKey(value);
                    }
                    if (text.empty()) {
                        continue;
                    }
                } else {
                    const auto attributeType = static_cast<const AttributeDescription*>(property)->attributeType();
                    type = attributeTypeName(attributeType);
                    switch (attributeType) {
                    case AttributeType::Integer16:
                    case AttributeType::Integer32:
                    case AttributeType::Integer64:
                        text = std::to_string(value.integerValue().value_or(0));
                        break;
                    case AttributeType::Double:
                        text = formatDouble(value.doubleValue().value_or(0));
                        break;
                    case AttributeType::Date:
                        text = formatDouble(value.date() ? value.date()->timeIntervalSince1970() : 0);
                        break;
                    case AttributeType::Boolean:
                        text = value.boolValue().value_or(false) ? "true" : "false";
                        break;
                    case AttributeType::String:
                        text = value.string() ? *value.string() : value.description();
                        if (!isPlainText(text)) {
                            type = "string64";
                            text = base64(Data(text.begin(), text.end()));
                        }
                        break;
                    case AttributeType::Binary:
                        text = value.data() ? base64(*value.data()) : std::string();
                        break;
                    }
                }
                auto propertyNode = objectNode.append_child("p");
                propertyNode.append_attribute("n") = property->name().c_str();
                propertyNode.append_attribute("t") = type.c_str();
                propertyNode.append_attribute("v") = text.c_str();
            }
        }
    }
    std::ostringstream stream;
    document.save(stream, "  ", pugi::format_default, pugi::encoding_utf8);
    return stream.str();
}

bool XMLStore::write(ErrorRef* error) const
{
    const std::string text = serialize();
    ErrorRef underlying;
    if (!FileManager::writeContentsAtomically(url()->path(), Data(text.begin(), text.end()), &underlying)) {
        setError(error, objectgraph::makeError(NSPersistentStoreSaveError, "The XML store could not be written.",
                                               "The file " + url()->path() + " could not be replaced.", underlying));
        return false;
    }
    return true;
}

bool XMLStore::save(const SaveChanges& changes, std::vector<ManagedObjectIDRef>* conflicts, ErrorRef* error)
{
    if (!loaded_) {
        setError(error, objectgraph::makeError(NSPersistentStoreOperationError, "The XML store is not loaded."));
        return false;
    }
    if (const auto* readOnly = options().find(NSReadOnlyPersistentStoreOption);
        readOnly && readOnly->boolValue().value_or(false)) {
        setError(error, objectgraph::makeError(NSPersistentStoreSaveError, "The XML store is read-only."));
        return false;
    }
    const auto stored = [&](const ManagedObjectIDRef& id) -> ObjectSnapshot* {
        auto& objects = tables_[&id->entity()].objects;
        const auto found = objects.find(id->primaryKey());
        return found == objects.end() ? nullptr : &found->second;
    };
    // Every conflict is found before anything changes.
    std::vector<ManagedObjectIDRef> found;
    for (const auto* list : {&changes.updated, &changes.deleted}) {
        for (const auto& change : *list) {
            if (!change.basedOnVersion) {
                continue;
            }
            const auto* current = stored(change.objectID);
            if (!current || current->version != *change.basedOnVersion) {
                found.push_back(change.objectID);
            }
        }
    }
    if (!found.empty()) {
        if (conflicts) {
            *conflicts = found;
        }
        setError(error, objectgraph::makeError(NSManagedObjectMergeError,
                                               "The save met newer changes in the XML store."));
        return false;
    }
    for (const auto* list : {&changes.inserted, &changes.updated}) {
        for (const auto& change : *list) {
            if (change.objectID->isTemporaryID() ||
                change.snapshot.values.size() != change.objectID->entity().properties().size()) {
                setError(error, objectgraph::makeError(NSCoreDataError, "A change to save is not complete."));
                return false;
            }
        }
    }

    // Applied in memory with a record of what was there, so that a failed
    // write leaves the store as it was.
    std::vector<std::pair<ManagedObjectIDRef, std::optional<ObjectSnapshot>>> previous;
    const auto remember = [&](const ManagedObjectIDRef& id) {
        const auto* current = stored(id);
        previous.emplace_back(id, current ? std::optional(*current) : std::nullopt);
    };
    for (const auto* list : {&changes.inserted, &changes.updated}) {
        for (const auto& change : *list) {
            remember(change.objectID);
            auto& table = tables_[&change.objectID->entity()];
            auto& slot = table.objects[change.objectID->primaryKey()];
            const std::int64_t version = slot.values.empty() ? 1 : slot.version + 1;
            slot = change.snapshot;
            slot.version = version;
            table.nextKey = std::max(table.nextKey, change.objectID->primaryKey() + 1);
        }
    }
    for (const auto& change : changes.deleted) {
        remember(change.objectID);
        tables_[&change.objectID->entity()].objects.erase(change.objectID->primaryKey());
    }
    if (write(error)) {
        return true;
    }
    for (auto undo = previous.rbegin(); undo != previous.rend(); ++undo) {
        auto& objects = tables_[&undo->first->entity()].objects;
        if (undo->second) {
            objects[undo->first->primaryKey()] = *undo->second;
        } else {
            objects.erase(undo->first->primaryKey());
        }
    }
    return false;
}

std::optional<std::vector<std::int64_t>> XMLStore::matching(const FetchRequest& request, bool sorted, ErrorRef* error)
{
    const auto* entity = model().entityNamed(request.entityName());
    if (!loaded_ || !entity) {
        setError(error, objectgraph::makeError(NSPersistentStoreOperationError,
                                               loaded_ ? "The model has no entity " + request.entityName() + "."
                                                       : "The XML store is not loaded."));
        return std::nullopt;
    }
    const auto& objects = tables_[entity].objects;
    try {
        // Objects the predicate names become stored objects, so that they
        // compare equal to what key paths reach, on either side.
        PredicateRef predicate;
        if (request.predicate()) {
            predicate = predicateByReplacingConstants(request.predicate(), [&](const Value& value) {
                if (!value.object()) {
                    return value;
                }
                Value object = storedObject(value);
                return object.isNothing() ? value : object;
            });
        }
        Array matches;
        for (const auto& [key, snapshot] : objects) {
            Value object(std::make_shared<StoredObject>(*this, *entity, key, snapshot));
            if (!predicate || predicate->evaluateWithObject(object)) {
                matches.push_back(std::move(object));
            }
        }
        if (sorted && !request.sortDescriptors().empty()) {
            matches = SortDescriptor::sortedArray(matches, request.sortDescriptors());
        }
        std::vector<std::int64_t> keys;
        keys.reserve(matches.size());
        for (const auto& match : matches) {
            keys.push_back(match.objectAs<StoredObject>()->primaryKey());
        }
        return keys;
    } catch (const Exception& exception) {
        setError(error, objectgraph::makeError(NSPersistentStoreOperationError,
                                               "The fetch request cannot be evaluated.", exception.reason()));
        return std::nullopt;
    }
}

std::optional<std::vector<ManagedObjectIDRef>> XMLStore::fetchObjectIDs(const FetchRequest& request, ErrorRef* error)
{
    const auto keys = matching(request, true, error);
    if (!keys) {
        return std::nullopt;
    }
    const auto* entity = model().entityNamed(request.entityName());
    std::vector<ManagedObjectIDRef> ids;
    const std::size_t first = std::min(request.fetchOffset(), keys->size());
    std::size_t last = keys->size();
    if (request.fetchLimit() != 0) {
        last = std::min(last, first + request.fetchLimit());
    }
    for (std::size_t index = first; index < last; ++index) {
        ids.push_back(objectIDFor(*entity, (*keys)[index]));
    }
    return ids;
}

std::optional<std::size_t> XMLStore::count(const FetchRequest& request, ErrorRef* error)
{
    const auto keys = matching(request, false, error);
    if (!keys) {
        return std::nullopt;
    }
    std::size_t count = keys->size() - std::min(request.fetchOffset(), keys->size());
    if (request.fetchLimit() != 0) {
        count = std::min(count, request.fetchLimit());
    }
    return count;
}

std::optional<ObjectSnapshot> XMLStore::snapshotForObjectWithID(const ManagedObjectID& objectID, ErrorRef* error)
{
    if (!objectID.isTemporaryID() && identifier() && objectID.storeIdentifier() == *identifier()) {
        const auto table = tables_.find(&objectID.entity());
        if (table != tables_.end()) {
            const auto found = table->second.objects.find(objectID.primaryKey());
            if (found != table->second.objects.end()) {
                return found->second;
            }
        }
    }
    setError(error, objectgraph::makeError(NSManagedObjectReferentialIntegrityError,
                                           "The object is not in the XML store.", objectID.description()));
    return std::nullopt;
}

std::optional<std::vector<std::int64_t>> XMLStore::newPrimaryKeys(const EntityDescription& entity, std::size_t count,
                                                                 ErrorRef* error)
{
    const auto table = tables_.find(&entity);
    if (!loaded_ || table == tables_.end()) {
        setError(error, objectgraph::makeError(NSPersistentStoreOperationError,
                                               "The XML store has no table for the entity."));
        return std::nullopt;
    }
    std::vector<std::int64_t> keys(count);
    for (auto& key : keys) {
        key = table->second.nextKey++;
    }
    return keys;
}

}  // namespace platform
