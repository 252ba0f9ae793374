#include "Platform/ObjectGraph/ManagedObjectContext.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/Thread.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "Platform/ObjectGraph/PersistentStoreCoordinator.h"
#include "Platform/ObjectGraph/StoreEvaluation.h"

#include <algorithm>
#include <map>
#include <unordered_set>

namespace platform {
namespace {

constexpr const char* kAssertionSourceFile = "Platform/ObjectGraph/ManagedObjectContext";

// Marks the private queues of contexts, so that performBlockAndWait knows it
// is already on its context's queue.
const char kContextQueueKey = 0;

// The contexts whose blocks the calling thread is running, innermost last: a
// block of performBlock/performBlockAndWait may always use its context.
thread_local std::vector<const ManagedObjectContext*> performing;

class PerformingScope {
public:
    explicit PerformingScope(const ManagedObjectContext* context) { performing.push_back(context); }
    ~PerformingScope() { performing.pop_back(); }
    PerformingScope(const PerformingScope&) = delete;
    PerformingScope& operator=(const PerformingScope&) = delete;
};

// The request without its limit and offset.
std::shared_ptr<FetchRequest> unlimitedCopyOf(const FetchRequest& request)
{
    auto copy = FetchRequest::fetchRequestWithEntityName(request.entityName());
    copy->setPredicate(request.predicate());
    copy->setSortDescriptors(request.sortDescriptors());
    copy->setResultType(request.resultType());
    copy->setIncludesPendingChanges(request.includesPendingChanges());
    copy->setReturnsObjectsAsFaults(request.returnsObjectsAsFaults());
    return copy;
}

Value objectsAsSet(const std::vector<ManagedObjectRef>& objects)
{
    Array values;
    values.reserve(objects.size());
    for (const auto& object : objects) {
        values.push_back(Value(object));
    }
    // A change set holds each object once.
    return Value(Set::withDistinctValues(std::move(values)));
}

ErrorRef missingObject(const ManagedObjectID& id)
{
    return objectgraph::makeError(NSManagedObjectReferentialIntegrityError, "The object does not exist.",
                                  id.description());
}

}  // namespace

ManagedObjectContext::ManagedObjectContext(ManagedObjectContextConcurrencyType type)
    : type_(type),
      ownerThread_(std::this_thread::get_id())
{
    switch (type_) {
    case ManagedObjectContextConcurrencyType::PrivateQueue:
        queue_ = DispatchQueue::create("NSManagedObjectContext");
        queue_->setSpecific(&kContextQueueKey, this);
        sequence_.bindToQueue(queue_);
        break;
    case ManagedObjectContextConcurrencyType::MainQueue:
        queue_ = DispatchQueue::main();
        sequence_.bindToQueue(queue_);
        break;
    case ManagedObjectContextConcurrencyType::Confinement:
        ownerRunLoop_ = RunLoop::currentRunLoop();
        break;
    }
}

ManagedObjectContextRef ManagedObjectContext::create(ManagedObjectContextConcurrencyType type)
{
    return makeObject<ManagedObjectContext>(type);
}

ManagedObjectContext::~ManagedObjectContext()
{
    // Objects and their relationships hold each other; the context breaks
    // the cycles it is the root of.
    registered_.forEach([](const ManagedObjectRef& object) {
        object->values_.clear();
        object->context_ = nullptr;
    });
}

bool ManagedObjectContext::isCurrentPerformer() const
{
    return std::find(performing.begin(), performing.end(), this) != performing.end();
}

void ManagedObjectContext::checkAccess(const char* method) const
{
#ifndef NDEBUG
    if (!isCurrentPerformer() && !sequence_.calledOnValidSequence()) {
        AssertionHandler::handleFailure({method, kAssertionSourceFile, __LINE__,
                                         "The context " + description() +
                                             " is used outside its queue or thread."});
    }
#else
    (void)method;
#endif
}

// --- Queues ---------------------------------------------------------------------------

void ManagedObjectContext::performBlock(std::function<void()> block)
{
    auto self = std::static_pointer_cast<ManagedObjectContext>(shared_from_this());
    auto run = [self, block = std::move(block)] {
        PerformingScope scope(self.get());
        block();
    };
    switch (type_) {
    case ManagedObjectContextConcurrencyType::PrivateQueue:
    case ManagedObjectContextConcurrencyType::MainQueue:
        queue_->async(std::move(run));
        break;
    case ManagedObjectContextConcurrencyType::Confinement:
        ownerRunLoop_->performBlock(std::move(run));
        break;
    }
}

void ManagedObjectContext::performBlockAndWait(const std::function<void()>& block)
{
    auto runHere = [&] {
        PerformingScope scope(this);
        block();
    };
    if (isCurrentPerformer()) {
        block();
        return;
    }
    switch (type_) {
    case ManagedObjectContextConcurrencyType::PrivateQueue:
        if (DispatchQueue::getSpecific(&kContextQueueKey) == this) {
            runHere();
        } else {
            queue_->sync(runHere);
        }
        break;
    case ManagedObjectContextConcurrencyType::MainQueue:
        if (Thread::isMainThread()) {
            runHere();
        } else {
            queue_->sync(runHere);
        }
        break;
    case ManagedObjectContextConcurrencyType::Confinement:
        runHere();
        break;
    }
}

// --- Set-up ----------------------------------------------------------------------------

void ManagedObjectContext::setPersistentStoreCoordinator(std::shared_ptr<PersistentStoreCoordinator> coordinator)
{
    PLATFORM_ASSERT(!parent_ && !coordinator_ && registered_.empty(),
                    "A context's coordinator or parent is set once, before the context is used.");
    coordinator_ = std::move(coordinator);
}

void ManagedObjectContext::setParentContext(ManagedObjectContextRef parent)
{
    PLATFORM_ASSERT(!parent_ && !coordinator_ && registered_.empty(),
                    "A context's coordinator or parent is set once, before the context is used.");
    PLATFORM_ASSERT(parent.get() != this, "A context cannot be its own parent.");
    parent_ = std::move(parent);
}

std::shared_ptr<PersistentStoreCoordinator> ManagedObjectContext::persistentStoreCoordinator() const
{
    const ManagedObjectContext* context = this;
    while (context->parent_) {
        context = context->parent_.get();
    }
    return context->coordinator_;
}

const ManagedObjectModel& ManagedObjectContext::model() const
{
    const auto coordinator = persistentStoreCoordinator();
    if (!coordinator) {
        Exception::raise(NSInternalInconsistencyException,
                         "The context has neither a coordinator nor a parent with one.");
    }
    return *coordinator->managedObjectModel();
}

std::optional<std::string> ManagedObjectContext::name() const
{
    std::lock_guard lock(nameMutex_);
    return name_;
}

void ManagedObjectContext::setName(std::optional<std::string> name)
{
    std::lock_guard lock(nameMutex_);
    name_ = std::move(name);
}

Dictionary& ManagedObjectContext::userInfo()
{
    checkAccess(__func__);
    return userInfo_;
}

std::string ManagedObjectContext::description() const
{
    return "<NSManagedObjectContext: " + addressString() + ">" + (name() ? " " + *name() : std::string());
}

// --- Change sets -------------------------------------------------------------------------

bool ManagedObjectContext::hasChanges() const
{
    checkAccess(__func__);
    return !inserted_.empty() || !updated_.empty() || !deleted_.empty();
}

std::vector<ManagedObjectRef> ManagedObjectContext::insertedObjects() const
{
    checkAccess(__func__);
    return inserted_.ordered();
}

std::vector<ManagedObjectRef> ManagedObjectContext::updatedObjects() const
{
    checkAccess(__func__);
    return updated_.ordered();
}

std::vector<ManagedObjectRef> ManagedObjectContext::deletedObjects() const
{
    checkAccess(__func__);
    return deleted_.ordered();
}

std::vector<ManagedObjectRef> ManagedObjectContext::registeredObjects() const
{
    checkAccess(__func__);
    std::vector<ManagedObjectRef> objects;
    objects.reserve(registered_.size());
    registered_.forEach([&](const ManagedObjectRef& object) { objects.push_back(object); });
    return objects;
}

void ManagedObjectContext::registerObject(const ManagedObjectRef& object, ManagedObjectIDRef id)
{
    object->context_ = this;
    if (id) {
        object->setObjectID(std::move(id));
    }
    registered_.insert(object);
}

void ManagedObjectContext::forget(ManagedObject& object)
{
    const ManagedObjectRef* found = registered_.find(object.idKey());
    if (found != nullptr && found->get() == &object) {
        // The table holds the last strong reference the context has; keep the
        // object alive until it is tidied.
        auto keep = registered_.erase(object.idKey());
        inserted_.erase(&object);
        updated_.erase(&object);
        deleted_.erase(&object);
        object.context_ = nullptr;
        object.values_.clear();
        object.inserted_ = object.updated_ = object.deleted_ = false;
        object.fault_ = false;
        return;
    }
    inserted_.erase(&object);
    updated_.erase(&object);
    deleted_.erase(&object);
}

void ManagedObjectContext::noteUpdated(ManagedObject& object)
{
    if (object.inserted_ || object.deleted_ || object.updated_) {
        return;
    }
    const ManagedObjectRef* found = registered_.find(object.idKey());
    if (found == nullptr) {
        return;
    }
    object.updated_ = true;
    updated_.insert(*found);
}

bool ManagedObjectContext::hasChangesOfEntity(const EntityDescription& entity) const
{
    for (const auto* set : {&inserted_, &updated_, &deleted_}) {
        for (const auto& object : set->places()) {
            if (object && &object->entity() == &entity) {
                return true;
            }
        }
    }
    return false;
}

void ManagedObjectContext::insertObject(const ManagedObjectRef& object)
{
    checkAccess(__func__);
    if (!object) {
        Exception::raise(NSInvalidArgumentException, "Cannot insert nothing into a context.");
    }
    if (object->context_ == this) {
        return;
    }
    if (object->context_ != nullptr) {
        Exception::raise(NSInvalidArgumentException, "An object can be in one context only.");
    }
    if (&object->entity().managedObjectModel() != &model()) {
        Exception::raise(NSInvalidArgumentException, "The object's entity is not of the context's model.");
    }
    registerObject(object);
    object->inserted_ = true;
    inserted_.insert(object);
}

void ManagedObjectContext::deleteObject(const ManagedObjectRef& object)
{
    checkAccess(__func__);
    if (!object || object->context_ != this) {
        Exception::raise(NSInvalidArgumentException, "An object can only be deleted by its own context.");
    }
    if (object->deleted_) {
        return;
    }
    object->fireFault();
    if (object->inserted_) {
        // Mark it first, so that a cascade back to it stops here.
        object->deleted_ = true;
        applyDeleteRules(*object);
        forget(*object);
        return;
    }
    object->deleted_ = true;
    object->updated_ = false;
    updated_.erase(object.get());
    deleted_.insert(object);
    applyDeleteRules(*object);
}

void ManagedObjectContext::applyDeleteRules(ManagedObject& object)
{
    const auto self = std::static_pointer_cast<ManagedObject>(object.shared_from_this());
    for (const auto& relationship : object.entity().relationships()) {
        // A copy: cascades and nullifications change the value as we go.
        const auto targets = ManagedObject::storedTargets(object.values_[relationship->index()]);
        switch (relationship->deleteRule()) {
        case DeleteRule::Nullify:
            if (const RelationshipDescription* inverse = relationship->inverseRelationship()) {
                for (const auto& target : targets) {
                    if (target->context_ == this && !target->deleted_) {
                        target->willChangeValueForKey(inverse->name());
                        target->relateTo(*inverse, self, false, false);
                        target->didChangeValueForKey(inverse->name());
                    }
                }
            }
            break;
        case DeleteRule::Cascade:
            for (const auto& target : targets) {
                if (target->context_ == this && !target->deleted_) {
                    deleteObject(target);
                }
            }
            break;
        case DeleteRule::Deny:      // checked when saving
        case DeleteRule::NoAction:  // the other side keeps pointing here
            break;
        }
    }
}

// --- Faults and snapshots ---------------------------------------------------------------

ObjectSnapshot ManagedObjectContext::snapshotOf(const ManagedObject& object) const
{
    ObjectSnapshot snapshot;
    snapshot.version = object.version_;
    snapshot.values.reserve(object.values_.size());
    for (const auto* property : object.entity().properties()) {
        snapshot.values.push_back(ManagedObject::snapshotValue(*property, object.values_[property->index()]));
    }
    return snapshot;
}

ManagedObjectRef ManagedObjectContext::objectForIDValue(const Value& id)
{
    auto objectID = id.objectAs<ManagedObjectID>();
    return objectID ? objectWithID(objectID) : nullptr;
}

namespace {

// A relationship's value with `mine` applied to its object (to-one) or to
// each of its elements (to-many); elements that `mine` gives nothing for are
// left out.
template <typename Mine>
Value mappedRelationshipValue(const RelationshipDescription& relationship, const Value& value, const Mine& mine)
{
    if (!relationship.isToMany()) {
        return mine(value);
    }
    Array objects;
    if (const Array* elements = value.array()) {
        objects.reserve(elements->size());
        for (const auto& element : *elements) {
            if (Value object = mine(element)) {
                objects.push_back(std::move(object));
            }
        }
    }
    return Value(std::move(objects));
}

}  // namespace

Value ManagedObjectContext::relationshipValueFromSnapshot(const RelationshipDescription& relationship,
                                                          const Value& stored)
{
    return mappedRelationshipValue(relationship, stored, [&](const Value& id) {
        auto object = objectForIDValue(id);
        return object ? Value(object) : Value();
    });
}

void ManagedObjectContext::applySnapshot(ManagedObject& object, const ObjectSnapshot& snapshot, bool keepChanges)
{
    const auto& properties = object.entity().properties();
    std::vector<Value> values(properties.size());
    const bool hadValues = !object.fault_ && object.values_.size() == properties.size();
    const ObjectSnapshot mine = hadValues ? snapshotOf(object) : ObjectSnapshot{};
    for (const auto* property : properties) {
        const std::size_t index = property->index();
        const Value stored = index < snapshot.values.size() ? snapshot.values[index] : Value();
        const bool changedHere = keepChanges && hadValues && index < object.committed_.size() &&
                                 !(mine.values[index] == object.committed_[index]);
        if (changedHere) {
            values[index] = object.values_[index];
        } else if (property->isRelationship()) {
            values[index] = relationshipValueFromSnapshot(static_cast<const RelationshipDescription&>(*property), stored);
        } else {
            values[index] = stored;
        }
    }
    object.values_ = std::move(values);
    object.committed_ = snapshot.values;
    object.committed_.resize(properties.size());
    object.version_ = snapshot.version;
    object.fault_ = false;
}

std::optional<ObjectSnapshot> ManagedObjectContext::snapshotFromAbove(const ManagedObjectIDRef& id, ErrorRef* error)
{
    if (!parent_) {
        if (id->isTemporaryID()) {
            setError(error, missingObject(*id));
            return std::nullopt;
        }
        return coordinator_->snapshotForObjectWithID(*id, error);
    }
    std::optional<ObjectSnapshot> snapshot;
    ManagedObjectContext& parent = *parent_;
    parent.performBlockAndWait([&] {
        const auto object = parent.objectRegisteredForID(id);
        if (object && object->deleted_) {
            setError(error, missingObject(*id));
            return;
        }
        if (object && !object->fault_) {
            snapshot = parent.snapshotOf(*object);
            return;
        }
        snapshot = parent.snapshotFromAbove(id, error);
    });
    return snapshot;
}

bool ManagedObjectContext::fulfillFault(ManagedObject& object, ErrorRef* error)
{
    const auto snapshot = snapshotFromAbove(object.objectID(), error);
    if (!snapshot) {
        return false;
    }
    applySnapshot(object, *snapshot, false);
    object.awakeFromFetch();
    return true;
}

ManagedObjectRef ManagedObjectContext::objectRegisteredForID(const ManagedObjectIDRef& objectID) const
{
    if (!objectID) {
        return nullptr;
    }
    const ManagedObjectRef* found = registered_.find(objectID->key());
    return found != nullptr ? *found : nullptr;
}

ManagedObjectRef ManagedObjectContext::objectWithID(const ManagedObjectIDRef& objectID)
{
    checkAccess(__func__);
    if (!objectID) {
        Exception::raise(NSInvalidArgumentException, "An object ID is needed.");
    }
    if (auto object = objectRegisteredForID(objectID)) {
        return object;
    }
    if (&objectID->entity().managedObjectModel() != &model()) {
        Exception::raise(NSInvalidArgumentException, "The object ID is not of the context's model.");
    }
    ManagedObjectRef object = ManagedObject::makeFault(objectID->entity(), objectID);
    registerObject(object);
    return object;
}

ManagedObjectRef ManagedObjectContext::existingObjectWithID(const ManagedObjectIDRef& objectID, ErrorRef* error)
{
    checkAccess(__func__);
    if (!objectID) {
        Exception::raise(NSInvalidArgumentException, "An object ID is needed.");
    }
    if (auto object = objectRegisteredForID(objectID)) {
        if (object->deleted_) {
            setError(error, missingObject(*objectID));
            return nullptr;
        }
        if (object->fault_ && !fulfillFault(*object, error)) {
            return nullptr;
        }
        return object;
    }
    const auto snapshot = snapshotFromAbove(objectID, error);
    if (!snapshot) {
        return nullptr;
    }
    auto object = objectWithID(objectID);
    applySnapshot(*object, *snapshot, false);
    object->awakeFromFetch();
    return object;
}

// --- Fetching ----------------------------------------------------------------------------

std::optional<std::vector<ManagedObjectIDRef>> ManagedObjectContext::fetchIDs(const FetchRequest& request,
                                                                              ErrorRef* error)
{
    const EntityDescription* entity = model().entityNamed(request.entityName());
    if (entity == nullptr) {
        setError(error, objectgraph::unknownEntityError(request.entityName()));
        return std::nullopt;
    }
    const bool ownChanges = request.includesPendingChanges() && hasChangesOfEntity(*entity);
    // With changes of our own, the limit and offset can only be applied once
    // they are folded in: the request goes on without them. Otherwise it goes
    // on as it is.
    const auto unlimited = ownChanges ? unlimitedCopyOf(request) : nullptr;
    const FetchRequest& upstream = unlimited ? *unlimited : request;
    std::optional<std::vector<ManagedObjectIDRef>> ids;
    if (parent_) {
        ManagedObjectContext& parent = *parent_;
        parent.performBlockAndWait([&] { ids = parent.fetchIDs(upstream, error); });
    } else {
        ids = coordinator_->fetchObjectIDs(upstream, error);
    }
    if (!ids || !ownChanges) {
        return ids;
    }

    std::unordered_set<ManagedObjectIDRef, ManagedObjectIDHash, ManagedObjectIDEqual> present(ids->begin(), ids->end());
    std::unordered_set<ManagedObjectIDRef, ManagedObjectIDHash, ManagedObjectIDEqual> removed;
    for (const auto& object : deleted_.places()) {
        if (object && &object->entity() == entity) {
            removed.insert(object->objectID());
        }
    }
    std::vector<ManagedObjectIDRef> added;
    for (const auto* set : {&inserted_, &updated_}) {
        for (const auto& object : set->ordered()) {
            if (&object->entity() != entity) {
                continue;
            }
            const auto matches = objectgraph::matchesPredicate(request, *object, error);
            if (!matches) {
                return std::nullopt;
            }
            const auto id = object->objectID();
            if (*matches && !present.count(id)) {
                added.push_back(id);
                present.insert(id);
            } else if (!*matches && present.count(id)) {
                removed.insert(id);
            }
        }
    }
    std::vector<ObjectRef> objects;
    objects.reserve(ids->size() + added.size());
    for (const auto* list : {&*ids, &added}) {
        for (const auto& id : *list) {
            if (!removed.count(id)) {
                objects.push_back(objectWithID(id));
            }
        }
    }
    if (!objectgraph::sortObjects(objects, request, error)) {
        return std::nullopt;
    }
    objectgraph::applyOffsetAndLimit(objects, request);
    std::vector<ManagedObjectIDRef> result;
    result.reserve(objects.size());
    for (const auto& object : objects) {
        result.push_back(std::static_pointer_cast<ManagedObject>(object)->objectID());
    }
    return result;
}

std::optional<std::vector<ManagedObjectIDRef>> ManagedObjectContext::executeFetchRequestForIDs(
    const FetchRequest& request, ErrorRef* error)
{
    checkAccess(__func__);
    return fetchIDs(request, error);
}

std::optional<std::vector<ManagedObjectRef>> ManagedObjectContext::executeFetchRequest(const FetchRequest& request,
                                                                                      ErrorRef* error)
{
    checkAccess(__func__);
    const auto ids = fetchIDs(request, error);
    if (!ids) {
        return std::nullopt;
    }
    std::vector<ManagedObjectRef> objects;
    objects.reserve(ids->size());
    for (const auto& id : *ids) {
        auto object = objectWithID(id);
        if (!request.returnsObjectsAsFaults() && object->fault_ && !fulfillFault(*object, error)) {
            return std::nullopt;
        }
        objects.push_back(std::move(object));
    }
    return objects;
}

std::optional<std::size_t> ManagedObjectContext::countForFetchRequest(const FetchRequest& request, ErrorRef* error)
{
    checkAccess(__func__);
    const EntityDescription* entity = model().entityNamed(request.entityName());
    if (entity != nullptr && request.includesPendingChanges() && hasChangesOfEntity(*entity)) {
        const auto ids = fetchIDs(request, error);
        return ids ? std::optional<std::size_t>(ids->size()) : std::nullopt;
    }
    if (!parent_) {
        return coordinator_->count(request, error);
    }
    std::optional<std::size_t> count;
    ManagedObjectContext& parent = *parent_;
    parent.performBlockAndWait([&] { count = parent.countForFetchRequest(request, error); });
    return count;
}

// --- Permanent IDs -------------------------------------------------------------------------

bool ManagedObjectContext::obtainPermanentIDsForObjects(const std::vector<ManagedObjectRef>& objects, ErrorRef* error)
{
    checkAccess(__func__);
    const auto coordinator = persistentStoreCoordinator();
    // By position in `objects`: a save passes every inserted object here.
    std::map<const EntityDescription*, std::vector<std::size_t>> byEntity;
    std::size_t temporaryCount = 0;
    for (std::size_t index = 0; index < objects.size(); ++index) {
        const auto& object = objects[index];
        if (object && object->objectID()->isTemporaryID()) {
            byEntity[&object->entity()].push_back(index);
            ++temporaryCount;
        }
    }
    // A save's new objects are often most of the table: then all change
    // their IDs first and the table is refiled once, after every entity.
    const bool refile = temporaryCount * 4 >= registered_.size();
    bool obtained = true;
    for (auto& [entity, group] : byEntity) {
        const auto ids = coordinator->newObjectIDs(*entity, group.size(), error);
        if (!ids) {
            obtained = false;
            break;
        }
        for (std::size_t index = 0; index < group.size(); ++index) {
            const auto& object = objects[group[index]];
            if (object->context_ == this && !refile) {
                registered_.erase(object->idKey());
                registerObject(object, (*ids)[index]);
            } else {
                object->setObjectID((*ids)[index]);
            }
        }
    }
    if (refile) {
        registered_.refile();
    }
    return obtained;
}

// --- Saving --------------------------------------------------------------------------------

bool ManagedObjectContext::validate(ErrorRef* error) const
{
    auto fail = [&](std::int64_t code, const ManagedObject& object, const PropertyDescription& property,
                    const std::string& problem) {
        setError(error, objectgraph::makeError(
                            code, "The object of entity " + object.entity().name() + " cannot be saved.",
                            "The property " + property.name() + " " + problem + ".", nullptr,
                            Dictionary{{NSValidationKeyErrorKey, Value(property.name())},
                                       {NSValidationObjectErrorKey,
                                        Value(std::const_pointer_cast<ManagedObject>(
                                            std::static_pointer_cast<const ManagedObject>(object.shared_from_this())))}}));
        return false;
    };
    for (const auto* set : {&inserted_, &updated_}) {
        // In place: a save validates every changed object, and a copy of
        // the set would cost a reference count per object.
        for (const auto& object : set->places()) {
            if (!object) {
                continue;
            }
            for (const auto& attribute : object->entity().attributes()) {
                const Value& value = object->values_[attribute->index()];
                if (!value) {
                    if (!attribute->isOptional()) {
                        return fail(NSValidationMissingMandatoryPropertyError, *object, *attribute, "is required");
                    }
                } else if (!valueFitsAttributeType(value, attribute->attributeType())) {
                    return fail(NSManagedObjectValidationError, *object, *attribute,
                                "holds a value that is not of the type " +
                                    std::string(attributeTypeName(attribute->attributeType())));
                }
            }
            for (const auto& relationship : object->entity().relationships()) {
                const auto targets = ManagedObject::storedTargets(object->values_[relationship->index()]);
                if (targets.empty() && !relationship->isOptional()) {
                    return fail(NSValidationMissingMandatoryPropertyError, *object, *relationship, "is required");
                }
                for (const auto& target : targets) {
                    if (target->context_ != this) {
                        return fail(NSManagedObjectValidationError, *object, *relationship,
                                    "holds an object that is not in the context");
                    }
                }
            }
        }
    }
    for (const auto& member : deleted_.places()) {
        if (!member) {
            continue;
        }
        const ManagedObject& object = *member;
        for (const auto& relationship : object.entity().relationships()) {
            if (relationship->deleteRule() != DeleteRule::Deny) {
                continue;
            }
            bool holds = false;
            for (const auto& target : ManagedObject::storedTargets(object.values_[relationship->index()])) {
                holds = holds || !target->deleted_;
            }
            if (holds) {
                return fail(NSValidationRelationshipDeniedDeleteError, object, *relationship,
                            "still holds objects and its delete rule denies the delete");
            }
        }
    }
    return true;
}

bool ManagedObjectContext::save(ErrorRef* error)
{
    checkAccess(__func__);
    if (saving_) {
        Exception::raise(NSInternalInconsistencyException, "A context cannot save while it is saving.");
    }
    if (!hasChanges()) {
        return true;
    }
    saving_ = true;
    struct Reset {
        bool& flag;
        ~Reset() { flag = false; }
    } reset{saving_};
    for (const auto* set : {&inserted_, &updated_}) {
        for (const auto& object : set->ordered()) {
            object->willSave();
        }
    }
    if (!validate(error)) {
        return false;
    }
    return parent_ ? pushToParent(error) : saveToStore(error);
}

bool ManagedObjectContext::pushToParent(ErrorRef* error)
{
    const auto inserted = inserted_.ordered();
    const auto updated = updated_.ordered();
    const auto deleted = deleted_.ordered();
    auto updates = updatesToPush(updated);

    bool pushed = false;
    ManagedObjectContext& parent = *parent_;
    parent.performBlockAndWait([&] {
        try {
            parent.takeChildChanges(inserted, updates, deleted);
            pushed = true;
        } catch (const Exception& exception) {
            setError(error, objectgraph::makeError(NSManagedObjectReferentialIntegrityError,
                                                   "The changes could not be saved into the parent context.",
                                                   exception.reason()));
        }
    });
    if (!pushed) {
        return false;
    }
    settlePushedChanges(inserted, updated, std::move(updates), deleted);
    postDidSave(inserted, updated, deleted);
    return true;
}

std::vector<ManagedObjectContext::PushedChange> ManagedObjectContext::updatesToPush(
    const std::vector<ManagedObjectRef>& updated) const
{
    std::vector<PushedChange> updates;
    updates.reserve(updated.size());
    for (const auto& object : updated) {
        PushedChange update{object->objectID(), snapshotOf(*object), {}};
        for (std::size_t index = 0; index < update.snapshot.values.size(); ++index) {
            if (index >= object->committed_.size() || !(update.snapshot.values[index] == object->committed_[index])) {
                update.changed.push_back(index);
            }
        }
        updates.push_back(std::move(update));
    }
    return updates;
}

// The child's new objects are read here directly rather than through
// snapshots: the child waits for this block to finish, so nothing changes
// them meanwhile, and a save through a chain of contexts copies every new
// object once per level, where a snapshot would be one more copy and
// allocation each time.
void ManagedObjectContext::takeChildChanges(const std::vector<ManagedObjectRef>& inserted,
                                            const std::vector<PushedChange>& updates,
                                            const std::vector<ManagedObjectRef>& deleted)
{
    registered_.reserve(registered_.size() + inserted.size());
    inserted_.reserve(inserted_.size() + inserted.size());
    // Every new object first, so that relationships among them find each
    // other.
    std::vector<ManagedObjectRef> made;
    made.reserve(inserted.size());
    for (const auto& child : inserted) {
        const auto& entity = child->entity();
        auto id = child->objectID();
        auto object = objectRegisteredForID(id);
        if (!object) {
            // Awoken once, where it was inserted; every value is copied
            // below, so no defaults and no temporary ID of its own.
            object = ManagedObject::makeWithID(entity, std::move(id));
            registerObject(object);
        }
        // Attributes as they are; relationships are emptied here and filled
        // with this context's objects by the loop below.
        object->values_.copyFrom(child->values_);
        for (const auto& relationship : entity.relationships()) {
            object->values_[relationship->index()] = Value();
        }
        object->fault_ = false;
        object->inserted_ = true;
        inserted_.insert(object);
        made.push_back(std::move(object));
    }
    for (std::size_t index = 0; index < inserted.size(); ++index) {
        ManagedObject& object = *made[index];
        for (const auto& relationship : object.entity().relationships()) {
            object.values_[relationship->index()] =
                relationshipValueFromChild(*relationship, inserted[index]->values_[relationship->index()]);
        }
    }
    for (const auto& update : updates) {
        auto object = objectWithID(update.id);
        object->fireFault();
        for (const auto index : update.changed) {
            setValueFromChild(*object, *object->entity().properties()[index], update.snapshot.values[index]);
        }
        object->noteChanged();
    }
    for (const auto& object : deleted) {
        if (auto mine = objectWithID(object->objectID()); !mine->deleted_) {
            deleteObject(mine);
        }
    }
}

Value ManagedObjectContext::relationshipValueFromChild(const RelationshipDescription& relationship,
                                                       const Value& childValue)
{
    // Only the ID of the child's object is read: it names this context's copy.
    return mappedRelationshipValue(relationship, childValue, [&](const Value& target) {
        const auto* object = ManagedObject::inValue(target);
        return object ? Value(objectWithID(object->objectID())) : Value();
    });
}

void ManagedObjectContext::setValueFromChild(ManagedObject& object, const PropertyDescription& property,
                                             const Value& stored)
{
    object.values_[property.index()] =
        property.isRelationship()
            ? relationshipValueFromSnapshot(static_cast<const RelationshipDescription&>(property), stored)
            : stored;
}

// What the parent took is this context's committed state now.
void ManagedObjectContext::settlePushedChanges(const std::vector<ManagedObjectRef>& inserted,
                                               const std::vector<ManagedObjectRef>& updated,
                                               std::vector<PushedChange>&& updates,
                                               const std::vector<ManagedObjectRef>& deleted)
{
    for (const auto& object : inserted) {
        object->inserted_ = false;
        object->commitCurrentValues();
    }
    for (std::size_t index = 0; index < updated.size(); ++index) {
        updated[index]->updated_ = false;
        updated[index]->commitValues(std::move(updates[index].snapshot.values));
    }
    inserted_.clear();
    updated_.clear();
    for (const auto& object : deleted) {
        forget(*object);
    }
}

bool ManagedObjectContext::saveToStore(ErrorRef* error)
{
    auto inserted = inserted_.ordered();
    if (!obtainPermanentIDsForObjects(inserted, error)) {
        return false;
    }
    const bool checkVersions = mergePolicy_ != MergePolicy::Overwrite;
    auto updated = updated_.ordered();
    auto deleted = deleted_.ordered();

    // A conflict is resolved by the merge policy and the save tried again;
    // each round settles the conflicts it met, so a few rounds suffice unless
    // other writers keep changing the same objects.
    SaveChanges changes;
    for (int attempt = 0;; ++attempt) {
        std::vector<ManagedObjectIDRef> conflicts;
        ErrorRef saveError;
        changes = changesToSave(inserted, updated, deleted, checkVersions);
        if (coordinator_->save(changes, &conflicts, &saveError)) {
            break;
        }
        if (saveError->code() != NSManagedObjectMergeError || mergePolicy_ == MergePolicy::Error || attempt >= 8) {
            setError(error, conflictError(saveError, conflicts));
            return false;
        }
        for (const auto& id : conflicts) {
            resolveConflict(id, updated, deleted);
        }
    }
    settleSavedChanges(inserted, updated, deleted, std::move(changes), checkVersions);
    postDidSave(inserted, updated, deleted);
    return true;
}

SaveChanges ManagedObjectContext::changesToSave(const std::vector<ManagedObjectRef>& inserted,
                                                const std::vector<ManagedObjectRef>& updated,
                                                const std::vector<ManagedObjectRef>& deleted, bool checkVersions) const
{
    SaveChanges changes;
    for (const auto& object : inserted) {
        changes.inserted.push_back({object->objectID(), snapshotOf(*object), std::nullopt});
    }
    for (const auto& object : updated) {
        changes.updated.push_back({object->objectID(), snapshotOf(*object),
                                   checkVersions ? std::optional(std::int64_t{object->version_}) : std::nullopt});
    }
    for (const auto& object : deleted) {
        changes.deleted.push_back(
            {object->objectID(), {}, checkVersions ? std::optional(std::int64_t{object->version_}) : std::nullopt});
    }
    return changes;
}

// The error a failed save reports: the store's, except that a merge conflict
// names this context's conflicting objects.
ErrorRef ManagedObjectContext::conflictError(const ErrorRef& saveError,
                                             const std::vector<ManagedObjectIDRef>& conflicts) const
{
    if (saveError->code() != NSManagedObjectMergeError) {
        return saveError;
    }
    Array conflictList;
    for (const auto& id : conflicts) {
        if (auto object = objectRegisteredForID(id)) {
            conflictList.push_back(Value(object));
        }
    }
    return objectgraph::makeError(NSManagedObjectMergeError,
                                  "The objects were changed by someone else since they were read.",
                                  saveError->localizedFailureReason().value_or(""), nullptr,
                                  Dictionary{{NSPersistentStoreSaveConflictsErrorKey, Value(std::move(conflictList))}});
}

void ManagedObjectContext::resolveConflict(const ManagedObjectIDRef& id, std::vector<ManagedObjectRef>& updated,
                                           std::vector<ManagedObjectRef>& deleted)
{
    auto object = objectRegisteredForID(id);
    if (!object) {
        return;
    }
    ErrorRef readError;
    const auto current = coordinator_->snapshotForObjectWithID(*id, &readError);
    auto dropFrom = [&](std::vector<ManagedObjectRef>& list) {
        list.erase(std::remove(list.begin(), list.end(), object), list.end());
    };
    if (!current) {
        // Deleted by someone else: our delete is done; our update has
        // nothing left to update.
        dropFrom(updated);
        dropFrom(deleted);
        forget(*object);
        return;
    }
    if (mergePolicy_ == MergePolicy::Rollback) {
        dropFrom(updated);
        dropFrom(deleted);
        updated_.erase(object.get());
        deleted_.erase(object.get());
        object->updated_ = object->deleted_ = false;
        applySnapshot(*object, *current, false);
        return;
    }
    if (object->deleted_) {
        object->version_ = current->version;
        return;
    }
    mergeStoredSnapshot(*object, *current);
}

// Property by property: ours where only we changed it (or, with the object
// winning, wherever we changed it), the store's otherwise.
void ManagedObjectContext::mergeStoredSnapshot(ManagedObject& object, const ObjectSnapshot& current)
{
    const bool objectTrump = mergePolicy_ == MergePolicy::MergeByPropertyObjectTrump;
    const ObjectSnapshot mine = snapshotOf(object);
    std::vector<Value> merged = current.values;
    merged.resize(mine.values.size());
    for (std::size_t index = 0; index < mine.values.size(); ++index) {
        const Value& committed = object.committedValue(*object.entity().properties()[index]);
        const bool oursChanged = !(mine.values[index] == committed);
        const bool theirsChanged = !(current.values[index] == committed);
        if (oursChanged && (!theirsChanged || objectTrump)) {
            merged[index] = mine.values[index];
        }
    }
    applySnapshot(object, {merged, current.version}, false);
    object.committed_ = current.values;
    object.committed_.resize(merged.size());
}

void ManagedObjectContext::settleSavedChanges(const std::vector<ManagedObjectRef>& inserted,
                                              const std::vector<ManagedObjectRef>& updated,
                                              const std::vector<ManagedObjectRef>& deleted, SaveChanges saved,
                                              bool checkVersions)
{
    // What was written is what is committed now: the snapshots the store
    // took, one per object in the same order, become the committed values.
    for (std::size_t index = 0; index < inserted.size(); ++index) {
        ManagedObject& object = *inserted[index];
        object.inserted_ = false;
        object.version_ = 1;
        object.commitValues(std::move(saved.inserted[index].snapshot.values));
    }
    for (std::size_t index = 0; index < updated.size(); ++index) {
        const auto& object = updated[index];
        object->updated_ = false;
        if (checkVersions) {
            object->version_ += 1;
        } else if (auto current = coordinator_->snapshotForObjectWithID(*object->objectID(), nullptr)) {
            object->version_ = current->version;
        }
        object->commitValues(std::move(saved.updated[index].snapshot.values));
    }
    inserted_.clear();
    updated_.clear();
    for (const auto& object : deleted) {
        forget(*object);
    }
    deleted_.clear();
}

void ManagedObjectContext::postDidSave(const std::vector<ManagedObjectRef>& inserted,
                                       const std::vector<ManagedObjectRef>& updated,
                                       const std::vector<ManagedObjectRef>& deleted)
{
    Dictionary userInfo;
    userInfo.set(NSInsertedObjectsKey, objectsAsSet(inserted));
    userInfo.set(NSUpdatedObjectsKey, objectsAsSet(updated));
    userInfo.set(NSDeletedObjectsKey, objectsAsSet(deleted));
    NotificationCenter::defaultCenter()->postNotificationName(std::string(NSManagedObjectContextDidSaveNotification),
                                                              shared_from_this(), std::move(userInfo));
}

// --- Undoing and merging ----------------------------------------------------------------------

void ManagedObjectContext::refreshObject(const ManagedObjectRef& object, bool mergeChanges)
{
    checkAccess(__func__);
    if (!object || object->context_ != this || object->inserted_) {
        return;
    }
    if (!mergeChanges) {
        updated_.erase(object.get());
        deleted_.erase(object.get());
        object->updated_ = object->deleted_ = false;
        object->values_.clear();
        object->committed_.clear();
        object->fault_ = true;
        return;
    }
    if (object->fault_) {
        return;  // read fresh when first used
    }
    if (const auto snapshot = snapshotFromAbove(object->objectID(), nullptr)) {
        applySnapshot(*object, *snapshot, true);
    }
}

void ManagedObjectContext::rollback()
{
    checkAccess(__func__);
    for (const auto& object : inserted_.ordered()) {
        forget(*object);
    }
    for (const auto& object : updated_.ordered()) {
        refreshObject(object, false);
    }
    for (const auto& object : deleted_.ordered()) {
        refreshObject(object, false);
    }
}

void ManagedObjectContext::reset()
{
    checkAccess(__func__);
    auto registered = std::move(registered_);
    inserted_.clear();
    updated_.clear();
    deleted_.clear();
    registered.forEach([](const ManagedObjectRef& object) {
        object->values_.clear();
        object->context_ = nullptr;
    });
}

void ManagedObjectContext::mergeChangesFromContextDidSaveNotification(const Notification& notification)
{
    checkAccess(__func__);
    auto each = [&](std::string_view key, const std::function<void(const ManagedObjectRef&)>& action) {
        const Value* value = notification.userInfo.find(key);
        if (value == nullptr || value->set() == nullptr) {
            return;
        }
        for (const auto& element : *value->set()) {
            if (const auto* saved = ManagedObject::inValue(element)) {
                // Only the ID of another context's object is read: it is the
                // one thing that may be read from any thread.
                if (auto mine = objectRegisteredForID(saved->objectID())) {
                    action(mine);
                }
            }
        }
    };
    each(NSUpdatedObjectsKey, [&](const ManagedObjectRef& object) {
        if (!object->fault_ && !object->inserted_) {
            if (const auto snapshot = snapshotFromAbove(object->objectID(), nullptr)) {
                for (const auto* property : object->entity().properties()) {
                    object->willChangeValueForKey(property->name());
                }
                applySnapshot(*object, *snapshot, true);
                for (const auto* property : object->entity().properties()) {
                    object->didChangeValueForKey(property->name());
                }
            }
        }
    });
    each(NSDeletedObjectsKey, [&](const ManagedObjectRef& object) { forget(*object); });
}

}  // namespace platform
