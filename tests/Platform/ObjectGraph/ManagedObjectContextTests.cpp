#include "tests/Platform/ObjectGraph/ObjectGraphFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

using namespace platform;
using objectgraphtest::StoreTest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

using SavingAndFetching = StoreTest;
using ParentAndChild = StoreTest;
using DeleteRules = StoreTest;
using Merging = StoreTest;
using Conflicts = StoreTest;
using Validation = StoreTest;

TEST_P(SavingAndFetching, SavedObjectsComeBackAsFaultsThatFireOnFirstUse)
{
    auto writer = rootContext();
    auto sales = insert(writer, "Department", {{"name", "Sales"}, {"budget", 2500.5}});
    auto ada = insert(writer, "Employee",
                      {{"name", "Ada"}, {"serial", std::int64_t{1} << 40}, {"hired", Date(1000)}, {"photo", Data{1, 2}}});
    ada->setValueForKey(Value(sales), "department");
    EXPECT_TRUE(ada->objectID()->isTemporaryID());
    save(writer);
    EXPECT_FALSE(ada->objectID()->isTemporaryID());
    EXPECT_FALSE(ada->isInserted());

    auto reader = rootContext();
    const auto employees = fetchAll(reader, "Employee");
    ASSERT_EQ(employees.size(), 1u);
    const auto& read = employees.front();
    EXPECT_TRUE(read->isFault());
    EXPECT_TRUE(read->objectID()->isEqual(*ada->objectID()));
    EXPECT_EQ(read->valueForKey("name"), Value("Ada"));
    EXPECT_FALSE(read->isFault());
    EXPECT_EQ(read->valueForKey("level"), Value(3));  // the default
    EXPECT_EQ(read->valueForKey("serial"), Value(std::int64_t{1} << 40));
    EXPECT_EQ(read->valueForKey("active"), Value(true));
    EXPECT_EQ(read->valueForKey("hired"), Value(Date(1000)));
    EXPECT_EQ(read->valueForKey("photo"), Value(Data{1, 2}));
    EXPECT_EQ(read->valueForKey("mentor"), Value());
    auto department = read->valueForKey("department").objectAs<ManagedObject>();
    ASSERT_NE(department, nullptr);
    EXPECT_TRUE(department->isFault());
    EXPECT_EQ(department->valueForKey("budget"), Value(2500.5));
    EXPECT_EQ(names(department->valueForKey("employees")), (std::vector<std::string>{"Ada"}));
    // One object per ID in a context.
    EXPECT_EQ(reader->objectWithID(read->objectID()), read);
}

TEST_P(SavingAndFetching, FetchesSeeTheContextsOwnInsertsAndDeletes)
{
    auto context = rootContext();
    insert(context, "Department", {{"name", "Kept"}});
    auto gone = insert(context, "Department", {{"name", "Gone"}});
    save(context);

    insert(context, "Department", {{"name", "New"}});
    context->deleteObject(gone);
    EXPECT_THAT(names(fetchAll(context, "Department")), ElementsAre("Kept", "New"));
    auto request = FetchRequest::fetchRequestWithEntityName("Department");
    EXPECT_EQ(context->countForFetchRequest(*request), 2u);
    request->setIncludesPendingChanges(false);
    EXPECT_EQ(context->countForFetchRequest(*request), 2u);  // what the store holds: Kept and Gone
    EXPECT_THAT(names(*context->executeFetchRequest(*request)), ElementsAre("Gone", "Kept"));

    request->setIncludesPendingChanges(true);
    request->setFetchLimit(1);
    EXPECT_EQ(context->executeFetchRequest(*request)->size(), 1u);
    EXPECT_EQ(context->countForFetchRequest(*request), 1u);

    // Another context sees only what was saved.
    EXPECT_THAT(names(fetchAll(rootContext(), "Department")), ElementsAre("Gone", "Kept"));
}

