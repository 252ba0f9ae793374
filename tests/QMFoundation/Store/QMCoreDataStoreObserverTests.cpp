// Merging one context's saves into others that share no parent chain with
// it: each merge runs on the target's own queue, after the save.
//
// Every context here is a root on one coordinator with its own private
// queue. A test learns that a merge has run by waiting on the target's queue
// (performBlockAndWait queues behind the merge the save scheduled).
#include "QMFoundation/Store/NSManagedObjectContext+QMCoreData.h"
#include "QMFoundation/Store/QMCoreDataStore.h"
#include "QMFoundation/Store/QMCoreDataStoreObserver.h"
#include "tests/QMFoundation/Store/StoreTestBundle.h"
#include "tests/Support/ChangeRecorder.h"

#include <gtest/gtest.h>

using platform::ManagedObject;
using platform::ManagedObjectContext;
using platform::ManagedObjectContextConcurrencyType;
using platform::ManagedObjectContextRef;
using platform::ManagedObjectIDRef;
using platform::ManagedObjectRef;

namespace {

class QMCoreDataStoreObserverTest : public testing::Test {
protected:
    void SetUp() override
    {
        store_ = QMCoreDataStore::storeWithManagedObjectModelURL(
            sample_.modelURL(), std::string(platform::NSSQLiteStoreType),
            platform::URL::fileURLWithPath(sample_.path("Sample.sqlite3")), std::nullopt);
        ASSERT_TRUE(store_->initialize(nullptr));
        const auto writer = root("Writer");
        writer->performBlockAndWait([&] {
            auto note = ManagedObject::insertNewObjectForEntityForName("Note", *writer);
            note->setValueForKey("old", "title");
            ASSERT_TRUE(writer->save());
            noteID_ = note->objectID();
        });
    }

    ManagedObjectContextRef root(const std::string& name)
    {
        auto context = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::PrivateQueue);
        context->setPersistentStoreCoordinator(store_->persistentStoreCoordinator());
        setName_(*context, name);
        return context;
    }

    // A context that has the note loaded, so it keeps the old title until a
    // merge refreshes it.
    ManagedObjectContextRef targetHoldingTheNote(const std::string& name)
    {
        auto target = root(name);
        target->performBlockAndWait([&] { ASSERT_TRUE(target->existingObjectWithID(noteID_)); });
        return target;
    }

    void retitle(const ManagedObjectContextRef& context, const std::string& title)
    {
        context->performBlockAndWait([&] {
            context->existingObjectWithID(noteID_)->setValueForKey(title, "title");
            ASSERT_TRUE(context->save());
        });
    }

    std::string titleSeenBy(const ManagedObjectContextRef& context)
    {
        std::string title;
        context->performBlockAndWait([&] {
            const auto note = context->objectRegisteredForID(noteID_);
            title = note ? note->valueForKey("title").description() : "(not registered)";
        });
        return title;
    }

    storetest::SampleBundle sample_;
    QMCoreDataStoreRef store_;
    ManagedObjectIDRef noteID_;
};

}  // namespace

TEST_F(QMCoreDataStoreObserverTest, ASaveIsMergedIntoEachTargetOnItsQueue)
{
    const auto observed = root("Observed");
    const auto first = targetHoldingTheNote("First");
    const auto second = targetHoldingTheNote("Second");
    const auto bystander = targetHoldingTheNote("Bystander");
    store_->addObserverForContext(observed, first);
    store_->addObserverForContext(observed, second);

    retitle(observed, "new");
    EXPECT_EQ(titleSeenBy(first), "new");
    EXPECT_EQ(titleSeenBy(second), "new");
    EXPECT_EQ(titleSeenBy(bystander), "old") << "a context that is no target is left alone";
}

TEST_F(QMCoreDataStoreObserverTest, InsertedObjectsArriveLoadedInTheTarget)
{
    const auto observed = root("Observed");
    const auto target = root("Target");
    store_->addObserverForContext(observed, target);
    ManagedObjectIDRef inserted;
    observed->performBlockAndWait([&] {
        auto note = ManagedObject::insertNewObjectForEntityForName("Note", *observed);
        note->setValueForKey("fresh", "title");
        ASSERT_TRUE(observed->save());
        inserted = note->objectID();
    });
    target->performBlockAndWait([&] {
        const auto note = target->objectRegisteredForID(inserted);
        ASSERT_NE(note, nullptr);
        EXPECT_FALSE(note->isFault());
    });
}

