// A store's life (open, close, delete, rebuild) and saving up a chain of
// contexts, against each of the three store types.
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "QMFoundation/Store/NSManagedObjectContext+QMCoreData.h"
#include "QMFoundation/Store/NSManagedObjectContext+QMCoreDataStore.h"
#include "QMFoundation/Store/QMCoreDataStore.h"
#include "QMFoundation/Store/QMCoreDataStoreManager.h"
#include "tests/QMFoundation/Store/StoreTestBundle.h"
#include "tests/Support/StoreTypes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using platform::ManagedObject;
using platform::ManagedObjectContext;
using platform::ManagedObjectContextConcurrencyType;
using platform::ManagedObjectContextRef;

namespace {

ManagedObjectContextRef rootContext(const QMCoreDataStore& store)
{
    auto root = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::PrivateQueue);
    root->setPersistentStoreCoordinator(store.persistentStoreCoordinator());
    return root;
}

ManagedObjectContextRef childOf(const ManagedObjectContextRef& parent, ManagedObjectContextConcurrencyType type)
{
    auto child = ManagedObjectContext::create(type);
    child->setParentContext(parent);
    return child;
}

void insertNote(ManagedObjectContext& context, std::optional<std::string> title)
{
    auto note = ManagedObject::insertNewObjectForEntityForName("Note", context);
    if (title) {
        note->setValueForKey(*title, "title");
    }
}

// How many notes a new root context finds in the store.
std::size_t notesInStore(const QMCoreDataStore& store)
{
    const auto root = rootContext(store);
    std::optional<std::size_t> count;
    root->performBlockAndWait(
        [&] { count = root->countForFetchRequest(*platform::FetchRequest::fetchRequestWithEntityName("Note")); });
    return count.value_or(9999);
}

class QMCoreDataStoreByType : public testing::TestWithParam<std::string> {
protected:
    QMCoreDataStoreRef makeStore(std::optional<platform::URL> storeURL = std::nullopt)
    {
        const bool inMemory = GetParam() == platform::NSInMemoryStoreType;
        if (!storeURL && !inMemory) {
            storeURL = platform::URL::fileURLWithPath(sample_.path("Stores/Sample.store"));
        }
        return QMCoreDataStore::storeWithManagedObjectModelURL(sample_.modelURL(), std::string(GetParam()),
                                                               inMemory ? std::nullopt : storeURL, std::nullopt);
    }
    bool isFileStore() const { return GetParam() != platform::NSInMemoryStoreType; }

    storetest::SampleBundle sample_;
};

}  // namespace

TEST_P(QMCoreDataStoreByType, SaveRecursiveWritesEveryLevelDownToTheStore)
{
    const auto store = makeStore();
    platform::ErrorRef error;
    ASSERT_TRUE(store->initialize(&error)) << (error ? error->description() : "");
    const auto root = rootContext(*store);
    const auto middle = childOf(root, ManagedObjectContextConcurrencyType::PrivateQueue);
    const auto leaf = childOf(middle, ManagedObjectContextConcurrencyType::Confinement);

    middle->performBlockAndWait([&] { insertNote(*middle, "from the middle"); });
    // The leaf itself has nothing to save; its ancestors are saved all the same.
    ASSERT_TRUE(saveRecursive(*leaf, &error));
    EXPECT_EQ(notesInStore(*store), 1U);

    insertNote(*leaf, "from the leaf");
    ASSERT_TRUE(saveRecursive(*leaf, &error));
    EXPECT_EQ(notesInStore(*store), 2U);
    middle->performBlockAndWait([&] { EXPECT_FALSE(middle->hasChanges()); });
    root->performBlockAndWait([&] { EXPECT_FALSE(root->hasChanges()); });
}

TEST_P(QMCoreDataStoreByType, AFailureAtTheSecondLevelIsThatLevelsAndLeavesTheLevelsAboveUnsaved)
{
    const auto store = makeStore();
    ASSERT_TRUE(store->initialize(nullptr));
    const auto root = rootContext(*store);
    const auto middle = childOf(root, ManagedObjectContextConcurrencyType::PrivateQueue);
    const auto leaf = childOf(middle, ManagedObjectContextConcurrencyType::Confinement);

    root->performBlockAndWait([&] { insertNote(*root, "pending in the root"); });
    middle->performBlockAndWait([&] { insertNote(*middle, std::nullopt); });  // no title: invalid
    insertNote(*leaf, "fine");

    platform::ErrorRef error;
    EXPECT_FALSE(saveRecursive(*leaf, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), platform::NSValidationMissingMandatoryPropertyError);
    EXPECT_FALSE(leaf->hasChanges()) << "the first level saved into the second";
    root->performBlockAndWait([&] { EXPECT_TRUE(root->hasChanges()); });
    EXPECT_EQ(notesInStore(*store), 0U);
}