TEST_P(SavingAndFetching, RelationshipsOfEveryKindSurviveASave)
{
    auto context = rootContext();
    auto sales = insert(context, "Department", {{"name", "Sales"}});
    auto ada = insert(context, "Employee", {{"name", "Ada"}});
    auto bob = insert(context, "Employee", {{"name", "Bob"}});
    auto cy = insert(context, "Employee", {{"name", "Cy"}});
    sales->setValueForKey(Value(Set{Value(ada), Value(bob)}), "employees");
    sales->setValueForKey(Value(Array{Value(cy), Value(ada), Value(bob)}), "rota");
    bob->setValueForKey(Value(ada), "mentor");
    save(context);

    auto reader = rootContext();
    auto department = reader->existingObjectWithID(sales->objectID());
    ASSERT_NE(department, nullptr);
    EXPECT_THAT(names(department->valueForKey("employees")), ElementsAre("Ada", "Bob"));
    const auto rota = department->valueForKey("rota");
    ASSERT_NE(rota.orderedSet(), nullptr);
    std::vector<std::string> order;
    for (const auto& member : objectgraphtest::membersOf(rota)) {
        order.push_back(*member->valueForKey("name").string());
    }
    EXPECT_THAT(order, ElementsAre("Cy", "Ada", "Bob"));
    auto readBob = reader->existingObjectWithID(bob->objectID());
    EXPECT_EQ(readBob->valueForKey("mentor").objectAs<ManagedObject>()->valueForKey("name"), Value("Ada"));
    EXPECT_EQ(readBob->valueForKey("rotaOf").objectAs<ManagedObject>(), department);
}

TEST_P(SavingAndFetching, DidSaveNotificationCarriesTheSavedObjects)
{
    auto context = rootContext();
    auto keep = insert(context, "Department", {{"name", "Keep"}});
    auto drop = insert(context, "Department", {{"name", "Drop"}});
    save(context);

    std::vector<Notification> seen;
    auto token = NotificationCenter::defaultCenter()->addObserverForName(
        std::string(NSManagedObjectContextDidSaveNotification), context, nullptr,
        [&](const Notification& notification) { seen.push_back(notification); });
    auto added = insert(context, "Department", {{"name", "Added"}});
    keep->setValueForKey("Kept", "name");
    context->deleteObject(drop);
    save(context);
    EXPECT_TRUE(context->save());  // nothing to save: no notification
    NotificationCenter::defaultCenter()->removeObserver(token);

    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].object, context);
    EXPECT_EQ(seen[0].userInfo.get(NSInsertedObjectsKey), Value(Set{Value(added)}));
    EXPECT_EQ(seen[0].userInfo.get(NSUpdatedObjectsKey), Value(Set{Value(keep)}));
    EXPECT_EQ(seen[0].userInfo.get(NSDeletedObjectsKey), Value(Set{Value(drop)}));
    // The objectID of each is readable by key-value coding.
    EXPECT_EQ(added->valueForKey("objectID"), Value(added->objectID()));
}

TEST_P(SavingAndFetching, ObjectIDsNameTheSameObjectsAfterTheStoreIsOpenedAgain)
{
    if (!storeHasFile()) {
        GTEST_SKIP() << "an in-memory store does not outlive its coordinator";
    }
    URL uri = *URL::fromString("x-zarvo-object://none/Department/p1");
    {
        auto context = rootContext();
        auto sales = insert(context, "Department", {{"name", "Sales"}});
        save(context);
        uri = sales->objectID()->URIRepresentation();
        coordinator_ = nullptr;
    }
    auto coordinator = openCoordinator();
    ASSERT_NE(coordinator, nullptr);
    const auto id = coordinator->managedObjectIDForURIRepresentation(uri);
    ASSERT_NE(id, nullptr);
    auto context = rootContext(coordinator);
    auto sales = context->existingObjectWithID(id);
    ASSERT_NE(sales, nullptr);
    EXPECT_EQ(sales->valueForKey("name"), Value("Sales"));
    // A new object never reuses a key.
    auto other = insert(context, "Department", {{"name", "Other"}});
    save(context);
    EXPECT_NE(other->objectID()->primaryKey(), id->primaryKey());
}

