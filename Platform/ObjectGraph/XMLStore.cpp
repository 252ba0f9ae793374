#include "Platform/ObjectGraph/XMLStore.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Unicode.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"

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

// An attribute's value from its type name and text as the file has them;
// nothing when they do not make a value of the attribute's type.
std::optional<Value> parseAttributeValue(AttributeType attributeType, std::string_view type, std::string_view text)
{
    if (attributeType == AttributeType::String && type == "string64") {
        auto bytes = fromBase64(text);
        return bytes ? std::optional<Value>(std::string(bytes->begin(), bytes->end())) : std::nullopt;
    }
    if (type != attributeTypeName(attributeType)) {
        return std::nullopt;
    }
    Value value;
    switch (attributeType) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64:
        if (auto number = parseInteger(text)) {
            value = *number;
        }
        break;
    case AttributeType::Double:
        if (auto number = parseDouble(text)) {
            value = *number;
        }
        break;
    case AttributeType::Date:
        if (auto number = parseDouble(text)) {
            value = Date(*number);
        }
        break;
    case AttributeType::Boolean:
        if (text == "true" || text == "false") {
            value = text == "true";
        }
        break;
    case AttributeType::String:
        value = std::string(text);
        break;
    case AttributeType::Binary:
        if (auto bytes = fromBase64(text)) {
            value = std::move(*bytes);
        }
        break;
    }
    if (value.isNothing() || !valueFitsAttributeType(value, attributeType)) {
        return std::nullopt;
    }
    return value;
}

struct PropertyText {
    std::string type;
    std::string text;
};

// The type name and text the file keeps for an attribute's value.
PropertyText formatAttributeValue(AttributeType attributeType, const Value& value)
{
    PropertyText written{std::string(attributeTypeName(attributeType)), {}};
    switch (attributeType) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64:
        written.text = std::to_string(value.integerValue().value_or(0));
        break;
    case AttributeType::Double:
        written.text = formatDouble(value.doubleValue().value_or(0));
        break;
    case AttributeType::Date:
        written.text = formatDouble(value.date() ? value.date()->timeIntervalSince1970() : 0);
        break;
    case AttributeType::Boolean:
        written.text = value.boolValue().value_or(false) ? "true" : "false";
        break;
    case AttributeType::String:
        written.text = value.string() ? *value.string() : value.description();
        if (!isPlainText(written.text)) {
            written = {"string64", base64(Data(written.text.begin(), written.text.end()))};
        }
        break;
    case AttributeType::Binary:
        written.text = value.data() ? base64(*value.data()) : std::string();
        break;
    }
    return written;
}

}  // namespace

// Reads a whole file into the store's rows. Any fault makes the file "not a
// store", with the place named; references are checked once every object is
// known, since an object may refer to one that comes later in the file.
class XMLStore::Reader {
public:
    Reader(XMLStore& store, ErrorRef* error) : store_(store), path_(store.url()->path()), error_(error) {}

    bool read(const Data& contents)
    {
        pugi::xml_document document;
        // Text is taken exactly as written: no end-of-line or white-space
        // conversion inside attribute values.
        const unsigned flags = pugi::parse_default & ~(pugi::parse_eol | pugi::parse_wconv_attribute);
        const auto parsed = document.load_buffer(contents.data(), contents.size(), flags, pugi::encoding_utf8);
        if (!parsed) {
            return notOurs(std::string("not XML (") + parsed.description() + " at byte " +
                           std::to_string(parsed.offset) + ")");
        }
        const auto root = document.document_element();
        if (!readGraphHeader(root)) {
            return false;
        }
        for (const auto& entityNode : root.children("entity")) {
            if (!readEntity(entityNode)) {
                return false;
            }
        }
        return checkReferences();
    }

private:
    struct PendingReference {
        std::string place;
        const RelationshipDescription* relationship;
        std::int64_t key;
    };

    bool notOurs(const std::string& why) const
    {
        setError(error_, objectgraph::makeError(NSPersistentStoreTypeMismatchError, "The file is not an XML store.",
                                                path_ + ": " + why, nullptr,
                                                Dictionary{{NSStoreFilePathErrorKey, path_}}));
        return false;
    }

