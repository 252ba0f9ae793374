#include "QMFoundation/Store/QMCoreDataStoreObserver.h"

#include "Platform/Foundation/Exception.h"
#include "QMFoundation/Store/NSManagedObjectContext+QMCoreData.h"

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/QMCoreDataStoreObserver";

std::vector<platform::ManagedObjectIDRef> objectIDsUnderKey(const platform::Notification& notification,
                                                           std::string_view key)
{
    std::vector<platform::ManagedObjectIDRef> objectIDs;
    const auto* value = notification.userInfo.find(key);
    if (value == nullptr) {
        return objectIDs;
    }
    const auto collect = [&](const auto& elements) {
        objectIDs.reserve(elements.size());
        for (const auto& element : elements) {
            if (const auto* object = platform::ManagedObject::inValue(element)) {
                objectIDs.push_back(object->objectID());
            }
        }
    };
    if (const auto* set = value->set()) {
        collect(*set);
    } else if (const auto* array = value->array()) {
        collect(*array);
    }
    return objectIDs;
}
}  // namespace

std::shared_ptr<QMCoreDataStoreObserver> QMCoreDataStoreObserver::create()
{
    return platform::makeObject<QMCoreDataStoreObserver>();
}

QMCoreDataStoreObserver::~QMCoreDataStoreObserver()
{
    removeAllObservers();
}

void QMCoreDataStoreObserver::addObserverForContext(const platform::ManagedObjectContextRef& observedManagedObjectContext,
                                                    const platform::ManagedObjectContextRef& targetManagedObjectContext)
{
    PLATFORM_PARAMETER_ASSERT(observedManagedObjectContext != nullptr, "observedManagedObjectContext");
    PLATFORM_PARAMETER_ASSERT(targetManagedObjectContext != nullptr, "targetManagedObjectContext");

    const std::weak_ptr<QMCoreDataStoreObserver> weakSelf =
        std::static_pointer_cast<QMCoreDataStoreObserver>(shared_from_this());
    auto token = platform::NotificationCenter::defaultCenter()->addObserverForName(
        std::string(platform::NSManagedObjectContextDidSaveNotification), observedManagedObjectContext, nullptr,
        [weakSelf](const platform::Notification& notification) {
            if (const auto self = weakSelf.lock()) {
                self->mergeChangesFromContextDidSaveNotification(notification);
            }
        });

    const std::string name = name_(*observedManagedObjectContext);
    auto entry = contextObserverForName(name);
    if (!entry) {
        entry = QMCoreDataStoreContextObserver::contextObserverWithManagedObjectContext(observedManagedObjectContext,
                                                                                        token);
    }
    entry->addTargetManagedObjectContext(targetManagedObjectContext);
    addContextObserver(entry, name);
}

void QMCoreDataStoreObserver::removeObserverForContext(
    const platform::ManagedObjectContextRef& observedManagedObjectContext,
    const platform::ManagedObjectContextRef& targetManagedObjectContext)
{
    PLATFORM_PARAMETER_ASSERT(observedManagedObjectContext != nullptr, "observedManagedObjectContext");
    PLATFORM_PARAMETER_ASSERT(targetManagedObjectContext != nullptr, "targetManagedObjectContext");
    // The entries are keyed by name, and this looks for the context object
    // itself: its description, which no name equals. Applications depend on
    // the merge staying in place, so the look-up is left as it is.
    const auto entry = contextObserverForName(observedManagedObjectContext->description());
    if (!entry || entry->managedObjectContext() != observedManagedObjectContext) {
        return;
    }
    entry->removeTargetManagedObjectContext(targetManagedObjectContext);
    if (entry->targetManagedObjectContexts().empty()) {
        removeContextObserverForName(name_(*observedManagedObjectContext));
    }
}

void QMCoreDataStoreObserver::removeAllObserversForContext(
    const platform::ManagedObjectContextRef& observedManagedObjectContext)
{
    PLATFORM_PARAMETER_ASSERT(observedManagedObjectContext != nullptr, "observedManagedObjectContext");
    removeContextObserverForName(name_(*observedManagedObjectContext));
}

void QMCoreDataStoreObserver::removeAllObservers()
{
    for (const auto& [name, entry] : contextObservers()) {
        removeContextObserverForName(name);
    }
}

void QMCoreDataStoreObserver::mergeChangesFromContextDidSaveNotification(const platform::Notification& notification)
{
    const auto observed = std::dynamic_pointer_cast<platform::ManagedObjectContext>(notification.object);
    if (!observed) {
        return;
    }
    const auto entry = contextObserverForName(name_(*observed));
    if (!entry) {
        return;
    }
    // The IDs are read here, on the saving thread, while the saved objects
    // are still in the state the save left them; any thread may read an ID.
    auto inserted = objectIDsUnderKey(notification, platform::NSInsertedObjectsKey);
    auto updated = objectIDsUnderKey(notification, platform::NSUpdatedObjectsKey);
    const bool hasInserted = notification.userInfo.contains(platform::NSInsertedObjectsKey);
    const bool hasUpdated = notification.userInfo.contains(platform::NSUpdatedObjectsKey);
    for (const auto& target : entry->targetManagedObjectContexts()) {
        target->performBlock([target, notification, inserted, updated, hasInserted, hasUpdated] {
            target->mergeChangesFromContextDidSaveNotification(notification);
            if (hasInserted) {
                batchFaultObjectWithIDs(*target, inserted);
            }
            if (hasUpdated) {
                batchFaultObjectWithIDs(*target, updated);
            }
        });
    }
}

void QMCoreDataStoreObserver::addContextObserver(const QMCoreDataStoreContextObserverRef& contextObserver,
                                                 const std::string& name)
{
    const std::lock_guard lock(contextObserversMutex_);
    contextObservers_[name] = contextObserver;
}

QMCoreDataStoreContextObserverRef QMCoreDataStoreObserver::contextObserverForName(const std::string& name) const
{
    const std::lock_guard lock(contextObserversMutex_);
    const auto found = contextObservers_.find(name);
    return found == contextObservers_.end() ? nullptr : found->second;
}

void QMCoreDataStoreObserver::removeContextObserverForName(const std::string& name)
{
    QMCoreDataStoreContextObserverRef entry;
    {
        const std::lock_guard lock(contextObserversMutex_);
        const auto found = contextObservers_.find(name);
        if (found == contextObservers_.end()) {
            return;
        }
        entry = found->second;
        contextObservers_.erase(found);
    }
    platform::NotificationCenter::defaultCenter()->removeObserver(entry->observer());
}

QMCoreDataStoreObserver::ContextObservers QMCoreDataStoreObserver::contextObservers() const
{
    const std::lock_guard lock(contextObserversMutex_);
    return contextObservers_;
}
