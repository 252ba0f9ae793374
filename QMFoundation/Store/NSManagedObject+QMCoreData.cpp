#include "QMFoundation/Store/NSManagedObject+QMCoreData.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/OrderedSet.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "QMFoundation/Store/NSManagedObjectContext+QMCoreData.h"

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/NSManagedObject+QMCoreData";

std::vector<std::string> split(const std::string& keyPath)
{
    std::vector<std::string> components;
    std::size_t start = 0;
    for (;;) {
        const auto dot = keyPath.find('.', start);
        components.push_back(keyPath.substr(start, dot == std::string::npos ? std::string::npos : dot - start));
        if (dot == std::string::npos) {
            return components;
        }
        start = dot + 1;
    }
}

void appendObject(std::vector<platform::ManagedObjectRef>& objects, const platform::Value& value)
{
    if (auto object = value.objectAs<platform::ManagedObject>()) {
        objects.push_back(std::move(object));
    }
}
}  // namespace

platform::ManagedObjectRef managedObjectWithObjectID(const platform::ManagedObjectIDRef& objectID,
                                                     platform::ManagedObjectContext* managedObjectContext)
{
    PLATFORM_PARAMETER_ASSERT(managedObjectContext != nullptr, "managedObjectContext");
    return managedObjectContext->objectWithID(objectID);
}

platform::ManagedObjectRef initWithManagedObjectContext(std::string_view entityName,
                                                        platform::ManagedObjectContext* managedObjectContext)
{
    PLATFORM_PARAMETER_ASSERT(managedObjectContext != nullptr, "managedObjectContext");
    return platform::ManagedObject::insertNewObjectForEntityForName(entityName, *managedObjectContext);
}

platform::ManagedObjectRef createInManagedObjectContext(std::string_view entityName,
                                                        platform::ManagedObjectContext* managedObjectContext,
                                                        const std::optional<platform::Dictionary>& attributes)
{
    auto object = initWithManagedObjectContext(entityName, managedObjectContext);
    if (attributes) {
        object->setValuesForKeysWithDictionary(*attributes);
    }
    return object;
}

void refreshMergingChanges(platform::ManagedObject& object, bool mergeChanges)
{
    const auto context = object.managedObjectContext();
    if (context) {
        context->refreshObject(std::static_pointer_cast<platform::ManagedObject>(object.shared_from_this()),
                               mergeChanges);
    }
}

bool obtainPermanentID(platform::ManagedObject& object, platform::ErrorRef* error)
{
    const auto context = object.managedObjectContext();
    if (!context) {
        return false;
    }
    return context->obtainPermanentIDsForObjects(
        {std::static_pointer_cast<platform::ManagedObject>(object.shared_from_this())}, error);
}

void destroy(platform::ManagedObject& object)
{
    if (const auto context = object.managedObjectContext()) {
        context->deleteObject(std::static_pointer_cast<platform::ManagedObject>(object.shared_from_this()));
    }
}

bool isDestroyed(const platform::ManagedObject& object)
{
    const auto objectID = object.objectID();
    const auto context = object.managedObjectContext();
    if (!objectID || !context) {
        return true;
    }
    platform::ErrorRef error;
    if (!context->existingObjectWithID(objectID, &error)) {
        return error && error->code() == platform::NSManagedObjectReferentialIntegrityError;
    }
    return false;
}

bool save(platform::ManagedObject& object, platform::ErrorRef* error)
{
    const auto context = object.managedObjectContext();
    return context && context->save(error);
}

bool saveRecursive(platform::ManagedObject& object, platform::ErrorRef* error)
{
    const auto context = object.managedObjectContext();
    return context && saveRecursive(*context, error);
}

void batchFaultRelationshipsForKeyPaths(platform::ManagedObject& object,
                                        const std::optional<std::vector<std::string>>& relationshipKeyPaths)
{
    PLATFORM_PARAMETER_ASSERT(relationshipKeyPaths.has_value(), "relationshipKeyPaths");
    for (const auto& keyPath : *relationshipKeyPaths) {
        batchFaultRelationshipForKeyPath(object, keyPath);
    }
}

void batchFaultRelationshipForKeyPath(platform::ManagedObject& object,
                                      const std::optional<std::string>& relationshipKeyPath)
{
    PLATFORM_PARAMETER_ASSERT(relationshipKeyPath.has_value(), "relationshipKeyPath");
    const auto components = split(*relationshipKeyPath);
    if (components.size() == 1) {
        batchFaultRelationshipNamed(object, components.front());
        return;
    }
    std::string rest;
    for (std::size_t index = 1; index < components.size(); ++index) {
        rest += (index == 1 ? "" : ".") + components[index];
    }
    const auto objects = allObjectsForRelationshipNamed(object, components.front());
    if (!objects) {
        return;
    }
    for (const auto& related : *objects) {
        batchFaultRelationshipForKeyPath(*related, rest);
    }
}

void batchFaultRelationshipNamed(platform::ManagedObject& object, const std::optional<std::string>& relationshipName)
{
    PLATFORM_PARAMETER_ASSERT(relationshipName.has_value(), "relationshipName");
    const auto objects = allObjectsForRelationshipNamed(object, relationshipName);
    if (!objects) {
        return;
    }
    for (const auto& related : *objects) {
        if (related->isFault()) {
            related->willAccessValueForKey({});
        }
    }
}

std::optional<std::vector<platform::ManagedObjectRef>> allObjectsForRelationshipNamed(
    platform::ManagedObject& object, const std::optional<std::string>& relationshipName)
{
    PLATFORM_PARAMETER_ASSERT(relationshipName.has_value(), "relationshipName");
    const auto* relationship = object.entity().relationshipNamed(*relationshipName);
    if (relationship == nullptr) {
        return std::nullopt;
    }
    // Between will- and didAccess: a fault of the object itself is filled,
    // and no change notifications are sent.
    object.willAccessValueForKey(*relationshipName);
    const auto value = object.primitiveValueForKey(*relationshipName);
    object.didAccessValueForKey(*relationshipName);

    std::vector<platform::ManagedObjectRef> objects;
    if (!relationship->isToMany()) {
        if (!value.objectAs<platform::ManagedObject>()) {
            platform::Exception::raise(platform::NSInvalidArgumentException,
                                       "*** -[__NSPlaceholderArray initWithObjects:count:]: attempt to insert nil "
                                       "object from objects[0]");
        }
        appendObject(objects, value);
    } else if (const auto* array = value.array()) {
        for (const auto& element : *array) {
            appendObject(objects, element);
        }
    } else if (const auto* ordered = value.orderedSet()) {
        for (const auto& element : ordered->array()) {
            appendObject(objects, element);
        }
    } else if (const auto* set = value.set()) {
        for (const auto& element : *set) {
            appendObject(objects, element);
        }
    }
    return objects;
}
