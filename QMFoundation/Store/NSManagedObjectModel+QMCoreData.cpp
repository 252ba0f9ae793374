#include "QMFoundation/Store/NSManagedObjectModel+QMCoreData.h"

#include "Platform/Foundation/Exception.h"

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/NSManagedObjectModel+QMCoreData";
}

platform::ManagedObjectModelRef managedObjectModelWithName(const std::string& name, const platform::Bundle& bundle)
{
    const auto url = bundle.URLForResource(name, "momd");
    // The message prints the missing URL, which is never there: "(null)".
    PLATFORM_ASSERT(url.has_value(), "Core Data object model not found at URL (null)");
    return platform::ManagedObjectModel::modelWithContentsOfURL(*url);
}
