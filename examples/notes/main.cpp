// notes-example [COUNT]: the library's object store from start to finish.
//
// Opens the default SQLite store of the bundle "org.zarvo.examples.Notes"
// (bin/notes-example.bundle: Info.json and the model Notes.momd) under
// ${XDG_DATA_HOME:-~/.local/share}, registers the three well-known contexts,
// imports COUNT notes (5,000 by default) on a worker thread, saves them
// recursively to the store, lets the merge bring them into the main context
// and fetches them there with the entity helpers. At the end it closes the
// store and removes its file, so it can be run again from nothing; an
// application keeps its store, of course.
#include "examples/notes/NotesStack.h"

#include "Platform/Foundation/RunLoop.h"
#include "Platform/Predicates/Predicate.h"
#include "Platform/Predicates/SortDescriptor.h"
#include "QMFoundation/Store/NSManagedObject+QMCoreDataStore.h"
#include "QMFoundation/Store/NSManagedObjectContext+QMCoreDataStore.h"
#include "QMFoundation/Store/QMCoreDataStoreManager.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>

using platform::ErrorRef;

namespace {

int fail(const char* what, const ErrorRef& error)
{
    std::fprintf(stderr, "notes-example: %s: %s\n", what,
                 error ? error->localizedDescription().c_str() : "unknown error");
    return 1;
}

double millisecondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

std::string titles(const std::optional<std::vector<platform::ManagedObjectRef>>& notes)
{
    std::string text;
    for (const auto& note : notes.value_or(std::vector<platform::ManagedObjectRef>{})) {
        text += (text.empty() ? "" : ", ") + note->valueForKey("title").description();
    }
    return text;
}

// The number of notes asked for, or nothing when the argument is not one.
std::optional<std::int64_t> noteCount(int argc, char** argv)
{
    std::int64_t count = 5000;
    if (argc > 1) {
        const char* end = argv[1] + std::strlen(argv[1]);
        if (std::from_chars(argv[1], end, count).ptr != end || count < 1 || count > 10'000'000) {
            return std::nullopt;
        }
    }
    return count;
}

// 1. The default store: model and location come from the main bundle.
QMCoreDataStoreRef openDefaultStore(ErrorRef* error)
{
    const auto store = QMCoreDataStore::defaultStoreWithSqliteStoreType();
    if (!store->initialize(error)) {
        return nullptr;
    }
    notes::registerWellKnownContexts(*store);
    QMCoreDataStoreManager::sharedManager()->setDefaultStore(store);
    std::printf("Store:  %s\n", store->storeURL()->path().c_str());
    std::printf("        model %s\n", store->managedObjectModelURL().path().c_str());
    return store;
}

// 2. The import, on a thread of its own. Its save reaches the main context as
//    a merge queued on the main queue; a block queued after the save therefore
//    runs once the merge has. Answers how many notes the main context holds.
std::optional<std::size_t> importOnWorker(const platform::ManagedObjectContextRef& main, std::int64_t count,
                                          ErrorRef* error)
{
    bool imported = false;
    bool done = false;
    double importMilliseconds = 0;
    std::thread worker([&] {
        const auto start = std::chrono::steady_clock::now();
        imported = notes::importNotes(0, count, error);
        importMilliseconds = millisecondsSince(start);
        main->performBlock([&] { done = true; });
    });
    const auto loop = platform::RunLoop::mainRunLoop();
    while (!done) {
        loop->runModeBeforeDate(platform::NSDefaultRunLoopMode, platform::Date::now().dateByAddingTimeInterval(60));
    }
    worker.join();
    if (!imported) {
        return std::nullopt;
    }
    std::printf("Import: %lld notes inserted on a worker context and saved with saveRecursive\n"
                "        (worker -> master background -> persistent store context -> file) in %.0f ms\n",
                static_cast<long long>(count), importMilliseconds);
    const std::size_t merged = main->registeredObjects().size();
    std::printf("Merge:  the master background context's save brought %zu notes into the main context\n", merged);
    return merged;
}

// 3. Fetching on the main context (this thread) with the entity helpers.
int fetchOnMain(const platform::ManagedObjectContextRef& main, std::int64_t count, std::size_t merged)
{
    ErrorRef error;
    const auto pinned = platform::Predicate::predicateWithFormat("pinned == %@", {true});
    const auto byNumber = platform::SortDescriptor::create("number", false);
    const auto all = countAll("Note", &error);
    const auto pinnedCount = countAllWithPredicate("Note", pinned, &error);
    const auto lastPinned = fetchAllWithPredicate("Note", pinned, {byNumber}, 3, main.get(), &error);
    const auto found = fetchFirstByAttribute("Note", std::string("title"), "Note 42", &error);
    if (!lastPinned || all == platform::NSNotFound || pinnedCount == platform::NSNotFound) {
        return fail("a fetch failed", error);
    }
    if (merged != static_cast<std::size_t>(count) || all != static_cast<std::size_t>(count) || (count > 42 && !found)) {
        std::fprintf(stderr, "notes-example: %zu notes merged and %zu in the store, not %lld\n", merged, all,
                     static_cast<long long>(count));
        return 1;
    }
    std::printf("Fetch:  countAll: %zu; pinned: %zu; last three pinned: %s;\n"
                "        fetchFirstByAttribute(title = \"Note 42\"): %s\n",
                all, pinnedCount, titles(lastPinned).c_str(),
                found ? ("number " + found->valueForKey("number").description()).c_str() : "none");
    return 0;
}

// 4. Closing: no context or merge stays registered, the file goes.
int closeAndRemove(const QMCoreDataStoreRef& store)
{
    QMCoreDataStoreManager::sharedManager()->setDefaultStore(nullptr);
    store->uninitialize();
    for (const auto& persistentStore : store->persistentStoreCoordinator()->persistentStores()) {
        (void)store->persistentStoreCoordinator()->removePersistentStore(persistentStore);
    }
    ErrorRef error;
    if (!store->deleteStoreFile(&error)) {
        return fail("cannot remove the store file", error);
    }
    std::printf("Closed: contexts and merges unregistered, store file removed\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const auto count = noteCount(argc, argv);
    if (!count) {
        std::fprintf(stderr, "usage: notes-example [COUNT]   (1 to 10000000 notes)\n");
        return 2;
    }
    ErrorRef error;
    const auto store = openDefaultStore(&error);
    if (!store) {
        return fail("cannot open the store", error);
    }
    const auto main = mainContext();
    const auto merged = importOnWorker(main, *count, &error);
    if (!merged) {
        return fail("the import failed", error);
    }
    if (const int status = fetchOnMain(main, *count, *merged); status != 0) {
        return status;
    }
    return closeAndRemove(store);
}
