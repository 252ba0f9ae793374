#include "Platform/ObjectGraph/StoreEvaluation.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/ObjectGraph/ManagedObject.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "Platform/Predicates/Predicate.h"
#include "Platform/Predicates/SortDescriptor.h"

#include <algorithm>

namespace platform::objectgraph {

namespace {

void setEvaluationError(ErrorRef* error, const Exception& exception)
{
    setError(error, makeError(NSPersistentStoreOperationError, "The fetch request cannot be evaluated.",
                              exception.reason()));
}

}  // namespace

std::optional<bool> matchesPredicate(const Predicate* predicate, const Object& object, ErrorRef* error)
{
    if (predicate == nullptr) {
        return true;
    }
    try {
        return predicate->evaluateWithObject(Value(std::const_pointer_cast<Object>(object.shared_from_this())));
    } catch (const Exception& exception) {
        setEvaluationError(error, exception);
        return std::nullopt;
    }
}

std::optional<bool> matchesPredicate(const FetchRequest& request, const Object& object, ErrorRef* error)
{
    return matchesPredicate(request.predicate().get(), object, error);
}

bool sortObjects(std::vector<ObjectRef>& objects, const FetchRequest& request, ErrorRef* error)
{
    if (request.sortDescriptors().empty()) {
        return true;
    }
    Array values;
    values.reserve(objects.size());
    for (const auto& object : objects) {
        values.push_back(Value(object));
    }
    Array sorted;
    try {
        sorted = SortDescriptor::sortedArray(values, request.sortDescriptors());
    } catch (const Exception& exception) {
        setEvaluationError(error, exception);
        return false;
    }
    objects.clear();
    for (const auto& value : sorted) {
        objects.push_back(value.object());
    }
    return true;
}

void applyOffsetAndLimit(std::vector<ObjectRef>& objects, const FetchRequest& request)
{
    const std::size_t offset = std::min(request.fetchOffset(), objects.size());
    objects.erase(objects.begin(), objects.begin() + static_cast<std::ptrdiff_t>(offset));
    if (request.fetchLimit() != 0 && objects.size() > request.fetchLimit()) {
        objects.resize(request.fetchLimit());
    }
}

std::optional<std::vector<ObjectRef>> filterSortAndLimit(std::vector<ObjectRef> objects, const FetchRequest& request,
                                                         const std::shared_ptr<const Predicate>& predicate,
                                                         ErrorRef* error)
{
    std::vector<ObjectRef> selected;
    selected.reserve(objects.size());
    for (auto& object : objects) {
        const auto matches = matchesPredicate(predicate.get(), *object, error);
        if (!matches) {
            return std::nullopt;
        }
        if (*matches) {
            selected.push_back(std::move(object));
        }
    }
    if (!sortObjects(selected, request, error)) {
        return std::nullopt;
    }
    applyOffsetAndLimit(selected, request);
    return selected;
}

// --- Stored objects ---------------------------------------------------------------

ManagedObjectIDRef StoredObject::objectID() const
{
    return source_->persistentStore().objectIDFor(*entity_, primaryKey_);
}

Value StoredObject::valueOfProperty(const PropertyDescription& property) const
{
    const Value& stored = property.index() < snapshot_.values.size() ? snapshot_.values[property.index()] : Value();
    if (!property.isRelationship()) {
        return stored;
    }
    auto objectOf = [&](const Value& id) -> Value {
        const auto objectID = id.objectAs<ManagedObjectID>();
        if (!objectID) {
            return Value();
        }
        const auto object = source_->storedObject(*objectID);
        return object ? Value(object) : Value();
    };
    const auto& relationship = static_cast<const RelationshipDescription&>(property);
    if (!relationship.isToMany()) {
        return objectOf(stored);
    }
    Array related;
    if (const Array* ids = stored.array()) {
        for (const auto& id : *ids) {
            if (Value object = objectOf(id)) {
                related.push_back(std::move(object));
            }
        }
    }
    return Value(std::move(related));
}

bool StoredObject::isEqual(const Object& other) const
{
    if (const auto* stored = dynamic_cast<const StoredObject*>(&other)) {
        return stored->entity_ == entity_ && stored->primaryKey_ == primaryKey_;
    }
    ManagedObjectIDRef id;
    if (const auto* object = dynamic_cast<const ManagedObject*>(&other)) {
        id = object->objectID();
    }
    const ManagedObjectID* named = id ? id.get() : dynamic_cast<const ManagedObjectID*>(&other);
    const auto& identifier = source_->persistentStore().identifier();
    return named != nullptr && !named->isTemporaryID() && &named->entity() == entity_ &&
           named->primaryKey() == primaryKey_ && identifier && named->storeIdentifier() == *identifier;
}

const PropertyTable& StoredObject::propertyTable() const
{
    auto& table = source_->propertyTables_[entity_];
    if (!table) {
        PropertyTable built = Object::propertyTable();
        for (const auto* property : entity_->properties()) {
            built = PropertyTable::extending<StoredObject>(
                built, {{property->name(), [property](const StoredObject& object) { return object.valueOfProperty(*property); }}});
        }
        built = PropertyTable::extending<StoredObject>(
            built, {{"objectID", [](const StoredObject& object) { return Value(object.objectID()); }}});
        table = std::make_unique<PropertyTable>(std::move(built));
    }
    return *table;
}

std::vector<ManagedObjectIDRef> objectIDsOf(const std::vector<std::shared_ptr<StoredObject>>& objects)
{
    std::vector<ManagedObjectIDRef> ids;
    ids.reserve(objects.size());
    for (const auto& object : objects) {
        ids.push_back(object->objectID());
    }
    return ids;
}

StoredObjectSource::~StoredObjectSource() = default;

PredicateRef StoredObjectSource::predicateOverStoredObjects(const PredicateRef& predicate) const
{
    if (!predicate) {
        return nullptr;
    }
    return predicateByReplacingConstants(predicate, [&](const Value& value) {
        ManagedObjectIDRef id = value.objectAs<ManagedObjectID>();
        if (const auto object = ManagedObject::refIn(value)) {
            id = object->objectID();
        }
        const auto stored = id ? storedObject(*id) : nullptr;
        return stored ? Value(stored) : value;
    });
}

std::optional<std::vector<std::shared_ptr<StoredObject>>> StoredObjectSource::select(
    std::vector<std::shared_ptr<StoredObject>> candidates, const FetchRequest& request, ErrorRef* error) const
{
    std::vector<ObjectRef> objects(std::make_move_iterator(candidates.begin()), std::make_move_iterator(candidates.end()));
    auto selected = filterSortAndLimit(std::move(objects), request, predicateOverStoredObjects(request.predicate()), error);
    if (!selected) {
        return std::nullopt;
    }
    std::vector<std::shared_ptr<StoredObject>> result;
    result.reserve(selected->size());
    for (auto& object : *selected) {
        result.push_back(std::static_pointer_cast<StoredObject>(std::move(object)));
    }
    return result;
}

}  // namespace platform::objectgraph
