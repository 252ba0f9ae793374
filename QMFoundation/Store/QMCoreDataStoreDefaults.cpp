#include "QMFoundation/Store/QMCoreDataStoreDefaults.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/ObjectGraph/PersistentStore.h"

#include <mutex>

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/QMCoreDataStoreDefaults";

std::optional<std::string> infoString(const platform::Bundle& bundle, std::string_view key)
{
    const auto value = bundle.objectForInfoDictionaryKey(key);
    if (const auto* text = value.string()) {
        return *text;
    }
    return std::nullopt;
}
}  // namespace

QMCoreDataStoreDefaults::QMCoreDataStoreDefaults()
{
    extensionByType_.set(platform::NSSQLiteStoreType, "sqlite3");
    extensionByType_.set(platform::NSXMLStoreType, "xml");
}

std::shared_ptr<QMCoreDataStoreDefaults> QMCoreDataStoreDefaults::sharedDefaults()
{
    static std::once_flag once;
    static std::shared_ptr<QMCoreDataStoreDefaults> shared;
    std::call_once(once, [] { shared = create(); });
    return shared;
}

std::shared_ptr<QMCoreDataStoreDefaults> QMCoreDataStoreDefaults::create()
{
    return platform::makeObject<QMCoreDataStoreDefaults>();
}

platform::BundleRef QMCoreDataStoreDefaults::defaultBundle()
{
    if (!defaultBundle_) {
        defaultBundle_ = platform::Bundle::mainBundle();
    }
    return defaultBundle_;
}

std::optional<std::string> QMCoreDataStoreDefaults::defaultManagedObjectModelName()
{
    if (!modelName_) {
        modelName_ = makeDefaultManagedObjectModelName();
    }
    return modelName_;
}

std::optional<std::string> QMCoreDataStoreDefaults::defaultStoreName()
{
    if (!storeName_) {
        storeName_ = makeDefaultStoreName();
    }
    return storeName_;
}

std::optional<platform::URL> QMCoreDataStoreDefaults::defaultStoreDirectoryURL()
{
    if (!storeDirectoryURL_) {
        storeDirectoryURL_ = makeDefaultStoreDirectoryURL();
    }
    return storeDirectoryURL_;
}

std::optional<std::string> QMCoreDataStoreDefaults::defaultExtensionForStoreType(
    const std::optional<std::string>& storeType) const
{
    PLATFORM_PARAMETER_ASSERT(storeType.has_value(), "storeType");
    const auto* extension = extensionByType_.find(*storeType);
    if (extension == nullptr || extension->string() == nullptr) {
        return std::nullopt;
    }
    return *extension->string();
}

void QMCoreDataStoreDefaults::setDefaultExtension(const std::optional<std::string>& extension,
                                                  const std::optional<std::string>& storeType)
{
    PLATFORM_PARAMETER_ASSERT(storeType.has_value(), "storeType");
    extensionByType_.set(*storeType, extension.value_or(""));
}

std::optional<platform::Dictionary> QMCoreDataStoreDefaults::defaultStoreOptionsForStoreType(
    const std::optional<std::string>& storeType) const
{
    PLATFORM_PARAMETER_ASSERT(storeType.has_value(), "storeType");
    const auto* options = optionsByType_.find(*storeType);
    if (options == nullptr || options->dictionary() == nullptr) {
        return std::nullopt;
    }
    return *options->dictionary();
}

void QMCoreDataStoreDefaults::setDefaultStoreOptions(const std::optional<platform::Dictionary>& options,
                                                     const std::optional<std::string>& storeType)
{
    PLATFORM_PARAMETER_ASSERT(storeType.has_value(), "storeType");
    if (options) {
        optionsByType_.set(*storeType, *options);
    } else {
        optionsByType_.remove(*storeType);
    }
}

std::optional<std::string> QMCoreDataStoreDefaults::makeDefaultManagedObjectModelName()
{
    return bundleName();
}

std::optional<std::string> QMCoreDataStoreDefaults::makeDefaultStoreName()
{
    return bundleName();
}

std::optional<platform::URL> QMCoreDataStoreDefaults::makeDefaultStoreDirectoryURL()
{
    const auto directories = platform::FileManager::URLsForDirectory(platform::SearchPathDirectory::ApplicationSupport);
    std::optional<platform::URL> directory;
    if (!directories.empty()) {
        if (const auto identifier = bundleIdentifier()) {
            directory = directories.back().URLByAppendingPathComponent(*identifier);
        }
    }
    PLATFORM_ASSERT(directory.has_value(),
                    "Unable to create default store directory using the application support directory. When running "
                    "unit tests, you need to invoke `setUpCoreDataStackWithStoreType:storeURL:options:error:` with "
                    "the full store URL.");
    return directory;
}

std::optional<std::string> QMCoreDataStoreDefaults::bundleName()
{
    const auto bundle = defaultBundle();
    if (auto name = infoString(*bundle, "CFBundleName")) {
        return name;
    }
    if (const auto identifier = infoString(*bundle, "CFBundleIdentifier")) {
        const auto dot = identifier->rfind('.');
        return dot == std::string::npos ? *identifier : identifier->substr(dot + 1);
    }
    PLATFORM_ASSERT(false, "Unable to determine bundle name");
    return std::nullopt;
}

std::optional<std::string> QMCoreDataStoreDefaults::bundleIdentifier()
{
    auto identifier = infoString(*defaultBundle(), "CFBundleIdentifier");
    PLATFORM_ASSERT(identifier.has_value(), "Unable to determine bundle identifier");
    return identifier;
}
