#include "Platform/ObjectGraph/SQLiteStore.h"

#include "Platform/FileSystem/FileManager.h"
#include "tests/Platform/ObjectGraph/ObjectGraphFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

using namespace platform;
using testing::HasSubstr;

namespace {

class SQLiteStoreTest : public testing::Test {
protected:
    std::string path() const { return directory_.path() + "/Company.sqlite3"; }
    URL url() const { return URL::fileURLWithPath(path()); }

    PersistentStoreCoordinatorRef open(const ManagedObjectModelRef& model, ErrorRef* error = nullptr)
    {
        auto coordinator = PersistentStoreCoordinator::create(model);
        if (!coordinator->addPersistentStoreWithType(NSSQLiteStoreType, std::nullopt, url(), {}, error)) {
            return nullptr;
        }
        return coordinator;
    }

    static ManagedObjectContextRef contextOf(const PersistentStoreCoordinatorRef& coordinator)
    {
        auto context = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
        context->setPersistentStoreCoordinator(coordinator);
        return context;
    }

    // Inserts `count` departments named from `first` and saves them at once.
    static bool insertDepartments(const PersistentStoreCoordinatorRef& coordinator, int first, int count)
    {
        auto context = contextOf(coordinator);
        for (int index = first; index < first + count; ++index) {
            auto department = ManagedObject::insertNewObjectForEntityForName("Department", *context);
            department->setValueForKey("D" + std::to_string(index), "name");
        }
        ErrorRef error;
        const bool saved = context->save(&error);
        EXPECT_TRUE(saved) << (error ? error->description() : "");
        return saved;
    }

    static std::size_t countDepartments(const PersistentStoreCoordinatorRef& coordinator)
    {
        return contextOf(coordinator)
            ->countForFetchRequest(*FetchRequest::fetchRequestWithEntityName("Department"))
            .value_or(0);
    }

    testsupport::TemporaryDirectory directory_;
};

TEST_F(SQLiteStoreTest, AStoreOfAnotherModelIsRefusedAndOneWithCompatibleChangesOpens)
{
    ASSERT_TRUE(insertDepartments(open(objectgraphtest::companyModel()), 0, 1));

    std::string changed(objectgraphtest::kCompanyModelText);
    changed.replace(changed.find(R"("name": "budget", "type": "double")"), 34, R"("name": "budget", "type": "integer64")");
    ErrorRef error;
    EXPECT_EQ(open(ManagedObjectModel::modelWithJSONText(changed, "Changed.momd"), &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), NSPersistentStoreIncompatibleVersionHashError);
    EXPECT_NE(error->userInfo().find(NSStoreModelVersionHashKey), nullptr);

    std::string compatible(objectgraphtest::kCompanyModelText);
    compatible.replace(compatible.find(R"("indexed": true)"), 15, R"("indexed": false)");
    auto coordinator = open(ManagedObjectModel::modelWithJSONText(compatible, "Compatible.momd"));
    ASSERT_NE(coordinator, nullptr);
    EXPECT_EQ(countDepartments(coordinator), 1u);
}

TEST_F(SQLiteStoreTest, FilesThatAreNotOurStoresAreRefused)
{
    struct Row {
        std::string what;
        std::function<void()> make;
    };
    const Row rows[] = {
        {"text", [&] { std::ofstream(path()) << "not a database, but long enough to be taken for one by its size"; }},
        {"another program's database",
         [&] {
             sqlite3* database = nullptr;
             sqlite3_open(path().c_str(), &database);
             sqlite3_exec(database, "CREATE TABLE notes (body TEXT)", nullptr, nullptr, nullptr);
             sqlite3_close(database);
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ::unlink(path().c_str());
        row.make();
        ErrorRef error;
        EXPECT_EQ(open(objectgraphtest::companyModel(), &error), nullptr);
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->code(), NSPersistentStoreTypeMismatchError);
    }
}

TEST_F(SQLiteStoreTest, ANewFileNeverPairsWithTheJournalsOfAnOldOne)
{
    // A hot rollback journal of another database, as a crash in the middle of
    // a transaction leaves it: SQLite would play it back into whatever file
    // it finds beside it.
    const std::string other = directory_.path() + "/other.db";
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(other.c_str(), &database), SQLITE_OK);
    sqlite3_exec(database, "PRAGMA journal_mode=DELETE; CREATE TABLE notes (body TEXT);", nullptr, nullptr, nullptr);
    sqlite3_exec(database, "BEGIN; CREATE TABLE more (body TEXT); INSERT INTO notes VALUES (zeroblob(100000));",
                 nullptr, nullptr, nullptr);
    const auto journal = FileManager::contentsAtPath(other + "-journal", 1 << 24);
    sqlite3_exec(database, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(database);
    ASSERT_TRUE(journal && !journal->empty());

    // And the log of an old store whose file was deleted, as a rebuild does.
    auto old = open(objectgraphtest::companyModel());
    ASSERT_TRUE(insertDepartments(old, 0, 20));
    const auto oldLog = FileManager::contentsAtPath(path() + "-wal", 1 << 24);
    ASSERT_TRUE(oldLog && !oldLog->empty());
    ASSERT_TRUE(FileManager::removeItemAtPath(path()));
    old = nullptr;
    ASSERT_TRUE(FileManager::writeContentsAtomically(path() + "-wal", *oldLog));
    ASSERT_TRUE(FileManager::writeContentsAtomically(path() + "-journal", *journal));

    ErrorRef error;
    auto fresh = open(objectgraphtest::companyModel(), &error);
    ASSERT_NE(fresh, nullptr) << error->description();
    EXPECT_EQ(countDepartments(fresh), 0u);
    ASSERT_TRUE(insertDepartments(fresh, 100, 2));
    fresh = nullptr;
    EXPECT_EQ(countDepartments(open(objectgraphtest::companyModel())), 2u);
}

TEST_F(SQLiteStoreTest, AProcessKilledDuringASaveLeavesTheLastSavedState)
{
    ASSERT_TRUE(insertDepartments(open(objectgraphtest::companyModel()), 0, 10));
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(ready[0]);
        auto coordinator = open(objectgraphtest::companyModel());
        auto context = contextOf(coordinator);
        for (int index = 0; index < 20000; ++index) {
            ManagedObject::insertNewObjectForEntityForName("Department", *context)
                ->setValueForKey("Big" + std::to_string(index), "name");
        }
        const char byte = 1;
        (void)!::write(ready[1], &byte, 1);
        (void)context->save();
        ::_exit(0);
    }
    ::close(ready[1]);
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);  // the child is about to save
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(ready[0]);