TEST_F(QMCoreDataStoreObserverTest, RemovingOneTargetLeavesTheMergeButRemovingAllEndsIt)
{
    const auto observed = root("Observed");
    const auto target = targetHoldingTheNote("Target");
    store_->addObserverForContext(observed, target);

    store_->removeObserverForContext(observed, target);
    retitle(observed, "still merged");
    EXPECT_EQ(titleSeenBy(target), "still merged");

    store_->storeObserver()->removeAllObserversForContext(observed);
    EXPECT_EQ(store_->storeObserver()->contextObserverForName("Observed"), nullptr);
    retitle(observed, "not merged");
    EXPECT_EQ(titleSeenBy(target), "still merged");
}

TEST_F(QMCoreDataStoreObserverTest, ContextsWithOneNameShareOneEntry)
{
    const auto one = root("Worker context");
    const auto other = root("Worker context");
    const auto targetOfOne = targetHoldingTheNote("Target of one");
    const auto targetOfOther = targetHoldingTheNote("Target of other");
    store_->addObserverForContext(one, targetOfOne);
    store_->addObserverForContext(other, targetOfOther);
    ASSERT_EQ(store_->storeObserver()->contextObservers().size(), 1U);

    retitle(one, "from one");
    EXPECT_EQ(titleSeenBy(targetOfOne), "from one");
    EXPECT_EQ(titleSeenBy(targetOfOther), "from one");
}

// Every add registers one more did-save observation, even for an entry that
// exists and a target it already has, so k adds merge each save k times. A
// merge of an updated object announces each property to key-value
// observers, so an observer of the target's note hears one change per merge.
TEST_F(QMCoreDataStoreObserverTest, KAddsForOneContextMergeEachSaveKTimes)
{
    for (const int adds : {1, 2, 3}) {
        SCOPED_TRACE(testing::Message() << adds << " adds");
        const auto observed = root("Observed " + std::to_string(adds));
        const auto target = targetHoldingTheNote("Target " + std::to_string(adds));
        const auto recorder = testsupport::ChangeRecorder::create();
        target->performBlockAndWait([&] {
            const auto note = target->objectRegisteredForID(noteID_);
            note->addObserver(recorder, "title", platform::NSKeyValueObservingOptionNew);
        });
        for (int add = 0; add < adds; ++add) {
            store_->addObserverForContext(observed, target);
        }
        const auto entry = store_->storeObserver()->contextObserverForName("Observed " + std::to_string(adds));
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->targetManagedObjectContexts().size(), 1U) << "the target is held once";

        // A merge reads the store when it runs, so each save's merges are
        // waited for before the next save.
        retitle(observed, "first " + std::to_string(adds));
        EXPECT_EQ(titleSeenBy(target), "first " + std::to_string(adds));
        retitle(observed, "second " + std::to_string(adds));
        EXPECT_EQ(titleSeenBy(target), "second " + std::to_string(adds));
        std::vector<std::string> expected(adds, "title=first " + std::to_string(adds));
        expected.insert(expected.end(), adds, "title=second " + std::to_string(adds));
        EXPECT_EQ(recorder->seen(), expected);
        store_->storeObserver()->removeAllObserversForContext(observed);
    }
}

TEST_F(QMCoreDataStoreObserverTest, LaterRegistrationsOutliveTheirEntry)
{
    const auto observed = root("Observed");
    const auto target = targetHoldingTheNote("Target");
    store_->addObserverForContext(observed, target);
    store_->addObserverForContext(observed, target);
    store_->storeObserver()->removeAllObserversForContext(observed);

    // Only the first registration went with the entry; the second finds the
    // new entry under the same name and merges through it.
    const auto laterTarget = targetHoldingTheNote("Later target");
    auto entry = QMCoreDataStoreContextObserver::contextObserverWithManagedObjectContext(observed, laterTarget);
    entry->addTargetManagedObjectContext(laterTarget);
    store_->storeObserver()->addContextObserver(entry, "Observed");
    retitle(observed, "through the stale registration");
    EXPECT_EQ(titleSeenBy(laterTarget), "through the stale registration");
    EXPECT_EQ(titleSeenBy(target), "old");
}

TEST_F(QMCoreDataStoreObserverTest, MergingEndsWithTheObserverOrWhenTheStoreCloses)
{
    const auto observed = root("Observed");
    const auto target = targetHoldingTheNote("Target");
    auto lost = QMCoreDataStoreObserver::create();
    lost->addObserverForContext(observed, target);
    store_->addObserverForContext(observed, target);
    lost.reset();  // its observation stays registered, and does nothing
    store_->uninitialize();
    EXPECT_TRUE(store_->storeObserver()->contextObservers().empty());

    retitle(observed, "unobserved");
    EXPECT_EQ(titleSeenBy(target), "old");
}
