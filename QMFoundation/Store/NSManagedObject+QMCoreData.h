// NSManagedObject(QMCoreData): creating objects of an entity class, and
// saving, deleting, refreshing and pre-loading the relationships of one.
//
// An entity class is named like its entity, so the class side takes the
// entity's name where the class would be the receiver:
//
//   auto note = createInManagedObjectContext("Note", *context, Dictionary{{"title", "Hello"}});
//   batchFaultRelationshipsForKeyPaths(*folder, {"notes.folder"});
//
// Everything here is called where the object's context may be used
// (ManagedObjectContext.h).
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/ObjectGraph/ManagedObject.h"
#include "Platform/ObjectGraph/ManagedObjectContext.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// --- Class side ------------------------------------------------------------

// The context's object for the ID; a fault when not yet loaded.
platform::ManagedObjectRef managedObjectWithObjectID(const platform::ManagedObjectIDRef& objectID,
                                                     platform::ManagedObjectContext* managedObjectContext);
// A new object of the entity inserted into the context, then given the values
// by key-value coding (keys are property names).
platform::ManagedObjectRef createInManagedObjectContext(std::string_view entityName,
                                                        platform::ManagedObjectContext* managedObjectContext,
                                                        const std::optional<platform::Dictionary>& attributes = {});
// A new object of the entity inserted into the context (the context is required).
platform::ManagedObjectRef initWithManagedObjectContext(std::string_view entityName,
                                                        platform::ManagedObjectContext* managedObjectContext);

// --- Instance side ---------------------------------------------------------

void refreshMergingChanges(platform::ManagedObject& object, bool mergeChanges);
[[nodiscard]] bool obtainPermanentID(platform::ManagedObject& object, platform::ErrorRef* error = nullptr);
void destroy(platform::ManagedObject& object);
// True when the object has no ID or no context, or when its context finds no
// such object any more (a referential-integrity error, 133000, of any domain).
bool isDestroyed(const platform::ManagedObject& object);
[[nodiscard]] bool save(platform::ManagedObject& object, platform::ErrorRef* error = nullptr);
// Saves the object's context and every ancestor down to the store.
[[nodiscard]] bool saveRecursive(platform::ManagedObject& object, platform::ErrorRef* error = nullptr);

// For each key path in order, batchFaultRelationshipForKeyPath.
void batchFaultRelationshipsForKeyPaths(platform::ManagedObject& object,
                                        const std::optional<std::vector<std::string>>& relationshipKeyPaths);
// "a.b.c": loads the objects reached by c from every object reached by a.b;
// the objects of the levels between are not themselves loaded here.
void batchFaultRelationshipForKeyPath(platform::ManagedObject& object,
                                      const std::optional<std::string>& relationshipKeyPath);
// Loads every object of the relationship that is still a fault.
void batchFaultRelationshipNamed(platform::ManagedObject& object, const std::optional<std::string>& relationshipName);
// The related objects: an ordered to-many in its order, an unordered one in
// no defined order, a to-one as one element. Nothing for an unknown name; an
// empty to-one raises "NSInvalidArgumentException".
[[nodiscard]] std::optional<std::vector<platform::ManagedObjectRef>> allObjectsForRelationshipNamed(
    platform::ManagedObject& object, const std::optional<std::string>& relationshipName);
