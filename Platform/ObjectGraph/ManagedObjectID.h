// ManagedObjectID: the identity of one object of the graph, across contexts
// and, once permanent, across runs of the program.
//
// A new object gets a temporary ID; saving it (or obtaining permanent IDs
// early) gives it a permanent one, made of the store's identifier, the
// entity and the primary key the store assigned. The URI form of a permanent
// ID reads
//
//   x-zarvo-object://6F0A...C1/Person/p42
//
// and the coordinator turns it back into an ID after a restart
// (PersistentStoreCoordinator::managedObjectIDForURIRepresentation). A
// temporary ID's URI ("x-zarvo-object:///Person/t<process>-<n>") names no
// store and means nothing to another process.
//
// IDs are immutable and may be used from any thread; they compare equal by
// entity, store and key (a temporary ID only to itself, however copied). An
// ID refers to its entity, so it is valid while its model lives.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace platform {

class EntityDescription;
class ManagedObjectID;

// What an ID's equality and hash look at, as a small value: the registration
// table of a context and a fault's own ID (kept in parts until someone asks
// for the ID object) compare these without an ID object. `store` is null for
// a temporary ID; stores compare by address, as their identifiers are
// interned (InternedStoreIdentifier).
struct ManagedObjectIDKey {
    const EntityDescription* entity = nullptr;
    const std::string* store = nullptr;
    std::int64_t primaryKey = 0;
    bool temporary = false;

    std::size_t hash() const;
    friend bool operator==(const ManagedObjectIDKey& left, const ManagedObjectIDKey& right);
};
// Immutable, so shared without const (values and collections hold it so).
using ManagedObjectIDRef = std::shared_ptr<ManagedObjectID>;

// The one copy of a store identifier's text that IDs point at, kept for the
// rest of the process (a process sees a few stores, 32 digits each), so that
// equal stores are one address: an ID spends 8 bytes on its store rather
// than a shared_ptr's 16, and so does a fault. Interning takes a lock, so a
// store interns its identifier once, when it is set, not once per ID.
class InternedStoreIdentifier {
public:
    InternedStoreIdentifier() = default;  // no store
    // An empty identifier is no store, like an absent one.
    explicit InternedStoreIdentifier(const std::string& identifier);

    const std::string* text() const { return text_; }

private:
    const std::string* text_ = nullptr;
};

inline constexpr std::string_view kManagedObjectURIScheme = "x-zarvo-object";

class ManagedObjectID final : public Object {
public:
    static ManagedObjectIDRef temporaryID(const EntityDescription& entity);
    static ManagedObjectIDRef permanentID(const EntityDescription& entity, InternedStoreIdentifier store,
                                          std::int64_t primaryKey);

    const EntityDescription& entity() const { return *entity_; }
    bool isTemporaryID() const { return temporary_; }
    // Empty for a temporary ID.
    const std::string& storeIdentifier() const { return store_ != nullptr ? *store_ : emptyStoreIdentifier(); }
    // The store's key of the object; for a temporary ID, a number unique in
    // this process.
    std::int64_t primaryKey() const { return key_; }
    // Valid while this ID lives.
    ManagedObjectIDKey key() const { return {entity_, store_, key_, temporary_}; }

    URL URIRepresentation() const;
    // The parts of a URI made by URIRepresentation: nothing for anything
    // else (another scheme, a malformed key, a name that is not a name).
    struct URIParts {
        std::string storeIdentifier;  // empty: temporary
        std::string entityName;
        std::int64_t primaryKey = 0;
    };
    [[nodiscard]] static std::optional<URIParts> parseURIRepresentation(const URL& uri);

    bool isEqual(const Object& other) const override;
    std::size_t hash() const;
    std::string className() const override { return "NSManagedObjectID"; }
    // "<x-zarvo-object://.../Person/p42>", as the platform prints IDs.
    std::string description() const override;

    // For make_shared (one allocation per ID); the factories above are the
    // way to make one.
    struct Passkey {
    private:
        friend class ManagedObjectID;
        Passkey() = default;
    };
    ManagedObjectID(Passkey, const EntityDescription& entity, const std::string* store, std::int64_t key,
                    bool temporary);

private:
    friend class ManagedObject;  // keeps a fault's ID in parts

    static const std::string& emptyStoreIdentifier();
    // A permanent ID from the parts of another one (`store` interned).
    static ManagedObjectIDRef fromParts(const EntityDescription& entity, const std::string* store,
                                        std::int64_t primaryKey);

    const EntityDescription* entity_;
    const std::string* store_;  // interned; null for a temporary ID
    std::int64_t key_;
    bool temporary_;
};

// For unordered containers keyed by ID.
struct ManagedObjectIDHash {
    std::size_t operator()(const ManagedObjectIDRef& id) const { return id ? id->hash() : 0; }
};
struct ManagedObjectIDEqual {
    bool operator()(const ManagedObjectIDRef& left, const ManagedObjectIDRef& right) const
    {
        return left == right || (left && right && left->isEqual(*right));
    }
};

}  // namespace platform