TEST_P(QMCoreDataStoreByType, UninitializeDropsContextsAndRebuildStartsEmpty)
{
    const auto store = makeStore();
    ASSERT_TRUE(store->initialize(nullptr));
    const auto root = rootContext(*store);
    root->performBlockAndWait([&] {
        insertNote(*root, "old");
        ASSERT_TRUE(root->save());
    });
    store->setManagedObjectContext(root, QMCoreDataStorePersistentStoreContextName);
    store->setMainManagedObjectContext(childOf(root, ManagedObjectContextConcurrencyType::PrivateQueue));
    EXPECT_EQ(store->persistentStoreManagedObjectContext(), root);
    EXPECT_EQ(store->mainManagedObjectContext(), nullptr) << "only registration makes a context visible";

    platform::ErrorRef error;
    ASSERT_TRUE(store->rebuild(&error)) << (error ? error->description() : "");
    EXPECT_TRUE(store->isInitialized());
    EXPECT_TRUE(store->allManagedObjectContexts().empty());
    EXPECT_EQ(notesInStore(*store), 0U);
}

TEST_P(QMCoreDataStoreByType, AStoreThatCannotOpenFailsOnlyForACallerWithAnErrorSlot)
{
    if (!isFileStore()) {
        GTEST_SKIP() << "an in-memory store always opens";
    }
    storetest::writeFile(sample_.path("occupied"), "a file where the directory should be");
    const auto store = makeStore(platform::URL::fileURLWithPath(sample_.path("occupied/Sample.store")));
    platform::ErrorRef error;
    EXPECT_FALSE(store->initialize(&error));
    EXPECT_NE(error, nullptr);
    EXPECT_FALSE(store->isInitialized());

    EXPECT_TRUE(store->initialize());
    EXPECT_TRUE(store->isInitialized());
    EXPECT_EQ(store->persistentStoreCoordinator(), nullptr);
}

TEST_P(QMCoreDataStoreByType, DeletingTheStoreFile)
{
    const auto store = makeStore();
    ASSERT_TRUE(store->initialize(nullptr));
    platform::ErrorRef error;
    EXPECT_TRUE(store->deleteStoreFile(&error));
    if (isFileStore()) {
        EXPECT_FALSE(platform::FileManager::fileExistsAtPath(store->storeURL()->path()));
        EXPECT_FALSE(store->deleteStoreFile(&error)) << "nothing left to delete";
        EXPECT_FALSE(store->rebuild(&error));
        EXPECT_FALSE(store->isInitialized());
    }
}

INSTANTIATE_TEST_SUITE_P(AllStoreTypes, QMCoreDataStoreByType,
                         testing::ValuesIn(testsupport::storeTypes()),
                         [](const auto& row) { return row.param; });

TEST(QMCoreDataStore, RebuildNeverPairsTheOldWriteAheadLogWithTheNewFile)
{
    const storetest::SampleBundle sample;
    const auto storeURL = platform::URL::fileURLWithPath(sample.path("Sample.sqlite3"));
    const auto open = [&] {
        return QMCoreDataStore::storeWithManagedObjectModelURL(sample.modelURL(), std::string(platform::NSSQLiteStoreType),
                                                               storeURL, std::nullopt);
    };
    const auto store = open();
    ASSERT_TRUE(store->initialize(nullptr));
    {
        // Saved, but still only in the log: the connection stays open.
        const auto root = rootContext(*store);
        root->performBlockAndWait([&] {
            for (int index = 0; index < 50; ++index) {
                insertNote(*root, "old " + std::to_string(index));
            }
            ASSERT_TRUE(root->save());
        });
    }
    ASSERT_TRUE(platform::FileManager::fileExistsAtPath(storeURL.path() + "-wal"));
    platform::ErrorRef error;
    ASSERT_TRUE(store->rebuild(&error)) << (error ? error->description() : "");
    {
        const auto root = rootContext(*store);
        root->performBlockAndWait([&] {
            insertNote(*root, "new");
            ASSERT_TRUE(root->save());
        });
    }
    // A second connection, while the rebuilt store is open, reads the new
    // file through its log: the old connection must not have taken the log
    // with it when it closed.
    const auto second = open();
    ASSERT_TRUE(second->initialize(&error)) << (error ? error->description() : "");
    EXPECT_EQ(notesInStore(*second), 1U);
}