// Faults keep their ID in parts until it is asked for; the object made then
// must be the ID they were fetched under, and stay the same object.
TEST_P(SavingAndFetching, FaultsAreFoundByEqualIDsAndKeepOneIDObject)
{
    auto writer = rootContext();
    for (int index = 0; index < 60; ++index) {
        insert(writer, "Department", {{"name", "D" + std::to_string(index)}});
    }
    save(writer);

    auto reader = rootContext();
    const auto ids = reader->executeFetchRequestForIDs(*FetchRequest::fetchRequestWithEntityName("Department"));
    ASSERT_TRUE(ids);
    const auto faults = fetchAll(reader, "Department");
    ASSERT_EQ(faults.size(), 60u);
    for (std::size_t index = 0; index < faults.size(); ++index) {
        const auto& fault = faults[index];
        EXPECT_TRUE(fault->isFault());
        const auto id = fault->objectID();
        EXPECT_EQ(fault->objectID(), id);
        EXPECT_EQ(fault->valueForKey("objectID"), Value(id));
        EXPECT_TRUE(id->isEqual(*(*ids)[index]));
        EXPECT_FALSE(id->isTemporaryID());
        // An equal ID that is another object, as a restart would make it.
        const auto again = coordinator_->managedObjectIDForURIRepresentation(id->URIRepresentation());
        ASSERT_NE(again, nullptr);
        EXPECT_EQ(reader->objectRegisteredForID(again), fault);
        EXPECT_EQ(reader->objectWithID(again), fault);
        EXPECT_TRUE(fault->isFault());
    }
    EXPECT_EQ(reader->registeredObjects().size(), 60u);

    // Deleting every other one takes their registrations out and leaves the
    // rest to be found.
    for (std::size_t index = 0; index < faults.size(); index += 2) {
        reader->deleteObject(faults[index]);
    }
    save(reader);
    EXPECT_EQ(reader->registeredObjects().size(), 30u);
    for (std::size_t index = 0; index < faults.size(); ++index) {
        const auto registered = reader->objectRegisteredForID((*ids)[index]);
        EXPECT_EQ(registered, index % 2 == 0 ? nullptr : faults[index]) << index;
    }
    // The ones left still fire, each with its own values.
    std::set<std::string> left;
    for (std::size_t index = 1; index < faults.size(); index += 2) {
        left.insert(*faults[index]->valueForKey("name").string());
    }
    auto check = rootContext();
    std::set<std::string> stored;
    for (const auto& object : fetchAll(check, "Department")) {
        stored.insert(*object->valueForKey("name").string());
    }
    EXPECT_EQ(left, stored);
}

// A save gives new objects their permanent IDs and files them under those,
// whether they are most of what the context holds or a few beside many
// faults; what it wrote is each object's committed state.
TEST_P(SavingAndFetching, SavedObjectsAreFoundUnderTheirPermanentIDsWithWhatWasWrittenCommitted)
{
    auto writer = rootContext();
    std::vector<ManagedObjectRef> made;
    std::vector<ManagedObjectIDRef> temporary;
    for (int index = 0; index < 40; ++index) {
        made.push_back(insert(writer, "Department", {{"name", "D" + std::to_string(index)}, {"budget", index * 1.5}}));
        temporary.push_back(made.back()->objectID());
    }
    save(writer);
    EXPECT_EQ(writer->registeredObjects().size(), made.size());
    for (std::size_t index = 0; index < made.size(); ++index) {
        SCOPED_TRACE(index);
        const auto& object = made[index];
        EXPECT_FALSE(object->objectID()->isTemporaryID());
        EXPECT_EQ(writer->objectRegisteredForID(object->objectID()), object);
        EXPECT_EQ(writer->objectRegisteredForID(temporary[index]), nullptr);
        EXPECT_THAT(object->changedValues().keys(), IsEmpty());
        EXPECT_EQ(object->committedValuesForKeys({"name"}).get("name"), Value("D" + std::to_string(index)));
    }
    made[7]->setValueForKey("Seven", "name");
    save(writer);
    EXPECT_EQ(made[7]->committedValuesForKeys({"name"}).get("name"), Value("Seven"));
    EXPECT_EQ(made[8]->committedValuesForKeys({"name"}).get("name"), Value("D8"));

    auto reader = rootContext();
    const auto faults = fetchAll(reader, "Department");
    auto first = insert(reader, "Department", {{"name", "New"}});
    auto second = insert(reader, "Department", {{"name", "Newer"}});
    save(reader);
    EXPECT_EQ(reader->registeredObjects().size(), faults.size() + 2);
    EXPECT_EQ(reader->objectRegisteredForID(first->objectID()), first);
    EXPECT_EQ(reader->objectRegisteredForID(second->objectID()), second);
    for (const auto& fault : faults) {
        EXPECT_EQ(reader->objectRegisteredForID(fault->objectID()), fault);
    }
    std::set<std::string> stored;
    auto check = rootContext();
    for (const auto& object : fetchAll(check, "Department")) {
        stored.insert(*object->valueForKey("name").string());
    }
    EXPECT_EQ(stored.size(), made.size() + 2);
    EXPECT_EQ(stored.count("Seven") + stored.count("D7") + stored.count("New") + stored.count("Newer"), 3u);
}

