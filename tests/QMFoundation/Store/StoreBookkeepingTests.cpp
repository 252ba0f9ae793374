// The registries of a store: named contexts, the entries of the store
// observer, and the process's stores.
#include "QMFoundation/Store/QMCoreDataStoreContextManager.h"
#include "QMFoundation/Store/QMCoreDataStoreContextObserver.h"
#include "QMFoundation/Store/QMCoreDataStoreManager.h"
#include "tests/QMFoundation/Store/StoreTestBundle.h"
#include "tests/Support/AssertionCapture.h"
#include "tests/Support/ChangeRecorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using platform::ManagedObjectContext;
using platform::ManagedObjectContextConcurrencyType;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

platform::ManagedObjectContextRef newContext()
{
    return ManagedObjectContext::create(ManagedObjectContextConcurrencyType::PrivateQueue);
}

}  // namespace

TEST(QMCoreDataStoreContextManager, RegisteringUnderATakenNameReplacesTheFirstContext)
{
    const auto manager = QMCoreDataStoreContextManager::create();
    const auto first = newContext();
    const auto second = newContext();
    manager->setManagedObjectContext(first, std::string("mainContext"));
    manager->setManagedObjectContext(second, std::string("mainContext"));
    EXPECT_EQ(manager->managedObjectContextForName(std::string("mainContext")), second);
    EXPECT_THAT(manager->allManagedObjectContexts(), ElementsAre(second));
}

TEST(QMCoreDataStoreContextManager, RemovingUnknownNamesAndEmptyingAreHarmless)
{
    const auto manager = QMCoreDataStoreContextManager::create();
    manager->removeManagedObjectContextForName(std::string("nobody"));
    manager->removeAllManagedObjectContexts();
    EXPECT_THAT(manager->allManagedObjectContexts(), IsEmpty());

    manager->setManagedObjectContext(newContext(), std::string("a"));
    manager->setManagedObjectContext(newContext(), std::string("b"));
    const auto before = manager->allManagedObjectContextsByName();
    manager->removeAllManagedObjectContexts();
    for (const auto& name : {"a", "b"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(manager->managedObjectContextForName(std::string(name)), nullptr);
    }
    EXPECT_EQ(before.size(), 2U) << "a snapshot outlives the registry's changes";
}

TEST(QMCoreDataStoreContextManager, MissingArgumentsAreAssertionsInTheirOrder)
{
    const auto manager = QMCoreDataStoreContextManager::create();
    EXPECT_EQ(testsupport::captureAssertion([&] { manager->setManagedObjectContext(nullptr, std::nullopt); }).description,
              "Invalid parameter not satisfying: name");
    const auto failure =
        testsupport::captureAssertion([&] { manager->setManagedObjectContext(nullptr, std::string("x")); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: managedObjectContext");
    EXPECT_EQ(failure.file, "QMFoundation/QMCoreDataStoreContextManager");
}

TEST(QMCoreDataStoreContextObserver, TargetsAreASetAndSnapshotsDoNotFollowChanges)
{
    const auto observed = newContext();
    const auto entry =
        QMCoreDataStoreContextObserver::contextObserverWithManagedObjectContext(observed, testsupport::ChangeRecorder::create());
    const auto a = newContext();
    const auto b = newContext();
    entry->addTargetManagedObjectContext(a);
    entry->addTargetManagedObjectContext(a);
    const auto snapshot = entry->targetManagedObjectContexts();
    entry->addTargetManagedObjectContext(b);
    EXPECT_THAT(snapshot, ElementsAre(a));
    EXPECT_THAT(entry->targetManagedObjectContexts(), ElementsAre(a, b));
    entry->removeTargetManagedObjectContext(a);
    entry->removeTargetManagedObjectContext(a);
    EXPECT_THAT(entry->targetManagedObjectContexts(), ElementsAre(b));
}

TEST(QMCoreDataStoreContextObserver, ObserversOfTheSnapshotHearOfTargetChanges)
{
    const auto entry =
        QMCoreDataStoreContextObserver::contextObserverWithManagedObjectContext(newContext(), testsupport::ChangeRecorder::create());
    const auto recorder = testsupport::ChangeRecorder::create();
    entry->addObserver(recorder, "targetManagedObjectContexts");
    entry->addTargetManagedObjectContext(newContext());
    EXPECT_EQ(recorder->seen().size(), 1U);
    entry->removeObserver(*recorder, "targetManagedObjectContexts");
}

TEST(QMCoreDataStoreContextObserver, AnEntryNeedsAContextAndAToken)
{
    EXPECT_EQ(testsupport::captureAssertion([] {
                  QMCoreDataStoreContextObserver::contextObserverWithManagedObjectContext(nullptr, nullptr);
              }).description,
              "Invalid parameter not satisfying: managedObjectContext");
    EXPECT_EQ(testsupport::captureAssertion([] {
                  QMCoreDataStoreContextObserver::contextObserverWithManagedObjectContext(newContext(), nullptr);
              }).description,
              "Invalid parameter not satisfying: observer");
}

TEST(QMCoreDataStoreManager, TheDefaultEntryIsSetReplacedAndRemovedByNothing)
{
    const storetest::SampleBundle sample;
    const auto manager = QMCoreDataStoreManager::create();
    const auto makeStore = [&] {
        return QMCoreDataStore::storeWithManagedObjectModelURL(sample.modelURL(),
                                                               std::string(platform::NSInMemoryStoreType),
                                                               std::nullopt, std::nullopt);
    };
    const auto first = makeStore();
    const auto second = makeStore();
    manager->setDefaultStore(first);
    manager->setDefaultStore(second);
    EXPECT_EQ(manager->defaultStore(), second);
    const auto snapshot = manager->allStores();
    manager->setDefaultStore(nullptr);
    EXPECT_EQ(manager->defaultStore(), nullptr);
    EXPECT_EQ(snapshot.size(), 1U);
    EXPECT_EQ(testsupport::captureAssertion([&] { manager->setStore(first, std::nullopt); }).description,
              "Invalid parameter not satisfying: name");
}
