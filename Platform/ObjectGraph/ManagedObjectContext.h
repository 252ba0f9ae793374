// ManagedObjectContext: a scratch pad of objects of the graph, with its own
// unsaved changes, saved into its parent context or through its coordinator
// into the store.
//
//   auto root = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::PrivateQueue);
//   root->setPersistentStoreCoordinator(coordinator);
//   auto main = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::MainQueue);
//   main->setParentContext(root);
//   // on the main thread:
//   auto note = ManagedObject::insertNewObjectForEntityForName("Note", *main);
//   ErrorRef error;
//   main->save(&error);                                  // into `root`, not yet the store
//   root->performBlockAndWait([&] { root->save(&error); }); // now in the store
//
// Threading: where each kind of context may be used.
//
// | Kind          | Direct calls           | performBlock           | performBlockAndWait         |
// |---------------|------------------------|------------------------|-----------------------------|
// | PrivateQueue  | only inside its blocks | its own serial queue   | on its queue; inline (re-   |
// |               |                        |                        | entrant) when already on it |
// | MainQueue     | on the main thread     | the main queue (needs  | inline on the main thread;  |
// |               |                        | the main run loop)     | else on the main queue      |
// | Confinement   | on the thread that     | that thread's run loop | inline, on any thread: the  |
// |               | made it                | (needs it to run)      | caller must know the owner  |
// |               |                        |                        | is not using it meanwhile   |
//
// - The same context's objects follow the same rule. Debug builds check every
//   call and raise "NSInternalInconsistencyException" from the wrong place
//   (a block of performBlock/performBlockAndWait is always the right place).
// - performBlockAndWait never deadlocks on its own queue (it runs inline
//   there), so a save up a chain of contexts (each parent entered with
//   performBlockAndWait) works from any level; a cycle through two private
//   queues waiting on each other is the caller's deadlock.
// - A child context reads and saves through its parent: it enters the parent
//   with performBlockAndWait for a fault, a fetch or a save, so a parent's
//   queue must not be blocked waiting for its child.
//
// What a context sees: its own unsaved changes, then its parent's (for a
// child), then the store. A fetch includes inserted objects that match and
// leaves out deleted ones (unless the request says otherwise). Changes saved
// by another context are seen only after a merge
// (mergeChangesFromContextDidSaveNotification) or a refresh; objects not yet
// loaded are read fresh when first used.
//
// Saving: `save` validates (required values present, values of the
// attribute's type, deny rules), then a child pushes its changes into its
// parent (the parent then has them as its own unsaved changes), and a root
// writes them through its coordinator in one store transaction. After a
// successful save the did-save notification is posted on the saving thread,
// object the context, with the saved objects under NSInsertedObjectsKey,
// NSUpdatedObjectsKey and NSDeletedObjectsKey (each a Set).
//
// Conflicts: a root context's save of an object that another context saved
// since it was read is a conflict, resolved by the merge policy: Error (the
// default) fails with NSManagedObjectMergeError and the conflicting objects
// under "conflictList"; MergeByPropertyStoreTrump and
// MergeByPropertyObjectTrump merge property by property (changes on one side
// only are kept; a property changed on both sides takes the store's or the
// object's value); Overwrite writes the context's objects whole; Rollback
// takes the store's objects whole, dropping the context's changes to them.
#pragma once

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Dispatch/SequenceChecker.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/ObjectGraph/ManagedObject.h"
#include "Platform/ObjectGraph/ObjectSet.h"
#include "Platform/ObjectGraph/RegisteredObjects.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace platform {

class PersistentStoreCoordinator;
class ManagedObjectContext;
using ManagedObjectContextRef = std::shared_ptr<ManagedObjectContext>;

enum class ManagedObjectContextConcurrencyType {
    Confinement,
    PrivateQueue,
    MainQueue,
};

enum class MergePolicy {
    Error,
    MergeByPropertyStoreTrump,
    MergeByPropertyObjectTrump,
    Overwrite,
    Rollback,
};

inline constexpr std::string_view NSManagedObjectContextDidSaveNotification = "NSManagedObjectContextDidSaveNotification";
inline constexpr std::string_view NSManagedObjectContextWillSaveNotification = "NSManagedObjectContextWillSaveNotification";
inline constexpr std::string_view NSInsertedObjectsKey = "inserted";
inline constexpr std::string_view NSUpdatedObjectsKey = "updated";
inline constexpr std::string_view NSDeletedObjectsKey = "deleted";

class ManagedObjectContext final : public Object {
public:
    ~ManagedObjectContext() override;

    // A confinement context is bound to the calling thread.
    static ManagedObjectContextRef create(ManagedObjectContextConcurrencyType type);

    ManagedObjectContextConcurrencyType concurrencyType() const { return type_; }

