#include "QMFoundation/Store/QMCoreDataStore.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/Exception.h"
#include "QMFoundation/Objects/NSObject+QMObjectDescribing.h"
#include "QMFoundation/Store/NSPersistentStoreCoordinator+QMCoreData.h"
#include "QMFoundation/Store/QMCoreDataStoreManager.h"

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/QMCoreDataStore";

std::optional<std::string> contextName(std::string_view text)
{
    return std::string(text);
}
}  // namespace

QMCoreDataStore::QMCoreDataStore(platform::URL modelURL, std::string storeType, std::optional<platform::URL> storeURL,
                                 std::optional<platform::Dictionary> storeOptions)
    : managedObjectModelURL_(std::move(modelURL)),
      storeType_(std::move(storeType)),
      storeURL_(std::move(storeURL)),
      storeOptions_(std::move(storeOptions))
{
}

QMCoreDataStoreDefaultsRef QMCoreDataStore::defaults()
{
    return QMCoreDataStoreDefaults::sharedDefaults();
}

QMCoreDataStoreRef QMCoreDataStore::defaultStore()
{
    return QMCoreDataStoreManager::sharedManager()->defaultStore();
}

QMCoreDataStoreRef QMCoreDataStore::sharedStoreForName(const std::string& name)
{
    return QMCoreDataStoreManager::sharedManager()->storeForName(name);
}

QMCoreDataStoreRef QMCoreDataStore::defaultStoreWithInMemoryStoreType()
{
    return defaultStoreWithStoreType(platform::NSInMemoryStoreType, *defaults());
}

QMCoreDataStoreRef QMCoreDataStore::defaultStoreWithXMLStoreType()
{
    return defaultStoreWithStoreType(platform::NSXMLStoreType, *defaults());
}

QMCoreDataStoreRef QMCoreDataStore::defaultStoreWithSqliteStoreType()
{
    return defaultStoreWithStoreType(platform::NSSQLiteStoreType, *defaults());
}

QMCoreDataStoreRef QMCoreDataStore::defaultStoreWithStoreType(std::string_view storeType,
                                                              QMCoreDataStoreDefaults& defaults)
{
    const auto bundle = defaults.defaultBundle();
    const auto modelName = defaults.defaultManagedObjectModelName();
    std::optional<platform::URL> modelURL;
    if (modelName) {
        modelURL = bundle->URLForResource(*modelName, "momd");
    }
    // The message names the bundle's identifier, not the model: kept so.
    PLATFORM_ASSERT(modelURL.has_value(), "Could not find resource " + bundle->bundleIdentifier().value_or("(null)") +
                                              ".momd in default bundle");

    const std::string type(storeType);
    std::optional<platform::URL> storeURL;
    if (storeType != platform::NSInMemoryStoreType) {
        const auto directory = defaults.defaultStoreDirectoryURL();
        const auto storeName = defaults.defaultStoreName();
        const auto extension = defaults.defaultExtensionForStoreType(type);
        if (directory && storeName && extension) {
            storeURL = directory->URLByAppendingPathComponent(
                extension->empty() ? *storeName : *storeName + "." + *extension);
        }
        PLATFORM_ASSERT(storeURL.has_value(), "Could not create store URL");
    }
    return storeWithManagedObjectModelURL(modelURL, type, storeURL, defaults.defaultStoreOptionsForStoreType(type));
}

QMCoreDataStoreRef QMCoreDataStore::storeWithManagedObjectModelURL(
    const std::optional<platform::URL>& managedObjectModelURL, const std::optional<std::string>& storeType,
    const std::optional<platform::URL>& storeURL, const std::optional<platform::Dictionary>& storeOptions)
{
    PLATFORM_PARAMETER_ASSERT(managedObjectModelURL.has_value(), "managedObjectModelURL");
    PLATFORM_PARAMETER_ASSERT(managedObjectModelURL->isFileURL(), "[managedObjectModelURL isFileURL]");
    PLATFORM_PARAMETER_ASSERT(storeType.has_value(), "storeType");
    if (*storeType != platform::NSInMemoryStoreType) {
        PLATFORM_ASSERT(storeURL && storeURL->isFileURL(), "Store URL must be a valid file protocol URL.");
    }
    return platform::makeObject<QMCoreDataStore>(*managedObjectModelURL, *storeType, storeURL, storeOptions);
}

bool QMCoreDataStore::initialize(platform::ErrorRef* error)
{
    auto model = platform::ManagedObjectModel::modelWithContentsOfURL(managedObjectModelURL_);
    PLATFORM_ASSERT(model != nullptr,
                    "Could not create ManagedObjectModel from URL: " + managedObjectModelURL_.absoluteString());
    const bool inMemory = storeType_ == platform::NSInMemoryStoreType;
    platform::ErrorRef openError;
    auto coordinator = persistentStoreCoordinatorWithManagedObjectModel(
        model, storeType_, inMemory ? std::nullopt : storeURL_, storeOptions_, &openError);
    if (error != nullptr && !coordinator) {
        *error = openError;
        return false;
    }
    managedObjectModel_ = std::move(model);
    coordinator_ = std::move(coordinator);
    initialized_ = true;
    return true;
}

