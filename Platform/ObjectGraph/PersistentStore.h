// PersistentStore: the interface between the coordinator and one store of
// objects (SQLite file, XML file, memory). Applications do not call it; they
// add stores through PersistentStoreCoordinator and work through contexts.
//
// What a store holds of an object is its snapshot: the attribute values and,
// for relationships, the IDs of the related objects, by property index
// (PropertyDescription::index):
//   attribute          the value, or nothing for nil
//   to-one             Value(ManagedObjectID) or nothing
//   to-many            Value(Array) of Value(ManagedObjectID); in order when
//                      the relationship is ordered, in no defined order else
// A store keeps both sides of a relationship consistent from what it is
// given: a save carries every changed object whole, both ends included.
//
// Threading. The coordinator calls a store from one thread at a time (it
// serialises every request on its own queue), so a store needs no lock of
// its own against the coordinator; it must not call back into the
// coordinator or any context. `load` happens-before every other call.
//
// Failures are reported through the error slot with the codes of
// ObjectGraphError.h; a store never raises for bad data from its file.
//
// Adding a store type: derive from PersistentStore, and register a factory
// under the type's name in `registerBuiltInStoreTypes`
// (PersistentStoreTypes.cpp), one line per type.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"
#include "Platform/ObjectGraph/ManagedObjectID.h"
#include "Platform/ObjectGraph/ManagedObjectModel.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class FetchRequest;

// Store types, with the platform's names.
inline constexpr std::string_view NSSQLiteStoreType = "SQLite";
inline constexpr std::string_view NSXMLStoreType = "XML";
inline constexpr std::string_view NSInMemoryStoreType = "InMemory";

// Metadata keys every store keeps and answers in `metadata()`.
inline constexpr std::string_view NSStoreTypeKey = "NSStoreType";
inline constexpr std::string_view NSStoreUUIDKey = "NSStoreUUID";
inline constexpr std::string_view NSStoreModelVersionHashKey = "NSStoreModelVersionHash";

// Options of addPersistentStore. SQLite: the busy time-out in seconds
// (default 5) while another process holds the write lock.
inline constexpr std::string_view NSSQLiteBusyTimeoutOption = "NSSQLiteBusyTimeoutOption";
// Read only: the store refuses saves.
inline constexpr std::string_view NSReadOnlyPersistentStoreOption = "NSReadOnlyPersistentStoreOption";

struct ObjectSnapshot {
    std::vector<Value> values;  // by property index; see the banner
    // How many saves have changed the object in the store; a save states the
    // version its changes were based on, and a store refuses an update or a
    // delete whose version is not the stored one (a merge conflict).
    std::int64_t version = 0;
};

// One save: everything in it is written in one transaction, or nothing is.
struct SaveChanges {
    struct Change {
        ManagedObjectIDRef objectID;  // permanent
        ObjectSnapshot snapshot;      // whole; for a delete, values empty
        // Updates and deletes: the version the change was based on (the
        // snapshot's version is ignored). Nothing: write without checking.
        std::optional<std::int64_t> basedOnVersion;
    };
    std::vector<Change> inserted;
    std::vector<Change> updated;
    std::vector<Change> deleted;

    bool empty() const { return inserted.empty() && updated.empty() && deleted.empty(); }
};

class PersistentStore : public Object {
public:
    // The arguments of PersistentStoreCoordinator::addPersistentStore.
    struct Configuration {
        ManagedObjectModelRef model;
        std::optional<URL> url;  // nothing for a store without a file
        Dictionary options;
    };
    using Factory = std::function<std::shared_ptr<PersistentStore>(Configuration configuration)>;

    // The store types the coordinator knows, by name; nothing for an unknown
    // one. Registration happens once, before the first look-up.
    static const Factory* factoryForType(std::string_view type);

    virtual std::string_view type() const = 0;
    const std::optional<platform::URL>& url() const { return configuration_.url; }
    const Dictionary& options() const { return configuration_.options; }
    const ManagedObjectModel& model() const { return *configuration_.model; }
    // The store's UUID, kept in the store's metadata so that it survives
    // restarts (a new one for each in-memory store); set by `load`. Shared by
    // every permanent ID of the store.
    const std::shared_ptr<const std::string>& identifier() const { return identifier_; }
    // NSStoreType, NSStoreUUID, NSStoreModelVersionHash and whatever else the
    // store keeps; valid after `load`.
    virtual Dictionary metadata() const;

    // Opens the store: a missing file is made (with its directory's parent
    // already there), an existing one read and checked. A file that is not a
    // store of this type is NSPersistentStoreTypeMismatchError ("file not a
    // store"); one made with a model of another version hash is
    // NSPersistentStoreIncompatibleVersionHashError. Called once.
    [[nodiscard]] virtual bool load(ErrorRef* error) = 0;

    // Writes one set of changes in one transaction. When an update or a
    // delete is based on a version that is not the stored one (or on an
    // object that is gone), nothing is written, the IDs of those objects are
    // put in `conflicts` and the result is false with NSManagedObjectMergeError.
    [[nodiscard]] virtual bool save(const SaveChanges& changes, std::vector<ManagedObjectIDRef>* conflicts,
                                    ErrorRef* error) = 0;

    // The IDs of the saved objects that match the request's entity and
    // predicate, sorted by its sort descriptors, with its offset and limit
    // applied. Ignores the result type and pending changes.
    [[nodiscard]] virtual std::optional<std::vector<ManagedObjectIDRef>> fetchObjectIDs(const FetchRequest& request,
                                                                                       ErrorRef* error) = 0;
    // How many saved objects match the entity and predicate (offset and
    // limit applied), without loading them.
    [[nodiscard]] virtual std::optional<std::size_t> count(const FetchRequest& request, ErrorRef* error) = 0;

    // The saved snapshot of one object: for a fault, a refresh, a merge.
    // An object that is not in the store is
    // NSManagedObjectReferentialIntegrityError (133000).
    [[nodiscard]] virtual std::optional<ObjectSnapshot> snapshotForObjectWithID(const ManagedObjectID& objectID,
                                                                                 ErrorRef* error) = 0;

    // `count` primary keys for new objects of `entity`, never given out
    // before (also not after a restart, nor to another process sharing the
    // file), though not necessarily consecutive.
    [[nodiscard]] virtual std::optional<std::vector<std::int64_t>> newPrimaryKeys(const EntityDescription& entity,
                                                                                 std::size_t count,
                                                                                 ErrorRef* error) = 0;

    // A permanent ID of this store.
    ManagedObjectIDRef objectIDFor(const EntityDescription& entity, std::int64_t primaryKey) const;

protected:
    explicit PersistentStore(Configuration configuration) : configuration_(std::move(configuration)) {}
    void setIdentifier(std::string identifier);
    // A new random store identifier: 32 upper-case hex digits.
    static std::string makeStoreIdentifier();

private:
    Configuration configuration_;
    std::shared_ptr<const std::string> identifier_;
    InternedStoreIdentifier internedIdentifier_;  // what this store's IDs point at
};

using PersistentStoreRef = std::shared_ptr<PersistentStore>;

namespace objectgraph {
// Registers the store types this library has, once; see the banner.
void registerBuiltInStoreTypes(const std::function<void(std::string_view, PersistentStore::Factory)>& add);
}  // namespace objectgraph

}  // namespace platform