TEST(NSManagedObjectContextQMCoreData, NamesFallBackAlongTheParentChain)
{
    const auto root = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::PrivateQueue);
    const auto child = childOf(root, ManagedObjectContextConcurrencyType::Confinement);
    const auto grandchild = childOf(child, ManagedObjectContextConcurrencyType::Confinement);
    EXPECT_EQ(name_(*root), "Persistent store context");
    EXPECT_EQ(name_(*grandchild), "Child context of Child context of Persistent store context");
    setName_(*child, std::string("Worker context"));
    EXPECT_EQ(name_(*grandchild), "Child context of Worker context");
    EXPECT_EQ(fullDescription(*child), "Name: Worker context, Parent Context: Persistent store context, Changes: NO");
    root->performBlockAndWait(
        [&] { EXPECT_EQ(fullDescription(*root), "Name: Persistent store context, Parent Context: (null), Changes: NO"); });
}

TEST(NSManagedObjectContextQMCoreData, PermanentIDsAndBatchFaulting)
{
    const storetest::SampleBundle sample;
    const auto store = QMCoreDataStore::storeWithManagedObjectModelURL(
        sample.modelURL(), std::string(platform::NSInMemoryStoreType), std::nullopt, std::nullopt);
    ASSERT_TRUE(store->initialize(nullptr));
    const auto root = rootContext(*store);
    root->performBlockAndWait([&] {
        EXPECT_TRUE(obtainPermanentIDs(*root)) << "nothing inserted";
        insertNote(*root, "one");
        ASSERT_TRUE(obtainPermanentIDs(*root));
        const auto note = root->insertedObjects().front();
        EXPECT_FALSE(note->objectID()->isTemporaryID());
        ASSERT_TRUE(root->save());

        const auto other = rootContext(*store);
        other->performBlockAndWait([&] {
            const auto fault = other->objectWithID(note->objectID());
            ASSERT_TRUE(fault->isFault());
            batchFaultObjectWithIDs(*other, std::vector{note->objectID()});
            EXPECT_FALSE(fault->isFault());
        });
    });
}

TEST(NSManagedObjectContextQMCoreDataStore, ChildrenOfTheDefaultStoresWellKnownContexts)
{
    const storetest::SampleBundle sample;
    const auto store = QMCoreDataStore::storeWithManagedObjectModelURL(
        sample.modelURL(), std::string(platform::NSInMemoryStoreType), std::nullopt, std::nullopt);
    ASSERT_TRUE(store->initialize(nullptr));
    const auto root = rootContext(*store);
    const auto main = childOf(root, ManagedObjectContextConcurrencyType::PrivateQueue);
    const auto background = childOf(root, ManagedObjectContextConcurrencyType::PrivateQueue);
    store->setManagedObjectContext(root, QMCoreDataStorePersistentStoreContextName);
    store->setManagedObjectContext(main, QMCoreDataStoreMainContextName);
    store->setManagedObjectContext(background, QMCoreDataStoreMasterBackgroundContextName);
    QMCoreDataStoreManager::sharedManager()->setDefaultStore(store);

    EXPECT_EQ(masterPersistentStoreContext(), root);
    EXPECT_EQ(mainContext(), main);
    const auto worker = createWorkerContextFromMasterBackgroundContext();
    EXPECT_EQ(worker->parentContext(), background);
    EXPECT_EQ(worker->concurrencyType(), ManagedObjectContextConcurrencyType::Confinement);
    EXPECT_EQ(name_(*worker), "Worker context");
    const auto child = createBackgroundContextFromMainContext();
    EXPECT_EQ(child->parentContext(), main);
    EXPECT_EQ(name_(*child), "Main background context");

    QMCoreDataStoreManager::sharedManager()->setDefaultStore(nullptr);
    EXPECT_EQ(mainContext(), nullptr);
}