void QMCoreDataStore::uninitialize()
{
    if (!initialized_) {
        return;
    }
    storeObserver()->removeAllObservers();
    managedObjectContextManager()->removeAllManagedObjectContexts();
    initialized_ = false;
}

bool QMCoreDataStore::deleteStoreFile(platform::ErrorRef* error)
{
    if (storeType_ == platform::NSInMemoryStoreType) {
        return true;
    }
    return platform::FileManager::removeItemAtPath(storeURL_->path(), error);
}

bool QMCoreDataStore::rebuild(platform::ErrorRef* error)
{
    uninitialize();
    // The coordinator stays referenced, but its store must let go of the file
    // before it is deleted: an open connection would otherwise go on writing
    // (and, when it closes, clean up) a journal at the path the new store's
    // journal takes.
    if (coordinator_) {
        for (const auto& store : coordinator_->persistentStores()) {
            (void)coordinator_->removePersistentStore(store);
        }
    }
    if (!deleteStoreFile(error)) {
        return false;
    }
    return initialize(error);
}

platform::ManagedObjectContextRef QMCoreDataStore::persistentStoreManagedObjectContext() const
{
    return managedObjectContextForName(contextName(QMCoreDataStorePersistentStoreContextName));
}

void QMCoreDataStore::setPersistentStoreManagedObjectContext(platform::ManagedObjectContextRef context)
{
    persistentStoreContext_ = std::move(context);
}

platform::ManagedObjectContextRef QMCoreDataStore::mainManagedObjectContext() const
{
    return managedObjectContextForName(contextName(QMCoreDataStoreMainContextName));
}

void QMCoreDataStore::setMainManagedObjectContext(platform::ManagedObjectContextRef context)
{
    mainContext_ = std::move(context);
}

void QMCoreDataStore::setBackgroundManagedObjectContext(platform::ManagedObjectContextRef context)
{
    backgroundContext_ = std::move(context);
}

const QMCoreDataStoreContextManagerRef& QMCoreDataStore::managedObjectContextManager() const
{
    if (!contextManager_) {
        contextManager_ = QMCoreDataStoreContextManager::create();
    }
    return contextManager_;
}

const QMCoreDataStoreObserverRef& QMCoreDataStore::storeObserver() const
{
    if (!storeObserver_) {
        storeObserver_ = QMCoreDataStoreObserver::create();
    }
    return storeObserver_;
}

QMCoreDataStoreContextManager::ContextsByName QMCoreDataStore::allManagedObjectContextsByName() const
{
    return managedObjectContextManager()->allManagedObjectContextsByName();
}

std::vector<platform::ManagedObjectContextRef> QMCoreDataStore::allManagedObjectContexts() const
{
    return managedObjectContextManager()->allManagedObjectContexts();
}

platform::ManagedObjectContextRef QMCoreDataStore::managedObjectContextForName(
    const std::optional<std::string>& name) const
{
    return managedObjectContextManager()->managedObjectContextForName(name);
}

void QMCoreDataStore::setManagedObjectContext(const platform::ManagedObjectContextRef& context,
                                              const std::optional<std::string>& name)
{
    managedObjectContextManager()->setManagedObjectContext(context, name);
}

void QMCoreDataStore::removeManagedObjectContextForName(const std::optional<std::string>& name)
{
    managedObjectContextManager()->removeManagedObjectContextForName(name);
}

void QMCoreDataStore::addObserverForContext(const platform::ManagedObjectContextRef& observed,
                                            const platform::ManagedObjectContextRef& target)
{
    storeObserver()->addObserverForContext(observed, target);
}

void QMCoreDataStore::removeObserverForContext(const platform::ManagedObjectContextRef& observed,
                                               const platform::ManagedObjectContextRef& target)
{
    storeObserver()->removeObserverForContext(observed, target);
}

std::string QMCoreDataStore::description() const
{
    const auto orNull = [](const auto& value) { return value ? platform::Value(*value) : platform::Value::null(); };
    platform::Dictionary dictionary;
    dictionary.set("name", orNull(name_));
    dictionary.set("managedObjectModelURL", managedObjectModelURL_.absoluteString());
    dictionary.set("storeURL", storeURL_ ? platform::Value(storeURL_->absoluteString()) : platform::Value::null());
    dictionary.set("storeType", storeType_);
    dictionary.set("storeOptions", orNull(storeOptions_));
    return prettyDescriptionWithDictionary(*this, dictionary);
}