    // --- Any thread -----------------------------------------------------------

    // See the banner's table. The block may use the context and its objects.
    void performBlock(std::function<void()> block);
    void performBlockAndWait(const std::function<void()>& block);

    // Set once, before the context is used (the platform makes changing them
    // later a programming error; here, too: "NSInternalInconsistencyException").
    void setPersistentStoreCoordinator(std::shared_ptr<PersistentStoreCoordinator> coordinator);
    void setParentContext(ManagedObjectContextRef parent);
    // The root's coordinator for a child.
    std::shared_ptr<PersistentStoreCoordinator> persistentStoreCoordinator() const;
    const ManagedObjectContextRef& parentContext() const { return parent_; }

    // The context's name (nothing until set); any thread.
    std::optional<std::string> name() const;
    void setName(std::optional<std::string> name);

    // --- On the context's queue or thread ---------------------------------------

    Dictionary& userInfo();
    // An undo manager, if the application gives one; the context keeps it and
    // does not use it.
    const ObjectRef& undoManager() const { return undoManager_; }
    void setUndoManager(ObjectRef undoManager) { undoManager_ = std::move(undoManager); }
    MergePolicy mergePolicy() const { return mergePolicy_; }
    void setMergePolicy(MergePolicy policy) { mergePolicy_ = policy; }

    bool hasChanges() const;
    // In the order the objects joined each set.
    std::vector<ManagedObjectRef> insertedObjects() const;
    std::vector<ManagedObjectRef> updatedObjects() const;
    std::vector<ManagedObjectRef> deletedObjects() const;
    std::vector<ManagedObjectRef> registeredObjects() const;

    // Inserts an object made in no context (ManagedObject::create with none);
    // raises "NSInvalidArgumentException" for one of another context.
    void insertObject(const ManagedObjectRef& object);
    // Marks the object deleted and applies its relationships' delete rules at
    // once (nullify: it leaves the inverses; cascade: the related objects are
    // deleted too; deny: checked at save). An inserted object is simply
    // forgotten.
    void deleteObject(const ManagedObjectRef& object);

    [[nodiscard]] bool save(ErrorRef* error = nullptr);
    // Drops every unsaved change: inserted objects leave, the others become
    // faults again.
    void rollback();
    // Forgets every object (they are left with no context).
    void reset();

    // The objects that match, with the context's own changes (see the banner).
    [[nodiscard]] std::optional<std::vector<ManagedObjectRef>> executeFetchRequest(const FetchRequest& request,
                                                                                  ErrorRef* error = nullptr);
    // The same for ID results (the request's result type is not consulted).
    [[nodiscard]] std::optional<std::vector<ManagedObjectIDRef>> executeFetchRequestForIDs(const FetchRequest& request,
                                                                                          ErrorRef* error = nullptr);
    // How many objects match, without loading them when the context and its
    // ancestors have no unsaved changes of the entity. Nothing on error.
    [[nodiscard]] std::optional<std::size_t> countForFetchRequest(const FetchRequest& request,
                                                                  ErrorRef* error = nullptr);

    // The registered object with this ID, or a new fault for it (not checked
    // against the store: firing a fault of a missing object raises).
    ManagedObjectRef objectWithID(const ManagedObjectIDRef& objectID);
    // The object, loaded; nothing with NSManagedObjectReferentialIntegrityError
    // (133000) when it does not exist (any more), also when it is deleted in
    // this context.
    [[nodiscard]] ManagedObjectRef existingObjectWithID(const ManagedObjectIDRef& objectID, ErrorRef* error = nullptr);
    // The registered object, or nothing.
    ManagedObjectRef objectRegisteredForID(const ManagedObjectIDRef& objectID) const;

    // Gives the objects permanent IDs now (from the store through the root's
    // coordinator). Objects that have one are left alone.
    [[nodiscard]] bool obtainPermanentIDsForObjects(const std::vector<ManagedObjectRef>& objects,
                                                    ErrorRef* error = nullptr);

    // Without merging, the object becomes a fault and loses its unsaved
    // changes; with merging, it is read again and its unsaved changes are
    // kept over the fresh values.
    void refreshObject(const ManagedObjectRef& object, bool mergeChanges);

    // Brings another context's save into this one: updated objects that are
    // registered here are refreshed (keeping this context's changes), deleted
    // ones leave; inserted ones are found by later fetches.
    void mergeChangesFromContextDidSaveNotification(const Notification& notification);

    std::string className() const override { return "NSManagedObjectContext"; }
    std::string description() const override;

private:
    friend class ManagedObject;
    template <class> friend struct ObjectAllocator;
    explicit ManagedObjectContext(ManagedObjectContextConcurrencyType type);

    void checkAccess(const char* method) const;
    bool isCurrentPerformer() const;
    const ManagedObjectModel& model() const;

