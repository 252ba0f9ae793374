// The object-graph store on SQLite against SQLite used directly on the same
// schema, in the same run, pairs alternated, medians compared:
//   1. insert N objects of an entity with five attributes (one indexed) and
//      save once, against prepared INSERTs in one transaction;
//   2. 10,000 fetches by the indexed attribute with a fetch limit of 1,
//      against a prepared SELECT ... LIMIT 1;
//   3. a count with a predicate, against SELECT count(*);
//   4. fetching all N objects as faults: time, and heap memory per fault.
//
//   store [N [ROUNDS]]     (N = 100000, ROUNDS = 5)
#include "Platform/Foundation/Error.h"
#include "Platform/ObjectGraph/ManagedObjectContext.h"
#include "Platform/ObjectGraph/PersistentStoreCoordinator.h"
#include "Platform/ObjectGraph/SQLiteStore.h"
#include "Platform/Predicates/Predicate.h"

#include "bench/BenchmarkSupport.h"

#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <malloc.h>
#include <string>
#include <unistd.h>

using namespace platform;

namespace {

ManagedObjectModelRef itemModel()
{
    static const auto model = ManagedObjectModel::create({EntityDescription::create(
        "Item",
        {AttributeDescription::create("name", AttributeType::String, {.optional = true, .defaultValue = {}, .indexed = true}),
         AttributeDescription::create("count", AttributeType::Integer64),
         AttributeDescription::create("price", AttributeType::Double),
         AttributeDescription::create("created", AttributeType::Date),
         AttributeDescription::create("active", AttributeType::Boolean)},
        {})});
    return model;
}

std::string directory()
{
    static const std::string path = [] {
        std::string pattern = std::filesystem::temp_directory_path().string() + "/store-bench-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            std::exit(2);
        }
        return pattern;
    }();
    return path;
}

void removeStore(const std::string& path)
{
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        std::filesystem::remove(path + suffix);
    }
}

