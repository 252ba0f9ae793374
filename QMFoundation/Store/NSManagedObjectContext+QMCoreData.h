// NSManagedObjectContext(QMCoreData): recursive saving up the parent chain,
// context names with fallbacks, a one-line description, permanent IDs and
// batch fault firing.
//
// Each operation is called where the context may be used (its queue, its
// thread, or inside its perform calls; see ManagedObjectContext.h), except
// `name_`, which reads the context's name and so works from any thread.
//
//   ErrorRef error;
//   worker->performBlockAndWait([&] { saved = saveRecursive(*worker, &error); });
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/ObjectGraph/ManagedObjectContext.h"

#include <optional>
#include <string>
#include <vector>

// Saves the context when it has changes, then its parent on the parent's own
// queue (performBlockAndWait, which runs inline when already there), and so on
// up to the root: the call returns once the store has been written. A parent
// is saved even when its child had nothing to save. The first level that
// fails ends the walk with its own error; the levels above keep their changes
// unsaved.
[[nodiscard]] bool saveRecursive(platform::ManagedObjectContext& context, platform::ErrorRef* error = nullptr);

// The context's own name when it has one (our contexts always answer the
// platform's `name`, so the user-information entry "name" is never consulted);
// otherwise "Child context of <parent's name_>" for a child and
// "Persistent store context" for a root. Any thread.
std::string name_(const platform::ManagedObjectContext& context);
void setName_(platform::ManagedObjectContext& context, const std::optional<std::string>& name);

// "Name: <name_>, Parent Context: <parent's name_ or (null)>, Changes: YES|NO".
std::string fullDescription(const platform::ManagedObjectContext& context);

// Success at once when nothing is inserted; otherwise permanent IDs for every
// inserted object.
[[nodiscard]] bool obtainPermanentIDs(platform::ManagedObjectContext& context, platform::ErrorRef* error = nullptr);

// Loads each object that exists and is still a fault, in order; missing ones
// are skipped and look-up errors ignored. The collection is required.
void batchFaultObjectWithIDs(platform::ManagedObjectContext& context,
                             const std::optional<std::vector<platform::ManagedObjectIDRef>>& objectIDs);