    // Under `id`, which becomes the object's ID; under its own ID without one.
    void registerObject(const ManagedObjectRef& object, ManagedObjectIDRef id = nullptr);
    void forget(ManagedObject& object);
    void noteUpdated(ManagedObject& object);
    // Fills a fault; false when the object no longer exists.
    [[nodiscard]] bool fulfillFault(ManagedObject& object, ErrorRef* error);
    // The values this context's parent (or the store) holds for an ID.
    [[nodiscard]] std::optional<ObjectSnapshot> snapshotFromAbove(const ManagedObjectIDRef& id, ErrorRef* error);
    // A snapshot of a registered, loaded object as this context sees it.
    ObjectSnapshot snapshotOf(const ManagedObject& object) const;
    void applySnapshot(ManagedObject& object, const ObjectSnapshot& snapshot, bool keepChanges);
    ManagedObjectRef objectForIDValue(const Value& id);
    Value relationshipValueFromSnapshot(const RelationshipDescription& relationship, const Value& stored);

    [[nodiscard]] std::optional<std::vector<ManagedObjectIDRef>> fetchIDs(const FetchRequest& request, ErrorRef* error);
    bool hasChangesOfEntity(const EntityDescription& entity) const;

    [[nodiscard]] bool validate(ErrorRef* error) const;
    [[nodiscard]] bool saveToStore(ErrorRef* error);
    [[nodiscard]] bool pushToParent(ErrorRef* error);

    // The steps of pushToParent. A child's update as its parent takes it.
    struct PushedChange {
        ManagedObjectIDRef id;
        ObjectSnapshot snapshot;
        std::vector<std::size_t> changed;  // the properties to copy
    };
    std::vector<PushedChange> updatesToPush(const std::vector<ManagedObjectRef>& updated) const;
    // Runs on the parent while the child waits: the child's changes become
    // the parent's own. New objects are copied from the child's objects.
    void takeChildChanges(const std::vector<ManagedObjectRef>& inserted, const std::vector<PushedChange>& updates,
                          const std::vector<ManagedObjectRef>& deleted);
    // A child's relationship value with this context's objects in place of
    // the child's.
    Value relationshipValueFromChild(const RelationshipDescription& relationship, const Value& childValue);
    void setValueFromChild(ManagedObject& object, const PropertyDescription& property, const Value& stored);
    // What the parent took becomes the committed values: the inserted
    // objects' own values, the updates' snapshots.
    void settlePushedChanges(const std::vector<ManagedObjectRef>& inserted, const std::vector<ManagedObjectRef>& updated,
                             std::vector<PushedChange>&& updates, const std::vector<ManagedObjectRef>& deleted);

    // The steps of saveToStore.
    SaveChanges changesToSave(const std::vector<ManagedObjectRef>& inserted, const std::vector<ManagedObjectRef>& updated,
                              const std::vector<ManagedObjectRef>& deleted, bool checkVersions) const;
    ErrorRef conflictError(const ErrorRef& saveError, const std::vector<ManagedObjectIDRef>& conflicts) const;
    // Settles one conflict by the merge policy, for the next attempt.
    void resolveConflict(const ManagedObjectIDRef& id, std::vector<ManagedObjectRef>& updated,
                         std::vector<ManagedObjectRef>& deleted);
    void mergeStoredSnapshot(ManagedObject& object, const ObjectSnapshot& current);
    void settleSavedChanges(const std::vector<ManagedObjectRef>& inserted, const std::vector<ManagedObjectRef>& updated,
                            const std::vector<ManagedObjectRef>& deleted, SaveChanges saved, bool checkVersions);
    void applyDeleteRules(ManagedObject& object);
    void postDidSave(const std::vector<ManagedObjectRef>& inserted, const std::vector<ManagedObjectRef>& updated,
                     const std::vector<ManagedObjectRef>& deleted);

    const ManagedObjectContextConcurrencyType type_;
    DispatchQueueRef queue_;  // PrivateQueue: its own; MainQueue: the main queue
    RunLoopRef ownerRunLoop_;  // Confinement: the creating thread's
    std::thread::id ownerThread_;
    SequenceChecker sequence_;

    std::shared_ptr<PersistentStoreCoordinator> coordinator_;
    ManagedObjectContextRef parent_;
    mutable std::mutex nameMutex_;  // guards `name_`
    std::optional<std::string> name_;
    Dictionary userInfo_;
    ObjectRef undoManager_;
    MergePolicy mergePolicy_ = MergePolicy::Error;

    objectgraph::RegisteredObjects registered_;
    objectgraph::ObjectSet inserted_;
    objectgraph::ObjectSet updated_;
    objectgraph::ObjectSet deleted_;
    bool saving_ = false;
};

}  // namespace platform
