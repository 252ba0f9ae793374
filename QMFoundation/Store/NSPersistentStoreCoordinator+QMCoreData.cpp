#include "QMFoundation/Store/NSPersistentStoreCoordinator+QMCoreData.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/Exception.h"

#include <filesystem>

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/NSPersistentStoreCoordinator+QMCoreData";
}

platform::PersistentStoreCoordinatorRef persistentStoreCoordinatorWithManagedObjectModel(
    const platform::ManagedObjectModelRef& managedObjectModel, const std::optional<std::string>& storeType,
    const std::optional<platform::URL>& storeURL, const std::optional<platform::Dictionary>& options,
    platform::ErrorRef* error)
{
    PLATFORM_PARAMETER_ASSERT(managedObjectModel != nullptr, "managedObjectModel");
    PLATFORM_PARAMETER_ASSERT(storeType.has_value(), "storeType");
    const bool inMemory = *storeType == platform::NSInMemoryStoreType;
    if (!inMemory) {
        PLATFORM_PARAMETER_ASSERT(storeURL.has_value(), "storeURL");
        if (!createDirectoryIfNeededForStoreAtURL(*storeURL, error)) {
            return nullptr;
        }
    }
    auto coordinator = platform::PersistentStoreCoordinator::create(managedObjectModel);
    PLATFORM_ASSERT(coordinator != nullptr, "Could not create persistent store coordinator");
    const auto store = coordinator->addPersistentStoreWithType(*storeType, std::nullopt,
                                                               inMemory ? std::nullopt : storeURL,
                                                               options.value_or(platform::Dictionary{}), error);
    return store ? coordinator : nullptr;
}

bool createDirectoryIfNeededForStoreAtURL(const platform::URL& storeURL, platform::ErrorRef* error)
{
    const std::string directory = std::filesystem::path(storeURL.path()).parent_path().string();
    // Whether it is a directory is deliberately not asked: a file in the way
    // is found out when the store is added.
    if (platform::FileManager::fileExistsAtPath(directory)) {
        return true;
    }
    return platform::FileManager::createDirectoryAtPath(directory, true, error);
}
