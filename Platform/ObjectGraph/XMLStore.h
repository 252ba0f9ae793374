// XMLStore: the whole object graph in one XML file (store type NSXMLStoreType).
//
// The file is read whole when the store is loaded and written whole, atomically
// (FileManager::writeContentsAtomically: temporary file, fsync, rename), on
// every save, so after a crash it holds the last saved graph. Fetches and
// counts evaluate predicates and sort descriptors in memory, with the rules of
// Platform/Predicates, so they answer as the SQLite store's SQL does.
//
// The file:
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <zarvo-object-graph format="1" uuid="6F0A...C1" model="<model version hash>">
//     <entity name="Employee" next-key="3">
//       <object pk="1" version="2">
//         <p n="name" t="string" v="Ada"/>
//         <p n="photo" t="binary" v="iVBORw0K..."/>           <!-- Base64 -->
//         <p n="department" t="ref" v="7"/>                  <!-- primary key -->
//         <p n="tags" t="refs" v="1 4 2"/>                   <!-- in order -->
//       </object>
//     </entity>
//   </zarvo-object-graph>
//
// A nil value has no <p>. Types are the model file's attribute type names;
// a string that XML cannot carry as it stands (control characters, invalid
// UTF-8) is written as "string64", Base64. Dates are seconds since 1970.
// Anything else (another root, another format, a property the model does not
// have, a value that does not parse, a reference to no object) makes the file
// "not a store": NSPersistentStoreTypeMismatchError, its failure reason naming
// the place. A file of another model version is
// NSPersistentStoreIncompatibleVersionHashError.
//
// Primary keys handed out by newPrimaryKeys are written with the next save;
// keys given out but never saved may be given out again after a restart. One
// process uses a file at a time: the store takes no lock against another.
//
// Threading: as every PersistentStore, called by its coordinator from one
// thread at a time.
#pragma once

#include "Platform/ObjectGraph/PersistentStore.h"

#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>

namespace platform {

class XMLStore final : public PersistentStore {
public:
    static std::shared_ptr<XMLStore> create(Configuration configuration);

    std::string_view type() const override { return NSXMLStoreType; }
    std::string className() const override { return "NSXMLStore"; }

    [[nodiscard]] bool load(ErrorRef* error) override;
    [[nodiscard]] bool save(const SaveChanges& changes, std::vector<ManagedObjectIDRef>* conflicts,
                            ErrorRef* error) override;
    [[nodiscard]] std::optional<std::vector<ManagedObjectIDRef>> fetchObjectIDs(const FetchRequest& request,
                                                                               ErrorRef* error = nullptr) override;
    [[nodiscard]] std::optional<std::size_t> count(const FetchRequest& request, ErrorRef* error = nullptr) override;
    [[nodiscard]] std::optional<ObjectSnapshot> snapshotForObjectWithID(const ManagedObjectID& objectID,
                                                                         ErrorRef* error = nullptr) override;
    [[nodiscard]] std::optional<std::vector<std::int64_t>> newPrimaryKeys(const EntityDescription& entity,
                                                                         std::size_t count,
                                                                         ErrorRef* error = nullptr) override;

    // What predicates see of a stored object; see XMLStore.cpp.
    class StoredObject;

private:
    explicit XMLStore(Configuration configuration) : PersistentStore(std::move(configuration)) {}

    struct EntityTable {
        std::map<std::int64_t, ObjectSnapshot> objects;  // by primary key
        std::int64_t nextKey = 1;
    };

    bool read(const Data& contents, ErrorRef* error);
    // The stored object that an ID, or an object with an "objectID", names
    // in this store; nothing when it names none.
    Value storedObject(const Value& idOrObject) const;
    std::string serialize() const;
    bool write(ErrorRef* error) const;
    // The matching primary keys of the request's entity, sorted, before offset and limit.
    std::optional<std::vector<std::int64_t>> matching(const FetchRequest& request, bool sorted, ErrorRef* error);

    std::unordered_map<const EntityDescription*, EntityTable> tables_;
    // Key-value coding of stored objects, per entity: getters by property index.
    std::unordered_map<const EntityDescription*, PropertyTable> propertyTables_;
    bool loaded_ = false;
};

}  // namespace platform
