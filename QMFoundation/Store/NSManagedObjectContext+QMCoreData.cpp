#include "QMFoundation/Store/NSManagedObjectContext+QMCoreData.h"

#include "Platform/Foundation/Exception.h"

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/NSManagedObjectContext+QMCoreData";
constexpr const char* kRootContextName = "Persistent store context";
}  // namespace

bool saveRecursive(platform::ManagedObjectContext& context, platform::ErrorRef* error)
{
    bool success = true;
    platform::ErrorRef saveError;
    if (context.hasChanges()) {
        success = context.save(&saveError);
    }
    if (!success) {
        if (error != nullptr) {
            *error = saveError;
        }
        return false;
    }
    if (const auto& parent = context.parentContext()) {
        parent->performBlockAndWait([&] { success = saveRecursive(*parent, &saveError); });
        if (!success) {
            if (error != nullptr) {
                *error = saveError;
            }
            return false;
        }
    }
    return true;
}

std::string name_(const platform::ManagedObjectContext& context)
{
    if (auto name = context.name(); name && !name->empty()) {
        return *name;
    }
    if (const auto& parent = context.parentContext()) {
        return "Child context of " + name_(*parent);
    }
    return kRootContextName;
}

void setName_(platform::ManagedObjectContext& context, const std::optional<std::string>& name)
{
    context.setName(name);
}

std::string fullDescription(const platform::ManagedObjectContext& context)
{
    std::string text = "Name: " + name_(context) + ", ";
    const auto& parent = context.parentContext();
    text += "Parent Context: " + (parent ? name_(*parent) : std::string("(null)")) + ", ";
    text += std::string("Changes: ") + (context.hasChanges() ? "YES" : "NO");
    return text;
}

bool obtainPermanentIDs(platform::ManagedObjectContext& context, platform::ErrorRef* error)
{
    const auto inserted = context.insertedObjects();
    if (inserted.empty()) {
        return true;
    }
    return context.obtainPermanentIDsForObjects(inserted, error);
}

void batchFaultObjectWithIDs(platform::ManagedObjectContext& context,
                             const std::optional<std::vector<platform::ManagedObjectIDRef>>& objectIDs)
{
    PLATFORM_PARAMETER_ASSERT(objectIDs.has_value(), "objectIDs");
    for (const auto& objectID : *objectIDs) {
        platform::ErrorRef ignored;
        const auto object = context.existingObjectWithID(objectID, &ignored);
        if (object && object->isFault()) {
            object->willAccessValueForKey({});
        }
    }
}