    // The root: our format, the graph's identifier, the model's version.
    bool readGraphHeader(const pugi::xml_node& root)
    {
        if (std::string_view(root.name()) != kRootName ||
            std::string_view(root.attribute("format").value()) != kFormatVersion) {
            return notOurs("not an object graph of this format");
        }
        const std::string_view uuid = root.attribute("uuid").value();
        if (uuid.empty()) {
            return notOurs("the graph has no identifier");
        }
        if (std::string_view(root.attribute("model").value()) != store_.model().versionHash()) {
            setError(error_, objectgraph::makeError(NSPersistentStoreIncompatibleVersionHashError,
                                                    "The XML store was made with another model.",
                                                    "The model of " + path_ + " has another version hash.", nullptr,
                                                    Dictionary{{NSStoreFilePathErrorKey, path_}}));
            return false;
        }
        store_.setIdentifier(std::string(uuid));
        return true;
    }

    bool readEntity(const pugi::xml_node& entityNode)
    {
        const auto* entity = store_.model().entityNamed(entityNode.attribute("name").value());
        if (!entity) {
            return notOurs(std::string("unknown entity \"") + entityNode.attribute("name").value() + "\"");
        }
        const auto nextKey = parseInteger(entityNode.attribute("next-key").value());
        if (!nextKey) {
            return notOurs("entity " + entity->name() + " has no next key");
        }
        store_.setNextPrimaryKey(*entity, *nextKey);
        for (const auto& objectNode : entityNode.children("object")) {
            if (!readObject(*entity, objectNode)) {
                return false;
            }
        }
        return true;
    }

    bool readObject(const EntityDescription& entity, const pugi::xml_node& objectNode)
    {
        const auto key = parseInteger(objectNode.attribute("pk").value());
        const auto version = parseInteger(objectNode.attribute("version").value());
        if (!key || !version) {
            return notOurs("an object of " + entity.name() + " without key or version");
        }
        const std::string place = entity.name() + " " + std::to_string(*key);
        ObjectSnapshot snapshot;
        snapshot.version = *version;
        snapshot.values.resize(entity.properties().size());
        for (const auto& propertyNode : objectNode.children("p")) {
            if (!readProperty(entity, propertyNode, place, snapshot)) {
                return false;
            }
        }
        // A to-many without a <p> is empty, not nil.
        for (const auto& relationship : entity.relationships()) {
            if (relationship->isToMany() && snapshot.values[relationship->index()].isNothing()) {
                snapshot.values[relationship->index()] = Array();
            }
        }
        if (store_.rowsOfEntity(entity).count(*key) != 0) {
            return notOurs(place + " appears twice");
        }
        store_.addRow(entity, *key, std::move(snapshot));
        return true;
    }

    bool readProperty(const EntityDescription& entity, const pugi::xml_node& propertyNode, const std::string& place,
                      ObjectSnapshot& snapshot)
    {
        const auto* property = entity.propertyNamed(propertyNode.attribute("n").value());
        if (!property) {
            return notOurs(place + ": unknown property \"" + propertyNode.attribute("n").value() + "\"");
        }
        const std::string_view type = propertyNode.attribute("t").value();
        const std::string_view text = propertyNode.attribute("v").value();
        std::optional<Value> value;
        if (const auto* relationship = dynamic_cast<const RelationshipDescription*>(property)) {
            value = readReferences(*relationship, type, text, place);
        } else {
            value = parseAttributeValue(static_cast<const AttributeDescription*>(property)->attributeType(), type, text);
        }
        if (!value) {
            return notOurs(place + ": bad value of " + property->name());
        }
        snapshot.values[property->index()] = std::move(*value);
        return true;
    }

    // "ref" is one primary key, "refs" several in order; each is remembered
    // for checkReferences.
    std::optional<Value> readReferences(const RelationshipDescription& relationship, std::string_view type,
                                        std::string_view text, const std::string& place)
    {
        if (type != (relationship.isToMany() ? "refs" : "ref")) {
            return std::nullopt;
        }
        Array ids;
        std::istringstream keys{std::string(text)};
        std::string word;
        while (keys >> word) {
            const auto target = parseInteger(word);
            if (!target) {
                return std::nullopt;
            }
            references_.push_back({place, &relationship, *target});
            ids.push_back(idValue(store_.objectIDFor(relationship.destinationEntity(), *target)));
        }
        if (relationship.isToMany()) {
            return Value(std::move(ids));
        }
        if (ids.size() == 1) {
            return ids.front();
        }
        return std::nullopt;
    }

    bool checkReferences() const
    {
        for (const auto& reference : references_) {
            if (store_.rowsOfEntity(reference.relationship->destinationEntity()).count(reference.key) == 0) {
                return notOurs(reference.place + ": " + reference.relationship->name() + " refers to no object");
            }
        }
        return true;
    }

    XMLStore& store_;
    const std::string path_;
    ErrorRef* error_;
    std::vector<PendingReference> references_;
};