TEST_P(SavingAndFetching, ExistingObjectOfAnIDWhoseObjectIsGoneIsReferentialIntegrityError)
{
    auto context = rootContext();
    auto sales = insert(context, "Department", {{"name", "Sales"}});
    save(context);
    const auto id = sales->objectID();

    auto other = rootContext();
    auto fault = other->objectWithID(id);
    EXPECT_TRUE(fault->isFault());
    context->deleteObject(sales);
    save(context);
    EXPECT_EQ(sales->managedObjectContext(), nullptr);

    ErrorRef error;
    EXPECT_EQ(other->existingObjectWithID(id, &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), NSManagedObjectReferentialIntegrityError);
    EXPECT_THROW(fault->valueForKey("name"), Exception);

    // A deletion not yet saved already hides the object from its own context.
    auto third = rootContext();
    auto kept = insert(third, "Department", {{"name", "Kept"}});
    save(third);
    third->deleteObject(kept);
    error = nullptr;
    EXPECT_EQ(third->existingObjectWithID(kept->objectID(), &error), nullptr);
    EXPECT_EQ(error->code(), NSManagedObjectReferentialIntegrityError);
}

TEST_P(ParentAndChild, AChildSavesIntoItsParentAndOnlyTheParentWritesTheStore)
{
    auto root = rootContext();
    auto child = childOf(root);
    auto sales = insert(child, "Department", {{"name", "Sales"}});
    auto ada = insert(child, "Employee", {{"name", "Ada"}});
    ada->setValueForKey(Value(sales), "department");
    save(child);
    EXPECT_FALSE(child->hasChanges());
    EXPECT_TRUE(root->hasChanges());
    EXPECT_THAT(names(root->insertedObjects()), ElementsAre("Ada", "Sales"));
    EXPECT_THAT(names(fetchAll(rootContext(), "Department")), IsEmpty());

    // The parent's copy is whole, relationships included.
    auto parentsAda = root->objectRegisteredForID(ada->objectID());
    ASSERT_NE(parentsAda, nullptr);
    EXPECT_EQ(parentsAda->valueForKey("department").objectAs<ManagedObject>()->valueForKey("name"), Value("Sales"));

    save(root);
    EXPECT_THAT(names(fetchAll(rootContext(), "Employee")), ElementsAre("Ada"));
    // The child's objects keep their temporary IDs: only the root's got
    // permanent ones.
    EXPECT_TRUE(ada->objectID()->isTemporaryID());
    EXPECT_FALSE(parentsAda->objectID()->isTemporaryID());
}