    auto coordinator = open(objectgraphtest::companyModel());
    ASSERT_NE(coordinator, nullptr);
    const auto count = countDepartments(coordinator);
    EXPECT_TRUE(count == 10u || count == 20010u) << count;
    ASSERT_TRUE(insertDepartments(coordinator, 50000, 1));
}

TEST_F(SQLiteStoreTest, TwoProcessesSaveIntoOneStoreWithoutLosingOrSharingKeys)
{
    ASSERT_NE(open(objectgraphtest::companyModel()), nullptr);  // made once, before both write
    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(go[1]);
        char byte = 0;
        (void)!::read(go[0], &byte, 1);
        auto coordinator = open(objectgraphtest::companyModel());
        bool ok = coordinator != nullptr;
        for (int round = 0; ok && round < 20; ++round) {
            ok = insertDepartments(coordinator, 1000 + round * 10, 10);
        }
        ::_exit(ok ? 0 : 1);
    }
    ::close(go[0]);
    auto coordinator = open(objectgraphtest::companyModel());
    const char byte = 1;
    ASSERT_EQ(::write(go[1], &byte, 1), 1);
    ::close(go[1]);
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(insertDepartments(coordinator, round * 10, 10));
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    auto context = contextOf(coordinator);
    const auto ids = context->executeFetchRequestForIDs(*FetchRequest::fetchRequestWithEntityName("Department"));
    ASSERT_TRUE(ids.has_value());
    EXPECT_EQ(ids->size(), 400u);
    std::set<std::int64_t> keys;
    for (const auto& id : *ids) {
        keys.insert(id->primaryKey());
    }
    EXPECT_EQ(keys.size(), 400u);
}

TEST_F(SQLiteStoreTest, ValuesAreBoundNeverPastedIntoSQL)
{
    auto coordinator = open(objectgraphtest::companyModel());
    auto context = contextOf(coordinator);
    const std::string hostile = "x'); DROP TABLE \"Department\"; --";
    ManagedObject::insertNewObjectForEntityForName("Department", *context)->setValueForKey(hostile, "name");
    ErrorRef error;
    ASSERT_TRUE(context->save(&error));
    auto reader = contextOf(open(objectgraphtest::companyModel()));
    const auto all = reader->executeFetchRequest(*FetchRequest::fetchRequestWithEntityName("Department"));
    ASSERT_EQ(all->size(), 1u);
    EXPECT_EQ(all->front()->valueForKey("name"), Value(hostile));
}

}  // namespace
