// QMCoreDataStoreObserver: keeps contexts that do not share a parent chain in
// step. Each save of an observed context is merged into its targets, each on
// the target's own queue (performBlock), and the saved inserted and updated
// objects are then loaded there at once.
//
//   observer->addObserverForContext(workerRoot, mainContext);
//   // a save of workerRoot reaches mainContext on the main queue
//
// Entries are keyed by the observed context's name_, so two observed contexts
// with equal names share one entry (a save of either merges into the targets
// of both): contexts to be observed need distinct names.
//
// Kept as it has always behaved, and relied on:
// - Every add registers a new did-save observation, even when the entry
//   exists; only the first token is kept. After k adds for one observed
//   context each save is delivered k times and each target merged k times.
//   Removing the entry unregisters only the kept token; the others stay and
//   find no entry (they merge again once an entry of that name exists).
// - removeObserverForContext looks the entry up by the context object, not by
//   its name, finds nothing and changes nothing.
// - The did-save block holds this observer weakly: one destroyed without
//   removeAllObservers stops merging instead of being called after it is gone.
//
// Threading: the did-save block runs on the thread that saved; the merge and
// the fault firing later, on each target's queue. Adding and removing happen
// on one thread while no save of an observed context is in flight; the entry
// table is nevertheless guarded, so a save racing a change reads a whole table.
#pragma once

#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/Object.h"
#include "Platform/ObjectGraph/ManagedObjectContext.h"
#include "QMFoundation/Store/QMCoreDataStoreContextObserver.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

class QMCoreDataStoreObserver final : public platform::Object {
public:
    using ContextObservers = std::map<std::string, QMCoreDataStoreContextObserverRef, std::less<>>;

    static std::shared_ptr<QMCoreDataStoreObserver> create();
    // Calls removeAllObservers first.
    ~QMCoreDataStoreObserver() override;

    void addObserverForContext(const platform::ManagedObjectContextRef& observedManagedObjectContext,
                               const platform::ManagedObjectContextRef& targetManagedObjectContext);
    // Finds nothing and changes nothing (see above).
    void removeObserverForContext(const platform::ManagedObjectContextRef& observedManagedObjectContext,
                                  const platform::ManagedObjectContextRef& targetManagedObjectContext);
    void removeAllObserversForContext(const platform::ManagedObjectContextRef& observedManagedObjectContext);
    void removeAllObservers();

    // Schedules the merge of a did-save notification into every target of the
    // sender's entry; nothing when the sender has none.
    void mergeChangesFromContextDidSaveNotification(const platform::Notification& notification);

    // Replaces any earlier entry without unregistering its token.
    void addContextObserver(const QMCoreDataStoreContextObserverRef& contextObserver, const std::string& name);
    QMCoreDataStoreContextObserverRef contextObserverForName(const std::string& name) const;
    // Unregisters the entry's token and removes the entry; nothing without one.
    void removeContextObserverForName(const std::string& name);
    // A snapshot of the entries by name.
    ContextObservers contextObservers() const;

    std::string className() const override { return "QMCoreDataStoreObserver"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    QMCoreDataStoreObserver() = default;

    mutable std::mutex contextObserversMutex_;  // guards `contextObservers_`
    ContextObservers contextObservers_;
};

using QMCoreDataStoreObserverRef = std::shared_ptr<QMCoreDataStoreObserver>;