TEST_P(ParentAndChild, AChildSeesItsParentsUnsavedChangesAndPushesUpdatesAndDeletes)
{
    auto root = rootContext();
    auto sales = insert(root, "Department", {{"name", "Sales"}});
    auto support = insert(root, "Department", {{"name", "Support"}});
    save(root);
    sales->setValueForKey("Sales EMEA", "name");  // unsaved in the parent
    insert(root, "Department", {{"name", "Unsaved"}});

    auto child = childOf(root);
    EXPECT_THAT(names(fetchAll(child, "Department")), ElementsAre("Sales EMEA", "Support", "Unsaved"));
    auto childsSupport = child->existingObjectWithID(support->objectID());
    childsSupport->setValueForKey(2.0, "budget");
    child->deleteObject(child->objectWithID(sales->objectID()));
    save(child);

    EXPECT_EQ(support->valueForKey("budget"), Value(2.0));
    EXPECT_TRUE(sales->isDeleted());
    save(root);
    EXPECT_THAT(names(fetchAll(rootContext(), "Department")), ElementsAre("Support", "Unsaved"));
}

// What the parent took becomes the child's committed state: a later edit in
// the child is a change against the pushed values, and it reaches the parent
// only with the next save, alone.
TEST_P(ParentAndChild, WhatAChildPushedIsItsCommittedStateAndTheParentsOwnCopy)
{
    auto root = rootContext();
    auto child = childOf(root);
    const std::string longName = "A department name too long to be stored inside the string itself";
    auto sales = insert(child, "Department", {{"name", longName}, {"budget", 10.0}});
    save(child);
    EXPECT_THAT(sales->changedValues().keys(), IsEmpty());

    sales->setValueForKey(20.0, "budget");
    EXPECT_EQ(sales->changedValues().keys(), std::vector<std::string>{"budget"});
    EXPECT_EQ(sales->committedValuesForKeys({"budget", "name"}).get("budget"), Value(10.0));
    EXPECT_EQ(sales->committedValuesForKeys({"budget", "name"}).get("name"), Value(longName));
    auto parentsSales = root->objectRegisteredForID(sales->objectID());
    ASSERT_NE(parentsSales, nullptr);
    EXPECT_EQ(parentsSales->valueForKey("budget"), Value(10.0));
    EXPECT_EQ(parentsSales->valueForKey("name"), Value(longName));

    // The parent changes the name meanwhile; the child's update carries only
    // the budget, so the parent's name stays.
    parentsSales->setValueForKey("Sales EMEA", "name");
    save(child);
    EXPECT_EQ(parentsSales->valueForKey("budget"), Value(20.0));
    EXPECT_EQ(parentsSales->valueForKey("name"), Value("Sales EMEA"));
    EXPECT_THAT(sales->changedValues().keys(), IsEmpty());
    EXPECT_EQ(sales->committedValuesForKeys({"budget"}).get("budget"), Value(20.0));
    EXPECT_EQ(sales->valueForKey("name"), Value(longName));
}

TEST_P(ParentAndChild, ObtainingPermanentIDsEarlyKeepsThemThroughTheSave)
{
    auto root = rootContext();
    auto child = childOf(root);
    auto sales = insert(child, "Department", {{"name", "Sales"}});
    ASSERT_TRUE(child->obtainPermanentIDsForObjects({sales}));
    const auto id = sales->objectID();
    EXPECT_FALSE(id->isTemporaryID());
    EXPECT_EQ(child->objectRegisteredForID(id), sales);
    save(child);
    save(root);
    auto reader = rootContext();
    EXPECT_EQ(reader->existingObjectWithID(id)->valueForKey("name"), Value("Sales"));
}

