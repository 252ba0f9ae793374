// Creating, finding, counting and pre-loading objects of an entity class.
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "Platform/Predicates/Predicate.h"
#include "Platform/Predicates/SortDescriptor.h"
#include "QMFoundation/Store/NSManagedObject+QMCoreDataStore.h"
#include "QMFoundation/Store/QMCoreDataStore.h"
#include "QMFoundation/Store/QMCoreDataStoreManager.h"
#include "tests/QMFoundation/Store/StoreTestBundle.h"
#include "tests/Support/AssertionCapture.h"
#include "tests/Support/StoreTypes.h"

#include <gtest/gtest.h>

using platform::ManagedObjectContext;
using platform::ManagedObjectContextConcurrencyType;
using platform::ManagedObjectContextRef;
using platform::ManagedObjectRef;

namespace {

std::vector<std::string> titles(const std::optional<std::vector<ManagedObjectRef>>& notes)
{
    std::vector<std::string> result;
    for (const auto& note : notes.value_or(std::vector<ManagedObjectRef>{})) {
        result.push_back(note->valueForKey("title").description());
    }
    return result;
}

class NSManagedObjectHelpers : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override
    {
        store_ = QMCoreDataStore::storeWithManagedObjectModelURL(
            sample_.modelURL(), std::string(GetParam()),
            platform::URL::fileURLWithPath(sample_.path("Sample.store")), std::nullopt);
        ASSERT_TRUE(store_->initialize(nullptr));
        // A confinement root: the test thread may use it directly.
        context_ = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
        context_->setPersistentStoreCoordinator(store_->persistentStoreCoordinator());
        folder_ = createInManagedObjectContext("Folder", context_.get(), platform::Dictionary{{"name", "Inbox"}});
        for (const char* title : {"b", "c", "a"}) {
            auto note = createInManagedObjectContext("Note", context_.get(), platform::Dictionary{{"title", title}});
            note->setValueForKey(folder_, "folder");
        }
        ASSERT_TRUE(context_->save());
    }

    storetest::SampleBundle sample_;
    QMCoreDataStoreRef store_;
    ManagedObjectContextRef context_;
    ManagedObjectRef folder_;
};

}  // namespace

TEST_P(NSManagedObjectHelpers, FetchingAndCountingByPredicateSortAndLimit)
{
    const auto byTitle = std::make_shared<const platform::SortDescriptor>(
        platform::SortDescriptor::sortDescriptorWithKey("title"));
    platform::ErrorRef error;
    EXPECT_EQ(countAllInManagedObjectContext("Note", context_.get(), &error), 3U);
    EXPECT_EQ(titles(fetchAllWithPredicate("Note", nullptr, {}, 0, context_.get(), &error)).size(), 3U);
    EXPECT_EQ(titles(fetchAllWithSortDescriptors("Note", {byTitle}, context_.get(), &error)),
              (std::vector<std::string>{"a", "b", "c"}));
    const auto notA = platform::Predicate::predicateWithFormat("title != %@", {"a"});
    EXPECT_EQ(titles(fetchAllWithPredicate("Note", notA, {byTitle}, 1, context_.get(), &error)),
              (std::vector<std::string>{"b"}));
    EXPECT_EQ(countAllWithPredicate("Note", notA, context_.get(), &error), 2U);

    const auto found = fetchFirstByAttribute("Note", std::string("title"), "c", context_.get(), &error);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->valueForKey("title"), platform::Value("c"));
    EXPECT_EQ(fetchFirstByAttribute("Note", std::string("title"), "zzz", context_.get(), &error), nullptr);
    EXPECT_EQ(testsupport::captureAssertion([&] {
                  (void)fetchFirstByAttribute("Note", std::nullopt, "c", static_cast<ManagedObjectContext*>(nullptr));
              }).description,
              "Invalid parameter not satisfying: managedObjectContext");
}

TEST_P(NSManagedObjectHelpers, DestroyedObjects)
{
    const auto note = fetchFirstByAttribute("Note", std::string("title"), "a", context_.get());
    ASSERT_NE(note, nullptr);
    EXPECT_FALSE(isDestroyed(*note));
    destroy(*note);
    ASSERT_TRUE(save(*note));
    EXPECT_TRUE(isDestroyed(*note));
    EXPECT_EQ(countAllInManagedObjectContext("Note", context_.get()), 2U);
}

TEST_P(NSManagedObjectHelpers, RelationshipObjectsAndPreloadingAlongKeyPaths)
{
    const auto reader = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
    reader->setPersistentStoreCoordinator(store_->persistentStoreCoordinator());
    const auto folder = managedObjectWithObjectID(folder_->objectID(), reader.get());
    EXPECT_EQ(allObjectsForRelationshipNamed(*folder, std::string("nothing")), std::nullopt);
    const auto notes = allObjectsForRelationshipNamed(*folder, std::string("notes"));
    ASSERT_TRUE(notes);
    ASSERT_EQ(notes->size(), 3U);
    for (const auto& note : *notes) {
        EXPECT_TRUE(note->isFault());
    }
    batchFaultRelationshipsForKeyPaths(*folder, std::vector<std::string>{"notes"});
    for (const auto& note : *notes) {
        EXPECT_FALSE(note->isFault());
    }

    // Two levels: notes, then each note's folder; only the last level is loaded.
    const auto other = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
    other->setPersistentStoreCoordinator(store_->persistentStoreCoordinator());
    const auto sameFolder = managedObjectWithObjectID(folder_->objectID(), other.get());
    batchFaultRelationshipForKeyPath(*sameFolder, std::string("notes.folder"));
    EXPECT_FALSE(sameFolder->isFault());

    const auto loose = createInManagedObjectContext("Note", context_.get(), platform::Dictionary{{"title", "x"}});
    EXPECT_FALSE(testsupport::raisedReason(platform::NSInvalidArgumentException, [&] {
                     (void)allObjectsForRelationshipNamed(*loose, std::string("folder"));
                 }).empty());
}

INSTANTIATE_TEST_SUITE_P(AllStoreTypes, NSManagedObjectHelpers,
                         testing::ValuesIn(testsupport::storeTypes()),
                         [](const auto& row) { return row.param; });

TEST(NSManagedObjectQMCoreDataStore, TheConvenienceLayerWorksOnTheDefaultStoresMainContext)
{
    const storetest::SampleBundle sample;
    const auto store = QMCoreDataStore::storeWithManagedObjectModelURL(
        sample.modelURL(), std::string(platform::NSInMemoryStoreType), std::nullopt, std::nullopt);
    ASSERT_TRUE(store->initialize(nullptr));
    const auto main = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
    main->setPersistentStoreCoordinator(store->persistentStoreCoordinator());
    store->setManagedObjectContext(main, QMCoreDataStoreMainContextName);
    QMCoreDataStoreManager::sharedManager()->setDefaultStore(store);

    createWithAttributes("Note", platform::Dictionary{{"title", "kept"}});
    const auto loose = createInMemoryWithAttributes("Note", platform::Dictionary{{"title", "loose"}});
    EXPECT_EQ(loose->managedObjectContext(), nullptr);
    EXPECT_EQ(loose->valueForKey("title"), platform::Value("loose"));
    EXPECT_EQ(countAll("Note"), 1U) << "an object made in memory is in no context";
    main->insertObject(loose);
    EXPECT_EQ(titles(fetchAll("Note")).size(), 2U);
    EXPECT_EQ(testsupport::captureAssertion([] { managedObjectWithObjectID(nullptr); }).description,
              "Invalid parameter not satisfying: objectID");
    QMCoreDataStoreManager::sharedManager()->setDefaultStore(nullptr);
}
