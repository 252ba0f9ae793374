// The notes example's import through the library's context stack against
// the same notes inserted and saved in one root context of the platform
// store, pairs alternated in the same run, ratio of medians:
//   stack:    a worker context (child of the master background context,
//             child of the persistent store context), insert N notes,
//             obtainPermanentIDs, saveRecursive to the SQLite file, with the
//             merge into the main context registered as the example has it;
//   baseline: one root context on the same kind of store, insert the same
//             N notes, save.
// Both insert through notes::insertNotes (examples/notes), so they differ
// only in the stack. Each run starts from a new store file; opening it is
// not timed, nor is the merge into the main context, which runs later on
// the main thread.
//
//   store_stack [N [PAIRS]]     (N = 10000, PAIRS = 9)
#include "examples/notes/NotesStack.h"

#include "Platform/Foundation/RunLoop.h"
#include "Platform/ObjectGraph/FetchRequest.h"
#include "QMFoundation/Store/NSManagedObjectContext+QMCoreDataStore.h"
#include "QMFoundation/Store/QMCoreDataStoreManager.h"

#include "bench/BenchmarkSupport.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

using namespace platform;

namespace {

std::int64_t noteCount = 10000;

std::string storePath()
{
    static const std::string directory = [] {
        std::string pattern = std::filesystem::temp_directory_path().string() + "/store-stack-bench-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            std::exit(2);
        }
        return pattern;
    }();
    return directory + "/Notes.sqlite3";
}

QMCoreDataStoreRef openFreshStore()
{
    std::filesystem::remove_all(std::filesystem::path(storePath()).parent_path());
    auto store = QMCoreDataStore::storeWithManagedObjectModelURL(URL::fileURLWithPath(NOTES_MODEL_PATH),
                                                                 std::string(NSSQLiteStoreType),
                                                                 URL::fileURLWithPath(storePath()), std::nullopt);
    ErrorRef error;
    if (!store->initialize(&error)) {
        std::fprintf(stderr, "cannot open %s: %s\n", storePath().c_str(), error->localizedDescription().c_str());
        std::exit(2);
    }
    return store;
}

// How many notes the store file holds, read through a context of its own.
std::size_t notesInStore(const QMCoreDataStore& store)
{
    const auto reader = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
    reader->setPersistentStoreCoordinator(store.persistentStoreCoordinator());
    return reader->countForFetchRequest(*FetchRequest::fetchRequestWithEntityName("Note")).value_or(0);
}

void closeStore(const QMCoreDataStore& store)
{
    const auto& coordinator = store.persistentStoreCoordinator();
    for (const auto& persistentStore : coordinator->persistentStores()) {
        (void)coordinator->removePersistentStore(persistentStore);
    }
}

void expectAllNotesSaved(const QMCoreDataStore& store, const char* run)
{
    if (notesInStore(store) != static_cast<std::size_t>(noteCount)) {
        std::fprintf(stderr, "%s: the store holds %zu notes, not %lld\n", run, notesInStore(store),
                     static_cast<long long>(noteCount));
        std::exit(2);
    }
}

double stackImport()
{
    const auto store = openFreshStore();
    notes::registerWellKnownContexts(*store);
    QMCoreDataStoreManager::sharedManager()->setDefaultStore(store);

    ErrorRef error;
    const auto start = std::chrono::steady_clock::now();
    if (!notes::importNotes(0, noteCount, &error)) {
        std::fprintf(stderr, "the import failed: %s\n", error->localizedDescription().c_str());
        std::exit(2);
    }
    const double elapsed = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();

    // Let the merge the save queued on the main context run, as the example
    // does, before the stack goes.
    bool merged = false;
    mainContext()->performBlock([&] { merged = true; });
    while (!merged) {
        RunLoop::mainRunLoop()->runModeBeforeDate(NSDefaultRunLoopMode, Date::now().dateByAddingTimeInterval(60));
    }
    expectAllNotesSaved(*store, "stack");
    QMCoreDataStoreManager::sharedManager()->setDefaultStore(nullptr);
    store->uninitialize();
    closeStore(*store);
    return elapsed;
}

// Timed from making the context to letting it go, as the import makes and
// drops its worker context.
double rootContextInsert()
{
    const auto store = openFreshStore();
    const auto start = std::chrono::steady_clock::now();
    {
        const auto root = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::Confinement);
        root->setPersistentStoreCoordinator(store->persistentStoreCoordinator());
        notes::insertNotes(*root, 0, noteCount);
        ErrorRef error;
        if (!root->save(&error)) {
            std::fprintf(stderr, "the save failed: %s\n", error->localizedDescription().c_str());
            std::exit(2);
        }
    }
    const double elapsed = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
    expectAllNotesSaved(*store, "root context");
    closeStore(*store);
    return elapsed;
}

}  // namespace

int main(int argc, char** argv)
{
    noteCount = argc > 1 ? std::atoll(argv[1]) : 10000;
    const int pairs = argc > 2 ? std::atoi(argv[2]) : 9;
    if (noteCount < 1 || pairs < 1) {
        std::fprintf(stderr, "usage: store_stack [N [PAIRS]]\n");
        return 2;
    }
    const auto [stack, root] = bench::pairedMedians(stackImport, rootContextInsert, pairs, 2);
    std::printf("%lld notes: worker context + saveRecursive %.1f ms, one root context + save %.1f ms, ratio %.2f "
                "(target at most 1.3)\n",
                static_cast<long long>(noteCount), stack / 1000, root / 1000, stack / root);
    std::filesystem::remove_all(std::filesystem::path(storePath()).parent_path());
    return 0;
}