// The parent's copies of a child's new objects are its own objects and point
// at each other in every kind of relationship, while the child's committed
// values name them by ID. A fault the parent already held for one of them
// (under a permanent ID obtained early) is filled, not replaced.
TEST_P(ParentAndChild, NewObjectsReachTheParentAsItsOwnObjectsRelatedToEachOther)
{
    auto root = rootContext();
    auto child = childOf(root);
    auto sales = insert(child, "Department", {{"name", "Sales"}});
    auto ada = insert(child, "Employee", {{"name", "Ada"}});
    auto bob = insert(child, "Employee", {{"name", "Bob"}});
    sales->setValueForKey(Value(Set{Value(ada), Value(bob)}), "employees");
    sales->setValueForKey(Value(Array{Value(bob), Value(ada)}), "rota");
    bob->setValueForKey(Value(ada), "mentor");
    ASSERT_TRUE(child->obtainPermanentIDsForObjects({sales}));
    const auto heldFault = root->objectWithID(sales->objectID());
    ASSERT_TRUE(heldFault->isFault());
    save(child);
    EXPECT_THAT(sales->changedValues().keys(), IsEmpty());
    EXPECT_THAT(bob->changedValues().keys(), IsEmpty());

    EXPECT_EQ(root->objectRegisteredForID(sales->objectID()), heldFault);
    EXPECT_FALSE(heldFault->isFault());
    EXPECT_TRUE(heldFault->isInserted());
    EXPECT_EQ(heldFault->valueForKey("name"), Value("Sales"));
    const auto parentsAda = root->objectRegisteredForID(ada->objectID());
    const auto parentsBob = root->objectRegisteredForID(bob->objectID());
    ASSERT_NE(parentsAda, nullptr);
    ASSERT_NE(parentsBob, nullptr);
    ASSERT_NE(parentsAda, ada);
    const auto employees = heldFault->valueForKey("employees");
    ASSERT_NE(employees.set(), nullptr);
    EXPECT_TRUE(employees.set()->contains(Value(parentsAda)));
    EXPECT_TRUE(employees.set()->contains(Value(parentsBob)));
    EXPECT_EQ(employees.set()->size(), 2u);
    EXPECT_THAT(objectgraphtest::membersOf(heldFault->valueForKey("rota")), ElementsAre(parentsBob, parentsAda));
    EXPECT_EQ(parentsBob->valueForKey("mentor").objectAs<ManagedObject>(), parentsAda);
    EXPECT_EQ(parentsAda->valueForKey("department").objectAs<ManagedObject>(), heldFault);
    // Nothing of the parent's copies is committed until the parent saves.
    EXPECT_EQ(heldFault->committedValuesForKeys({"name"}).get("name"), Value());
    EXPECT_EQ(heldFault->committedValuesForKeys({"employees"}).get("employees"), Value(Array{}));
    EXPECT_TRUE(heldFault->changedValues().contains("name"));

    save(root);
    EXPECT_EQ(heldFault->committedValuesForKeys({"name"}).get("name"), Value("Sales"));
    EXPECT_THAT(heldFault->changedValues().keys(), IsEmpty());
    auto reader = rootContext();
    auto department = reader->existingObjectWithID(sales->objectID());
    ASSERT_NE(department, nullptr);
    EXPECT_THAT(names(department->valueForKey("employees")), ElementsAre("Ada", "Bob"));
    const auto storedRota = objectgraphtest::membersOf(department->valueForKey("rota"));
    ASSERT_EQ(storedRota.size(), 2u);
    EXPECT_EQ(storedRota.front()->valueForKey("name"), Value("Bob"));
}

TEST_P(DeleteRules, EachRuleDoesItsPartAtDeleteOrAtSave)
{
    auto context = rootContext();
    auto sales = insert(context, "Department", {{"name", "Sales"}});
    auto ada = insert(context, "Employee", {{"name", "Ada"}});
    auto bob = insert(context, "Employee", {{"name", "Bob"}});
    auto cy = insert(context, "Employee", {{"name", "Cy"}});
    sales->setValueForKey(Value(Set{Value(ada), Value(bob)}), "employees");
    cy->setValueForKey(Value(ada), "mentor");
    save(context);

    // Nullify: the department no longer lists Bob.
    context->deleteObject(bob);
    EXPECT_THAT(names(sales->valueForKey("employees")), ElementsAre("Ada"));
    save(context);

    // No action: Cy keeps pointing at the deleted mentor. Cascade: deleting
    // the department deletes Ada with it.
    context->deleteObject(sales);
    EXPECT_TRUE(ada->isDeleted());
    EXPECT_EQ(cy->valueForKey("mentor").objectAs<ManagedObject>(), ada);
    save(context);
    EXPECT_THAT(names(fetchAll(rootContext(), "Employee")), ElementsAre("Cy"));
    EXPECT_THAT(names(fetchAll(rootContext(), "Department")), IsEmpty());
}

