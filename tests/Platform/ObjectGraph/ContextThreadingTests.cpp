#include "Platform/Dispatch/DispatchSemaphore.h"
#include "Platform/Foundation/Thread.h"
#include "tests/Platform/ObjectGraph/ObjectGraphFixture.h"
#include "tests/Support/RunLoopWaiting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace platform;
using testsupport::runMainLoopUntil;

namespace {

class ContextThreading : public testing::Test {
protected:
    void SetUp() override
    {
        coordinator_ = PersistentStoreCoordinator::create(objectgraphtest::companyModel());
        ASSERT_TRUE(coordinator_->addPersistentStoreWithType(
            NSSQLiteStoreType, std::nullopt, URL::fileURLWithPath(directory_.path() + "/Company.sqlite3"), {}));
    }

    ManagedObjectContextRef privateRoot()
    {
        auto context = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::PrivateQueue);
        context->setPersistentStoreCoordinator(coordinator_);
        return context;
    }

    testsupport::TemporaryDirectory directory_;
    PersistentStoreCoordinatorRef coordinator_;
};

TEST_F(ContextThreading, ChildrenOnManyThreadsSaveThroughOneRootIntoTheStore)
{
    auto root = privateRoot();
    root->setName("root");
    constexpr int kThreads = 4;
    constexpr int kEach = 25;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            auto child = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::PrivateQueue);
            child->setParentContext(root);
            child->performBlockAndWait([&] {
                for (int index = 0; index < kEach; ++index) {
                    auto employee = ManagedObject::insertNewObjectForEntityForName("Employee", *child);
                    employee->setValueForKey("E" + std::to_string(thread * kEach + index), "name");
                }
                ErrorRef error;
                EXPECT_TRUE(child->save(&error));
                // The names of other threads' contexts may be read meanwhile.
                EXPECT_EQ(root->name(), std::optional<std::string>("root"));
            });
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    std::optional<std::size_t> count;
    root->performBlockAndWait([&] {
        EXPECT_EQ(root->insertedObjects().size(), std::size_t{kThreads * kEach});
        EXPECT_TRUE(root->save());
        count = root->countForFetchRequest(*FetchRequest::fetchRequestWithEntityName("Employee"));
    });
    EXPECT_EQ(count, std::size_t{kThreads * kEach});
}

TEST_F(ContextThreading, PerformBlockAndWaitRunsInlineOnItsOwnQueue)
{
    auto context = privateRoot();
    auto done = DispatchSemaphore::create(0);
    std::atomic<int> steps{0};
    context->performBlock([&] {
        steps += 1;
        const auto outer = std::this_thread::get_id();
        context->performBlockAndWait([&] {
            EXPECT_EQ(std::this_thread::get_id(), outer);
            steps += 1;
            context->performBlockAndWait([&] { steps += 1; });
        });
        done->signal();
    });
    done->wait();
    EXPECT_EQ(steps.load(), 3);
}

TEST_F(ContextThreading, AMainQueueContextRunsInlineOnTheMainThreadAndQueuesFromOthers)
{
    ASSERT_TRUE(Thread::isMainThread());
    auto main = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::MainQueue);
    main->setPersistentStoreCoordinator(coordinator_);
    bool inline_ = false;
    main->performBlockAndWait([&] {
        inline_ = Thread::isMainThread();
        ManagedObject::insertNewObjectForEntityForName("Department", *main)->setValueForKey("Sales", "name");
    });
    EXPECT_TRUE(inline_);
    // Direct use on the main thread is allowed for this kind.
    EXPECT_TRUE(main->hasChanges());

    std::atomic<bool> ran{false};
    std::thread other([&] {
        main->performBlock([&] {
            EXPECT_TRUE(Thread::isMainThread());
            EXPECT_TRUE(main->save());
            ran = true;
        });
    });
    other.join();
    runMainLoopUntil([&] { return ran.load(); });
    EXPECT_TRUE(ran.load());
}