double elapsedMicroseconds(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

// Bytes the allocator has handed out and not taken back: unlike the resident
// size, not hidden by memory that earlier phases freed and this one reuses.
// Large blocks (a grown object table) are mapped on their own and counted apart.
std::size_t allocatedBytes()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

struct Stack {
    PersistentStoreCoordinatorRef coordinator;
    ManagedObjectContextRef context;
};

Stack openStack(const std::string& path)
{
    Stack stack;
    stack.coordinator = PersistentStoreCoordinator::create(itemModel());
    ErrorRef error;
    if (!stack.coordinator->addPersistentStoreWithType(NSSQLiteStoreType, std::nullopt, URL::fileURLWithPath(path), {},
                                                       &error)) {
        std::fprintf(stderr, "%s\n", error->description().c_str());
        std::exit(2);
    }
    stack.context = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
    stack.context->setPersistentStoreCoordinator(stack.coordinator);
    return stack;
}

double insertThroughStore(const std::string& path, int count)
{
    removeStore(path);
    auto stack = openStack(path);
    const auto start = std::chrono::steady_clock::now();
    for (int index = 0; index < count; ++index) {
        auto item = ManagedObject::insertNewObjectForEntityForName("Item", *stack.context);
        item->setValueForKey("item" + std::to_string(index), "name");
        item->setValueForKey(index, "count");
        item->setValueForKey(index * 0.5, "price");
        item->setValueForKey(Date(1.7e9 + index), "created");
        item->setValueForKey(index % 2 == 0, "active");
    }
    if (!stack.context->save()) {
        std::exit(2);
    }
    return elapsedMicroseconds(start);
}

// The same rows into the same layout, as a program using SQLite directly
// would write them: one transaction, one prepared statement.
double insertDirectly(const std::string& path, int count)
{
    removeStore(path);
    auto stack = openStack(path);  // the same schema, made by the store
    stack = {};
    sqlite3* database = nullptr;
    sqlite3_open(path.c_str(), &database);
    sqlite3_exec(database, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr);
    const auto start = std::chrono::steady_clock::now();
    sqlite3_exec(database, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(database,
                       "INSERT INTO \"Item\" (Z_PK, Z_OPT, \"name\", \"count\", \"price\", \"created\", \"active\") "
                       "VALUES (?, 1, ?, ?, ?, ?, ?)",
                       -1, &insert, nullptr);
    for (int index = 0; index < count; ++index) {
        const std::string name = "item" + std::to_string(index);
        sqlite3_bind_int64(insert, 1, index + 1);
        sqlite3_bind_text(insert, 2, name.c_str(), static_cast<int>(name.size()), SQLITE_TRANSIENT);
        sqlite3_bind_int64(insert, 3, index);
        sqlite3_bind_double(insert, 4, index * 0.5);
        sqlite3_bind_double(insert, 5, 1.7e9 + index);
        sqlite3_bind_int(insert, 6, index % 2 == 0);
        sqlite3_step(insert);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_exec(database, "COMMIT", nullptr, nullptr, nullptr);
    const double elapsed = elapsedMicroseconds(start);
    sqlite3_close(database);
    return elapsed;
}

}  // namespace

int main(int argc, char** argv)
{
    const int count = argc > 1 ? std::atoi(argv[1]) : 100000;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
    const std::string storePath = directory() + "/store.sqlite3";
    const std::string rawPath = directory() + "/raw.sqlite3";

    // 1. Inserting and saving.
    const auto [storeInsert, rawInsert] =
        bench::pairedMedians([&] { return insertThroughStore(storePath, count); },
                             [&] { return insertDirectly(rawPath, count); }, rounds, 1);
    std::printf("insert %d and save: store %.0f ms, SQLite %.0f ms, ratio %.2f\n", count, storeInsert / 1000,
                rawInsert / 1000, storeInsert / rawInsert);

    // The store file of the last round holds the rows for the reads.
    insertThroughStore(storePath, count);
    auto stack = openStack(storePath);
    sqlite3* database = nullptr;
    sqlite3_open(storePath.c_str(), &database);
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(database, "SELECT Z_PK FROM \"Item\" WHERE \"name\" = ? LIMIT 1", -1, &select, nullptr);
    sqlite3_stmt* countStatement = nullptr;
    sqlite3_prepare_v2(database, "SELECT count(*) FROM \"Item\" WHERE \"count\" > ?", -1, &countStatement, nullptr);

    // 2. Fetches by the indexed attribute.
    constexpr int kFetches = 10000;
    auto fetchThroughStore = [&] {
        const auto start = std::chrono::steady_clock::now();
        for (int index = 0; index < kFetches; ++index) {
            auto request = FetchRequest::fetchRequestWithEntityName("Item");
            request->setPredicate(
                Predicate::predicateWithFormat("name == %@", {"item" + std::to_string((index * 7919) % count)}));
            request->setFetchLimit(1);
            if (stack.context->executeFetchRequest(*request)->size() != 1) {
                std::exit(2);
            }
        }
        return elapsedMicroseconds(start) / kFetches;
    };
    auto fetchDirectly = [&] {
        const auto start = std::chrono::steady_clock::now();
        for (int index = 0; index < kFetches; ++index) {
            const std::string name = "item" + std::to_string((index * 7919) % count);
            sqlite3_bind_text(select, 1, name.c_str(), static_cast<int>(name.size()), SQLITE_TRANSIENT);
            if (sqlite3_step(select) != SQLITE_ROW) {
                std::exit(2);
            }
            sqlite3_reset(select);
        }
        return elapsedMicroseconds(start) / kFetches;
    };
    const auto [storeFetch, rawFetch] = bench::pairedMedians(fetchThroughStore, fetchDirectly, rounds, 1);
    std::printf("fetch by indexed attribute, limit 1: store %.1f us, SQLite %.1f us, ratio %.2f\n", storeFetch,
                rawFetch, storeFetch / rawFetch);

    // 3. A count with a predicate.
    auto countThroughStore = [&] {
        const auto start = std::chrono::steady_clock::now();
        auto request = FetchRequest::fetchRequestWithEntityName("Item");
        request->setPredicate(Predicate::predicateWithFormat("count > %@", {count / 2}));
        if (!stack.context->countForFetchRequest(*request)) {
            std::exit(2);
        }
        return elapsedMicroseconds(start);
    };
    auto countDirectly = [&] {
        const auto start = std::chrono::steady_clock::now();
        sqlite3_bind_int64(countStatement, 1, count / 2);
        if (sqlite3_step(countStatement) != SQLITE_ROW) {
            std::exit(2);
        }
        sqlite3_reset(countStatement);
        return elapsedMicroseconds(start);
    };
    const auto [storeCount, rawCount] = bench::pairedMedians(countThroughStore, countDirectly, rounds * 20, 5);
    std::printf("count with a predicate: store %.0f us, SQLite %.0f us, ratio %.2f\n", storeCount, rawCount,
                storeCount / rawCount);

    // 4. All objects as faults, in a fresh context.
    stack.context = nullptr;
    auto context = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
    context->setPersistentStoreCoordinator(stack.coordinator);
    const std::size_t before = allocatedBytes();
    const auto start = std::chrono::steady_clock::now();
    const auto all = context->executeFetchRequest(*FetchRequest::fetchRequestWithEntityName("Item"));
    const double elapsed = elapsedMicroseconds(start);
    const std::size_t after = allocatedBytes();
    std::printf("fetch %zu as faults: %.0f ms, %.0f bytes of memory per fault\n", all->size(), elapsed / 1000,
                static_cast<double>(after - before) / static_cast<double>(all->size()));

    sqlite3_finalize(select);
    sqlite3_finalize(countStatement);
    sqlite3_close(database);
    std::filesystem::remove_all(directory());
    return 0;
}