TEST_P(DeleteRules, DenyRefusesTheSaveWhileTheRelationshipHoldsAnyone)
{
    auto context = rootContext();
    auto sales = insert(context, "Department", {{"name", "Sales"}});
    auto ada = insert(context, "Employee", {{"name", "Ada"}});
    sales->setValueForKey(Value(Array{Value(ada)}), "rota");
    save(context);

    context->deleteObject(sales);
    ErrorRef error;
    EXPECT_FALSE(context->save(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), NSValidationRelationshipDeniedDeleteError);
    EXPECT_EQ(error->userInfo().get(NSValidationKeyErrorKey), Value("rota"));
    EXPECT_THAT(names(fetchAll(rootContext(), "Department")), ElementsAre("Sales"));

    // Once the rota is empty, the delete goes through.
    context->rollback();
    sales->setValueForKey(Value(Array{}), "rota");
    context->deleteObject(sales);
    save(context);
    EXPECT_THAT(names(fetchAll(rootContext(), "Department")), IsEmpty());
    EXPECT_EQ(ada->valueForKey("rotaOf"), Value());
}

TEST_P(Merging, ASaveMergedIntoAnotherContextRefreshesItsObjectsAndKeepsItsChanges)
{
    auto writer = rootContext();
    auto sales = insert(writer, "Department", {{"name", "Sales"}, {"budget", 1.0}});
    auto gone = insert(writer, "Department", {{"name", "Gone"}});
    save(writer);

    auto reader = rootContext();
    auto readSales = reader->existingObjectWithID(sales->objectID());
    auto readGone = reader->existingObjectWithID(gone->objectID());
    readSales->setValueForKey(5.0, "budget");  // the reader's own change

    std::vector<Notification> saves;
    auto token = NotificationCenter::defaultCenter()->addObserverForName(
        std::string(NSManagedObjectContextDidSaveNotification), writer, nullptr,
        [&](const Notification& notification) { saves.push_back(notification); });
    sales->setValueForKey("Sales and Marketing", "name");
    writer->deleteObject(gone);
    save(writer);
    NotificationCenter::defaultCenter()->removeObserver(token);
    ASSERT_EQ(saves.size(), 1u);

    EXPECT_EQ(readSales->valueForKey("name"), Value("Sales"));  // not merged yet
    reader->mergeChangesFromContextDidSaveNotification(saves[0]);
    EXPECT_EQ(readSales->valueForKey("name"), Value("Sales and Marketing"));
    EXPECT_EQ(readSales->valueForKey("budget"), Value(5.0));
    EXPECT_TRUE(readSales->isUpdated());
    EXPECT_EQ(readGone->managedObjectContext(), nullptr);
    EXPECT_EQ(reader->objectRegisteredForID(gone->objectID()), nullptr);
}

TEST_P(Merging, RefreshingDropsOrKeepsTheObjectsOwnChanges)
{
    auto writer = rootContext();
    auto sales = insert(writer, "Department", {{"name", "Sales"}, {"budget", 1.0}});
    save(writer);
    auto reader = rootContext();
    auto readSales = reader->existingObjectWithID(sales->objectID());
    sales->setValueForKey(9.0, "budget");
    save(writer);

    readSales->setValueForKey("Mine", "name");
    reader->refreshObject(readSales, true);
    EXPECT_EQ(readSales->valueForKey("name"), Value("Mine"));
    EXPECT_EQ(readSales->valueForKey("budget"), Value(9.0));

    reader->refreshObject(readSales, false);
    EXPECT_TRUE(readSales->isFault());
    EXPECT_FALSE(reader->hasChanges());
    EXPECT_EQ(readSales->valueForKey("name"), Value("Sales"));
}

// Two contexts change the same saved object; the second save meets the first.
struct ConflictRow {
    MergePolicy policy;
    bool saves;
    Value name;    // after the second save, in a fresh context
    Value budget;
};