TEST_F(ContextThreading, AConfinementContextTakesQueuedBlocksOnItsOwnThreadsRunLoop)
{
    ManagedObjectContextRef confined;
    auto made = DispatchSemaphore::create(0);
    std::atomic<bool> ran{false};
    std::thread::id owner;
    std::thread worker([&] {
        owner = std::this_thread::get_id();
        confined = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
        confined->setPersistentStoreCoordinator(coordinator_);
        made->signal();
        const auto loop = RunLoop::currentRunLoop();
        const Date limit = Date::now().dateByAddingTimeInterval(30);
        while (!ran.load() && Date::now() < limit) {
            loop->runModeBeforeDate(NSDefaultRunLoopMode, Date::now().dateByAddingTimeInterval(0.05));
        }
    });
    made->wait();
    confined->performBlock([&] {
        EXPECT_EQ(std::this_thread::get_id(), owner);
        ManagedObject::insertNewObjectForEntityForName("Department", *confined)->setValueForKey("Ops", "name");
        EXPECT_TRUE(confined->save());
        ran = true;
    });
    worker.join();
    EXPECT_TRUE(ran.load());
}

TEST_F(ContextThreading, SavesMergeIntoAContextOnAnotherQueue)
{
    auto writer = privateRoot();
    auto reader = privateRoot();
    ManagedObjectIDRef id;
    writer->performBlockAndWait([&] {
        auto department = ManagedObject::insertNewObjectForEntityForName("Department", *writer);
        department->setValueForKey("Sales", "name");
        EXPECT_TRUE(writer->save());
        id = department->objectID();
    });
    ManagedObjectRef seen;
    reader->performBlockAndWait([&] {
        seen = reader->existingObjectWithID(id);
        EXPECT_EQ(seen->valueForKey("name"), Value("Sales"));
    });

    auto merged = DispatchSemaphore::create(0);
    auto token = NotificationCenter::defaultCenter()->addObserverForName(
        std::string(NSManagedObjectContextDidSaveNotification), writer, nullptr, [&](const Notification& notification) {
            reader->performBlock([&, notification] {
                reader->mergeChangesFromContextDidSaveNotification(notification);
                merged->signal();
            });
        });
    writer->performBlockAndWait([&] {
        writer->objectWithID(id)->setValueForKey("Sales EMEA", "name");
        EXPECT_TRUE(writer->save());
    });
    merged->wait();
    NotificationCenter::defaultCenter()->removeObserver(token);
    reader->performBlockAndWait([&] { EXPECT_EQ(seen->valueForKey("name"), Value("Sales EMEA")); });
}

// A fault makes its ID object when first asked; threads that ask at once
// (merges read IDs from the saving thread) must all get the one object.
TEST_F(ContextThreading, AFaultsIDReadOnManyThreadsAtOnceIsOneObject)
{
    auto writer = privateRoot();
    writer->performBlockAndWait([&] {
        for (int index = 0; index < 20; ++index) {
            ManagedObject::insertNewObjectForEntityForName("Department", *writer)->setValueForKey("D", "name");
        }
        EXPECT_TRUE(writer->save());
    });
    auto reader = privateRoot();
    std::vector<ManagedObjectRef> faults;
    reader->performBlockAndWait(
        [&] { faults = *reader->executeFetchRequest(*FetchRequest::fetchRequestWithEntityName("Department")); });
    ASSERT_EQ(faults.size(), 20u);

    constexpr int kThreads = 4;
    std::vector<std::vector<ManagedObjectIDRef>> seen(kThreads);
    auto start = DispatchSemaphore::create(0);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            start->wait();
            for (const auto& fault : faults) {
                seen[thread].push_back(fault->objectID());
            }
        });
    }
    for (int thread = 0; thread < kThreads; ++thread) {
        start->signal();
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (std::size_t index = 0; index < faults.size(); ++index) {
        ASSERT_NE(seen[0][index], nullptr);
        for (int thread = 1; thread < kThreads; ++thread) {
            EXPECT_EQ(seen[thread][index], seen[0][index]);
        }
        EXPECT_EQ(faults[index]->objectID(), seen[0][index]);
    }
}

#ifndef NDEBUG
TEST_F(ContextThreading, DirectUseOfAPrivateContextOutsideItsQueueRaisesInDebugBuilds)
{
    auto context = privateRoot();
    EXPECT_THROW((void)context->hasChanges(), Exception);
    context->performBlockAndWait([&] { EXPECT_NO_THROW((void)context->hasChanges()); });
}
#endif

}  // namespace
