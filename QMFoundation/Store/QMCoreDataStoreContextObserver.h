// QMCoreDataStoreContextObserver: one entry of the store observer. It holds
// the observed context, the notification-centre token registered for that
// context's saves (kept only to unregister it), and the contexts into which
// those saves are merged.
//
// Key-value observing: "targetManagedObjectContexts" changes whenever
// "managedTargetManagedObjectContexts" does, so observers of the snapshot
// hear of every add and remove.
//
// Threading: not locked. The target set changes only while no save of the
// observed context is being delivered; deliveries read the snapshot.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/ObjectGraph/ManagedObjectContext.h"

#include <memory>
#include <string>
#include <vector>

class QMCoreDataStoreContextObserver final : public platform::Object {
public:
    // Both are required (an assertion otherwise).
    static std::shared_ptr<QMCoreDataStoreContextObserver> contextObserverWithManagedObjectContext(
        const platform::ManagedObjectContextRef& managedObjectContext, const platform::ObjectRef& observer);

    const platform::ManagedObjectContextRef& managedObjectContext() const { return managedObjectContext_; }
    void setManagedObjectContext(platform::ManagedObjectContextRef context) { managedObjectContext_ = std::move(context); }
    const platform::ObjectRef& observer() const { return observer_; }
    void setObserver(platform::ObjectRef observer) { observer_ = std::move(observer); }

    // A second add of the same context has no effect.
    void addTargetManagedObjectContext(const platform::ManagedObjectContextRef& targetManagedObjectContext);
    void removeTargetManagedObjectContext(const platform::ManagedObjectContextRef& targetManagedObjectContext);
    // A copy, in the order the targets were added; later changes do not show in it.
    std::vector<platform::ManagedObjectContextRef> targetManagedObjectContexts() const { return targets_; }

    const platform::PropertyTable& propertyTable() const override;
    std::vector<std::string> keyPathsForValuesAffectingValueForKey(std::string_view key) const override;
    std::string className() const override { return "QMCoreDataStoreContextObserver"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    QMCoreDataStoreContextObserver(platform::ManagedObjectContextRef context, platform::ObjectRef observer)
        : managedObjectContext_(std::move(context)), observer_(std::move(observer))
    {
    }

    platform::ManagedObjectContextRef managedObjectContext_;
    platform::ObjectRef observer_;
    std::vector<platform::ManagedObjectContextRef> targets_;  // distinct, by identity
};

using QMCoreDataStoreContextObserverRef = std::shared_ptr<QMCoreDataStoreContextObserver>;
