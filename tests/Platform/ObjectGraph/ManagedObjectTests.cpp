#include "Platform/Runtime/Class.h"
#include "tests/Platform/ObjectGraph/ObjectGraphFixture.h"
#include "tests/Support/ChangeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// An entity class of the application, found by the entity's class name.
class StaffMember final : public ManagedObject {
public:
    std::string className() const override { return "StaffMember"; }
    void awakeFromInsert() override { setPrimitiveValueForKey("new hire", "name"); }
    void awakeFromFetch() override { ++fetches; }
    int fetches = 0;
};

// Registered by a test only after objects of its entity were made.
class LateMember final : public ManagedObject {
public:
    std::string className() const override { return "LateMember"; }
};

}  // namespace

PLATFORM_CLASS_REGISTRATION(StaffMember) = ClassDescription("StaffMember")
                                               .superclass("NSManagedObject")
                                               .factory([] { return makeObject<StaffMember>(); });

namespace {

class ManagedObjectTest : public testing::Test {
protected:
    void SetUp() override
    {
        coordinator_ = PersistentStoreCoordinator::create(objectgraphtest::companyModel());
        ASSERT_TRUE(coordinator_->addPersistentStoreWithType(NSInMemoryStoreType, std::nullopt, std::nullopt, {}));
        context_ = newContext();
    }
    ManagedObjectContextRef newContext()
    {
        auto context = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
        context->setPersistentStoreCoordinator(coordinator_);
        return context;
    }
    ManagedObjectRef insert(std::string_view entity, const Dictionary& values = {})
    {
        auto object = ManagedObject::insertNewObjectForEntityForName(entity, *context_);
        object->setValuesForKeysWithDictionary(values);
        return object;
    }
    static std::vector<std::string> namesIn(const Value& collection)
    {
        std::vector<std::string> names;
        auto add = [&](const Value& element) {
            names.push_back(*element.objectAs<ManagedObject>()->valueForKey("name").string());
        };
        if (const auto* set = collection.set()) {
            for (const auto& element : *set) {
                add(element);
            }
        } else if (const auto* ordered = collection.orderedSet()) {
            for (const auto& element : *ordered) {
                add(element);
            }
        }
        return names;
    }