TEST_P(Conflicts, TheMergePolicyDecidesWhoseChangesStay)
{
    const ConflictRow rows[] = {
        {MergePolicy::Error, false, "Theirs", 1.0},
        {MergePolicy::MergeByPropertyStoreTrump, true, "Theirs", 2.0},
        {MergePolicy::MergeByPropertyObjectTrump, true, "Mine", 2.0},
        {MergePolicy::Overwrite, true, "Mine", 2.0},
        {MergePolicy::Rollback, true, "Theirs", 1.0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(static_cast<int>(row.policy));
        auto setup = rootContext();
        auto sales = insert(setup, "Department", {{"name", "Original"}, {"budget", 1.0}});
        save(setup);

        auto first = rootContext();
        auto second = rootContext();
        auto theirs = first->existingObjectWithID(sales->objectID());
        auto mine = second->existingObjectWithID(sales->objectID());
        theirs->setValueForKey("Theirs", "name");
        save(first);

        // Both change the name; only this side changes the budget.
        mine->setValueForKey("Mine", "name");
        mine->setValueForKey(2.0, "budget");
        second->setMergePolicy(row.policy);
        ErrorRef error;
        EXPECT_EQ(second->save(&error), row.saves);
        if (!row.saves) {
            ASSERT_NE(error, nullptr);
            EXPECT_EQ(error->code(), NSManagedObjectMergeError);
            const Value* list = error->userInfo().find(NSPersistentStoreSaveConflictsErrorKey);
            ASSERT_NE(list, nullptr);
            EXPECT_EQ(*list, Value(Array{Value(mine)}));
        }
        auto checker = rootContext();
        auto check = checker->existingObjectWithID(sales->objectID());
        EXPECT_EQ(check->valueForKey("name"), row.name);
        EXPECT_EQ(check->valueForKey("budget"), row.budget);
        if (row.saves) {
            // The context's object shows what was saved, and saves again
            // without a conflict.
            EXPECT_EQ(mine->valueForKey("name"), row.name);
            mine->setValueForKey(7.0, "budget");
            save(second);
        }
        setup->deleteObject(setup->objectWithID(sales->objectID()));
        setup->setMergePolicy(MergePolicy::Overwrite);
        save(setup);
    }
}

TEST_P(Validation, RequiredAndMistypedValuesStopTheSave)
{
    struct Row {
        std::string what;
        Dictionary values;
        std::int64_t code;
        std::string key;
    };
    const Row rows[] = {
        {"name missing", {}, NSValidationMissingMandatoryPropertyError, "name"},
        {"name of the wrong type", {{"name", 5}}, NSManagedObjectValidationError, "name"},
        {"budget of the wrong type", {{"name", "x"}, {"budget", "high"}}, NSManagedObjectValidationError, "budget"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        auto context = rootContext();
        insert(context, "Department", row.values);
        ErrorRef error;
        EXPECT_FALSE(context->save(&error));
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->code(), row.code);
        EXPECT_EQ(error->userInfo().get(NSValidationKeyErrorKey), Value(row.key));
        EXPECT_TRUE(context->hasChanges());
    }
    EXPECT_THAT(fetchAll(rootContext(), "Department"), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Stores, SavingAndFetching, testing::ValuesIn(objectgraphtest::storeTypes()));
INSTANTIATE_TEST_SUITE_P(Stores, ParentAndChild, testing::ValuesIn(objectgraphtest::storeTypes()));
INSTANTIATE_TEST_SUITE_P(Stores, DeleteRules, testing::ValuesIn(objectgraphtest::storeTypes()));
INSTANTIATE_TEST_SUITE_P(Stores, Merging, testing::ValuesIn(objectgraphtest::storeTypes()));
INSTANTIATE_TEST_SUITE_P(Stores, Conflicts, testing::ValuesIn(objectgraphtest::storeTypes()));
INSTANTIATE_TEST_SUITE_P(Stores, Validation, testing::ValuesIn(objectgraphtest::storeTypes()));

}  // namespace