// Writes the store's rows as a whole file, in model order and by primary key,
// so that the file does not change between saves that change nothing.
class XMLStore::Writer {
public:
    explicit Writer(const XMLStore& store) : store_(store) {}

    std::string text() const
    {
        pugi::xml_document document;
        auto declaration = document.append_child(pugi::node_declaration);
        declaration.append_attribute("version") = "1.0";
        declaration.append_attribute("encoding") = "UTF-8";
        auto root = document.append_child(std::string(kRootName).c_str());
        root.append_attribute("format") = std::string(kFormatVersion).c_str();
        root.append_attribute("uuid") = store_.identifier() ? store_.identifier()->c_str() : "";
        root.append_attribute("model") = store_.model().versionHash().c_str();
        for (const auto& entity : store_.model().entities()) {
            writeEntity(*entity, root.append_child("entity"));
        }
        std::ostringstream stream;
        document.save(stream, "  ", pugi::format_default, pugi::encoding_utf8);
        return stream.str();
    }

private:
    void writeEntity(const EntityDescription& entity, pugi::xml_node entityNode) const
    {
        entityNode.append_attribute("name") = entity.name().c_str();
        // The next key is written so that keys handed out before this save
        // are not handed out again after a restart.
        entityNode.append_attribute("next-key") = std::to_string(store_.nextPrimaryKey(entity)).c_str();
        for (const auto& [key, row] : store_.rowsOfEntity(entity)) {
            auto objectNode = entityNode.append_child("object");
            objectNode.append_attribute("pk") = std::to_string(key).c_str();
            objectNode.append_attribute("version") = std::to_string(row->snapshot().version).c_str();
            writeProperties(entity, row->snapshot(), objectNode);
        }
    }

    // A nil value, and a relationship that refers to nothing left, has no <p>.
    void writeProperties(const EntityDescription& entity, const ObjectSnapshot& snapshot, pugi::xml_node objectNode) const
    {
        for (const auto* property : entity.properties()) {
            const Value value = property->index() < snapshot.values.size() ? snapshot.values[property->index()] : Value();
            if (value.isNothing() || value.isNull()) {
                continue;
            }
            PropertyText written;
            if (const auto* relationship = dynamic_cast<const RelationshipDescription*>(property)) {
                written = {relationship->isToMany() ? "refs" : "ref", references(*relationship, value)};
                if (written.text.empty()) {
                    continue;
                }
            } else {
                written = formatAttributeValue(static_cast<const AttributeDescription*>(property)->attributeType(),
                                               value);
            }
            auto propertyNode = objectNode.append_child("p");
            propertyNode.append_attribute("n") = property->name().c_str();
            propertyNode.append_attribute("t") = written.type.c_str();
            propertyNode.append_attribute("v") = written.text.c_str();
        }
    }

    // The primary keys a relationship's value names, space-separated. A
    // reference to an object that is gone (its delete came without the change
    // of this side) is left out, so that the file never refers to nothing.
    std::string references(const RelationshipDescription& relationship, const Value& value) const
    {
        const auto& targets = store_.rowsOfEntity(relationship.destinationEntity());
        std::string text;
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
        return text;
    }

    const XMLStore& store_;
};

std::shared_ptr<XMLStore> XMLStore::create(Configuration configuration)
{
    return makeObject<XMLStore>(std::move(configuration));
}

bool XMLStore::readContents(ErrorRef* error)
{
    if (!url() || !url()->isFileURL()) {
        setError(error, objectgraph::makeError(NSPersistentStoreOpenError, "An XML store needs a file URL."));
        return false;
    }
    const std::string path = url()->path();
    if (!FileManager::fileExistsAtPath(path)) {
        // A new store's file is made at once, so that a store never saved
        // opens again as the same store.
        setIdentifier(makeStoreIdentifier());
        return writeContents(error);
    }
    ErrorRef underlying;
    const auto contents = FileManager::contentsAtPath(path, kMaximumFileSize, &underlying);
    if (!contents) {
        setError(error, objectgraph::makeError(NSPersistentStoreOpenError, "The XML store could not be read.",
                                               "The file " + path + " could not be read.", underlying));
        return false;
    }
    return Reader(*this, error).read(*contents);
}

bool XMLStore::writeContents(ErrorRef* error)
{
    const std::string text = Writer(*this).text();
    ErrorRef underlying;
    if (!FileManager::writeContentsAtomically(url()->path(), Data(text.begin(), text.end()), &underlying)) {
        setError(error, objectgraph::makeError(NSPersistentStoreSaveError, "The XML store could not be written.",
                                               "The file " + url()->path() + " could not be replaced.", underlying));
        return false;
    }
    return true;
}

}  // namespace platform