    PersistentStoreCoordinatorRef coordinator_;
    ManagedObjectContextRef context_;
};

TEST_F(ManagedObjectTest, PropertiesAnswerKeyValueCodingAndObservingAndPrimitivesStayQuiet)
{
    auto sales = insert("Department", {{"name", "Sales"}});
    const auto recorder = testsupport::ChangeRecorder::create();
    sales->addObserver(recorder, "name", NSKeyValueObservingOptionNew);
    sales->setValueForKey("Sales EMEA", "name");
    sales->setPrimitiveValueForKey("Quiet", "name");
    EXPECT_EQ(sales->valueForKey("name"), Value("Quiet"));
    EXPECT_EQ(sales->primitiveValueForKey("name"), Value("Quiet"));
    EXPECT_EQ(recorder->seen(), std::vector<std::string>{"name=Sales EMEA"});
    sales->removeObserver(*recorder, "name");

    EXPECT_EQ(sales->valueForKey("budget"), Value(1000.0));  // the model's default
    EXPECT_THROW(sales->valueForKey("missing"), Exception);
    EXPECT_THROW(sales->setValueForKey(1, "objectID"), Exception);
    EXPECT_EQ(sales->valueForKey("objectID"), Value(sales->objectID()));
}

TEST_F(ManagedObjectTest, SettingARelationshipKeepsTheInverseInStepAndTellsItsObservers)
{
    auto sales = insert("Department", {{"name", "Sales"}});
    auto support = insert("Department", {{"name", "Support"}});
    auto ada = insert("Employee", {{"name", "Ada"}});
    auto bob = insert("Employee", {{"name", "Bob"}});
    const auto recorder = testsupport::ChangeRecorder::create();
    sales->addObserver(recorder, "employees");

    ada->setValueForKey(Value(sales), "department");
    bob->setValueForKey(Value(sales), "department");
    EXPECT_THAT(namesIn(sales->valueForKey("employees")), testing::UnorderedElementsAre("Ada", "Bob"));
    EXPECT_EQ(recorder->seen().size(), 2u);

    // Moving Ada takes her out of Sales; emptying Support's list clears her
    // department again.
    ada->setValueForKey(Value(support), "department");
    EXPECT_THAT(namesIn(sales->valueForKey("employees")), ElementsAre("Bob"));
    EXPECT_THAT(namesIn(support->valueForKey("employees")), ElementsAre("Ada"));
    support->setValueForKey(Value(Set{}), "employees");
    EXPECT_EQ(ada->valueForKey("department"), Value());
    sales->removeObserver(*recorder, "employees");

    // Ordered to-many keeps the order given; its to-one inverse follows.
    sales->setValueForKey(Value(Array{Value(bob), Value(ada)}), "rota");
    EXPECT_THAT(namesIn(sales->valueForKey("rota")), ElementsAre("Bob", "Ada"));
    support->addObjectToRelationship(bob, "rota");
    EXPECT_THAT(namesIn(sales->valueForKey("rota")), ElementsAre("Ada"));
    EXPECT_EQ(bob->valueForKey("rotaOf").objectAs<ManagedObject>(), support);
    support->removeObjectFromRelationship(bob, "rota");
    EXPECT_EQ(bob->valueForKey("rotaOf"), Value());

    EXPECT_THROW(ada->setValueForKey("Sales", "department"), Exception);
    EXPECT_THROW(ada->addObjectToRelationship(bob, "mentor"), Exception);
}

TEST_F(ManagedObjectTest, ChangeFlagsAndChangedValuesFollowTheObjectsLife)
{
    auto sales = insert("Department", {{"name", "Sales"}});
    EXPECT_TRUE(sales->isInserted());
    EXPECT_FALSE(sales->isUpdated());
    ASSERT_TRUE(context_->save());
    EXPECT_FALSE(sales->hasChanges());
    EXPECT_THAT(sales->changedValues().keys(), IsEmpty());

    sales->setValueForKey(5.0, "budget");
    EXPECT_TRUE(sales->isUpdated());
    EXPECT_EQ(context_->updatedObjects(), std::vector<ManagedObjectRef>{sales});
    EXPECT_EQ(sales->changedValues().keys(), std::vector<std::string>{"budget"});
    EXPECT_EQ(sales->committedValuesForKeys({"budget"}).get("budget"), Value(1000.0));

    context_->deleteObject(sales);
    EXPECT_TRUE(sales->isDeleted());
    EXPECT_FALSE(sales->isUpdated());
    EXPECT_EQ(context_->deletedObjects(), std::vector<ManagedObjectRef>{sales});
    ASSERT_TRUE(context_->save());
    EXPECT_FALSE(sales->isDeleted());
    EXPECT_EQ(sales->managedObjectContext(), nullptr);
}

TEST_F(ManagedObjectTest, ObjectsMadeOutsideAnyContextAreSavedOnlyOnceInserted)
{
    const EntityDescription& department = *objectgraphtest::companyModel()->entityNamed("Department");
    auto loose = ManagedObject::create(department, nullptr);
    loose->setValueForKey("Loose", "name");
    EXPECT_EQ(loose->managedObjectContext(), nullptr);
    EXPECT_EQ(loose->valueForKey("name"), Value("Loose"));
    EXPECT_TRUE(loose->objectID()->isTemporaryID());
    ASSERT_TRUE(context_->save());
    EXPECT_EQ(newContext()->countForFetchRequest(*FetchRequest::fetchRequestWithEntityName("Department")), 0u);

    context_->insertObject(loose);
    EXPECT_TRUE(loose->isInserted());
    ASSERT_TRUE(context_->save());
    EXPECT_EQ(newContext()->countForFetchRequest(*FetchRequest::fetchRequestWithEntityName("Department")), 1u);
    EXPECT_THROW(newContext()->insertObject(loose), Exception);
}

TEST_F(ManagedObjectTest, EntitiesAreMadeOfTheirRegisteredClassOrTheGenericOne)
{
    auto person = EntityDescription::create("Person", {AttributeDescription::create("name", AttributeType::String)}, {},
                                            "StaffMember");
    auto note = EntityDescription::create("Note", {AttributeDescription::create("name", AttributeType::String)}, {},
                                          "NoSuchClass");
    const auto model = ManagedObjectModel::create({person, note});
    ASSERT_NE(model, nullptr);
    auto coordinator = PersistentStoreCoordinator::create(model);
    ASSERT_TRUE(coordinator->addPersistentStoreWithType(NSInMemoryStoreType, std::nullopt, std::nullopt, {}));
    auto context = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
    context->setPersistentStoreCoordinator(coordinator);

    auto staff = ManagedObject::insertNewObjectForEntityForName("Person", *context);
    ASSERT_NE(std::dynamic_pointer_cast<StaffMember>(staff), nullptr);
    EXPECT_EQ(staff->valueForKey("name"), Value("new hire"));  // set by awakeFromInsert
    const auto plain = ManagedObject::insertNewObjectForEntityForName("Note", *context);
    EXPECT_EQ(plain->className(), "NSManagedObject");

    // Merges and the store's observer read change sets through inValue: the
    // object itself whatever its class, nothing for any other value.
    EXPECT_EQ(ManagedObject::inValue(Value(staff)), staff.get());
    EXPECT_EQ(ManagedObject::inValue(Value(ObjectRef(plain))), plain.get());
    EXPECT_EQ(ManagedObject::inValue(Value(plain->objectID())), nullptr);
    EXPECT_EQ(ManagedObject::inValue(Value("Note")), nullptr);
    EXPECT_EQ(ManagedObject::inValue(Value()), nullptr);
    ASSERT_TRUE(context->save());

    auto reader = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
    reader->setPersistentStoreCoordinator(coordinator);
    auto fetched = std::dynamic_pointer_cast<StaffMember>(reader->objectWithID(staff->objectID()));
    ASSERT_NE(fetched, nullptr);
    EXPECT_EQ(fetched->fetches, 0);
    EXPECT_EQ(fetched->valueForKey("name"), Value("new hire"));
    EXPECT_EQ(fetched->fetches, 1);
}

// The entity remembers which class it found, and that it found none; a class
// registered later still makes every object made after it, faults included.
TEST_F(ManagedObjectTest, AClassRegisteredAfterItsEntityWasFirstUsedMakesTheLaterObjects)
{
    auto visitor = EntityDescription::create("Visitor", {AttributeDescription::create("name", AttributeType::String)},
                                             {}, "LateMember");
    const auto model = ManagedObjectModel::create({visitor});
    ASSERT_NE(model, nullptr);
    auto coordinator = PersistentStoreCoordinator::create(model);
    ASSERT_TRUE(coordinator->addPersistentStoreWithType(NSInMemoryStoreType, std::nullopt, std::nullopt, {}));
    auto context = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
    context->setPersistentStoreCoordinator(coordinator);

    const auto early = ManagedObject::insertNewObjectForEntityForName("Visitor", *context);
    EXPECT_EQ(std::dynamic_pointer_cast<LateMember>(early), nullptr);
    EXPECT_EQ(std::dynamic_pointer_cast<LateMember>(ManagedObject::insertNewObjectForEntityForName("Visitor", *context)),
              nullptr);
    ASSERT_TRUE(context->save());

    registerClass(ClassDescription("LateMember").superclass("NSManagedObject").factory([] {
        return makeObject<LateMember>();
    }));
    EXPECT_NE(std::dynamic_pointer_cast<LateMember>(ManagedObject::insertNewObjectForEntityForName("Visitor", *context)),
              nullptr);
    auto reader = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
    reader->setPersistentStoreCoordinator(coordinator);
    EXPECT_NE(std::dynamic_pointer_cast<LateMember>(reader->objectWithID(early->objectID())), nullptr);
}

}  // namespace
