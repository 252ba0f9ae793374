#include "Platform/ObjectGraph/ManagedObjectID.h"

#include "Platform/ObjectGraph/ManagedObjectModel.h"

#include <sodium.h>

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <unordered_set>

namespace platform {
namespace {

// Temporary IDs of different runs must not be taken for one another when a
// URI is kept by mistake: each process marks its own with a random tag.
const std::string& processTag()
{
    static const std::string tag = [] {
        if (sodium_init() < 0) {
            std::abort();
        }
        char text[17];
        std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(randombytes_random()) << 32 |
                                                          randombytes_random());
        return std::string(text);
    }();
    return tag;
}

std::atomic<std::int64_t> nextTemporaryKey{1};

}  // namespace

ManagedObjectID::ManagedObjectID(Passkey, const EntityDescription& entity, const std::string* store, std::int64_t key,
                                 bool temporary)
    : entity_(&entity), store_(store), key_(key), temporary_(temporary)
{
}

const std::string& ManagedObjectID::emptyStoreIdentifier()
{
    static const std::string empty;
    return empty;
}

InternedStoreIdentifier::InternedStoreIdentifier(const std::string& identifier)
{
    if (identifier.empty()) {
        return;
    }
    struct Interned {
        std::mutex lock;
        std::unordered_set<std::string> identifiers;  // nodes: the strings never move
    };
    // Never destroyed: IDs may be made and compared while statics are torn down.
    static auto* interned = new Interned;
    std::lock_guard guard(interned->lock);
    text_ = &*interned->identifiers.insert(identifier).first;
}

ManagedObjectIDRef ManagedObjectID::temporaryID(const EntityDescription& entity)
{
    return makeObject<ManagedObjectID>(Passkey(), entity, nullptr,
                                       nextTemporaryKey.fetch_add(1, std::memory_order_relaxed), true);
}

ManagedObjectIDRef ManagedObjectID::permanentID(const EntityDescription& entity, InternedStoreIdentifier store,
                                                std::int64_t primaryKey)
{
    return fromParts(entity, store.text(), primaryKey);
}

ManagedObjectIDRef ManagedObjectID::fromParts(const EntityDescription& entity, const std::string* store,
                                              std::int64_t primaryKey)
{
    return makeObject<ManagedObjectID>(Passkey(), entity, store, primaryKey, false);
}

URL ManagedObjectID::URIRepresentation() const
{
    std::string text = std::string(kManagedObjectURIScheme) + "://" + storeIdentifier() + "/" + entity_->name() + "/";
    text += temporary_ ? "t" + processTag() + "-" + std::to_string(key_) : "p" + std::to_string(key_);
    // Store identifiers are hex and entity names are identifiers, so the
    // text is always a URL.
    return *URL::fromString(text);
}

std::optional<ManagedObjectID::URIParts> ManagedObjectID::parseURIRepresentation(const URL& uri)
{
    if (uri.scheme() != std::string(kManagedObjectURIScheme)) {
        return std::nullopt;
    }
    const auto components = uri.pathComponents();  // "/", entity, key
    if (components.size() != 3 || components[2].size() < 2) {
        return std::nullopt;
    }
    URIParts parts;
    parts.storeIdentifier = uri.host().value_or("");
    parts.entityName = components[1];
    const std::string& key = components[2];
    std::string_view digits;
    if (key[0] == 'p' && !parts.storeIdentifier.empty()) {
        digits = std::string_view(key).substr(1);
    } else if (key[0] == 't' && parts.storeIdentifier.empty()) {
        // Only this process's own temporary IDs mean anything.
        const std::string prefix = "t" + processTag() + "-";
        if (key.compare(0, prefix.size(), prefix) != 0) {
            return std::nullopt;
        }
        digits = std::string_view(key).substr(prefix.size());
    } else {
        return std::nullopt;
    }
    const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), parts.primaryKey);
    if (failure != std::errc() || end != digits.data() + digits.size() || parts.primaryKey <= 0) {
        return std::nullopt;
    }
    return parts;
}

std::size_t ManagedObjectIDKey::hash() const
{
    // Keys are consecutive and tables keep the high bits, so mix them all
    // (the finaliser of splitmix64).
    const std::uint64_t entityBits = reinterpret_cast<std::uintptr_t>(entity) >> 4;
    std::uint64_t mixed = static_cast<std::uint64_t>(primaryKey) ^ entityBits * 0x9e3779b97f4a7c15ULL;
    mixed ^= temporary ? 0x5bd1e995ULL : 0;
    mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9ULL;
    mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111ebULL;
    return static_cast<std::size_t>(mixed ^ (mixed >> 31));
}

bool operator==(const ManagedObjectIDKey& left, const ManagedObjectIDKey& right)
{
    if (left.primaryKey != right.primaryKey || left.entity != right.entity || left.temporary != right.temporary) {
        return false;
    }
    // Store identifiers are interned: one text, one address.
    return left.store == right.store;
}

bool ManagedObjectID::isEqual(const Object& other) const
{
    if (this == &other) {
        return true;
    }
    const auto* id = dynamic_cast<const ManagedObjectID*>(&other);
    return id != nullptr && id->key() == key();
}

std::size_t ManagedObjectID::hash() const
{
    return key().hash();
}

std::string ManagedObjectID::description() const
{
    return "<" + URIRepresentation().absoluteString() + ">";
}

}  // namespace platform
