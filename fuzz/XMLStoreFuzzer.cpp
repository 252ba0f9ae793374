// Any bytes as an XML store's file, as a user's disk may hold one: loading
// it fails with an error or gives a store whose objects can be fetched and
// read, never a crash. A store that loads writes a file that loads again
// with the same objects.
#include "Platform/FileSystem/FileManager.h"
#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/ObjectGraph/ManagedObjectModel.h"
#include "Platform/ObjectGraph/XMLStore.h"
#include "Platform/Predicates/Predicate.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <unistd.h>

using namespace platform;

namespace {

const ManagedObjectModelRef& model()
{
    static const auto model = ManagedObjectModel::modelWithJSONText(
        R"({"format": "zarvo-object-model", "formatVersion": 1, "entities": [
          {"name": "A", "attributes": [{"name": "s", "type": "string"}, {"name": "i", "type": "integer16"},
                                       {"name": "d", "type": "date"}, {"name": "b", "type": "binary"}],
           "relationships": [{"name": "one", "destination": "A", "inverse": "many"},
                             {"name": "many", "destination": "A", "inverse": "one", "toMany": true}]}]})",
        "Fuzz.momd");
    return model;
}

std::size_t countAll(XMLStore& store)
{
    auto request = FetchRequest::fetchRequestWithEntityName("A");
    request->setPredicate(predicateWithFormat("one.s BEGINSWITH 'x' OR ANY many.i > 3 OR i < 0"));
    const auto ids = store.fetchObjectIDs(*request);
    if (!ids) {
        std::abort();
    }
    for (const auto& id : *ids) {
        if (!store.snapshotForObjectWithID(*id)) {
            std::abort();
        }
    }
    return ids->size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    static const std::string path = FileManager::temporaryDirectory() + "/fuzz-xml-store-" + std::to_string(getpid()) + ".xml";
    // The model's version hash is long and random to a fuzzer: a placeholder
    // in the input stands for it, so that inputs reach past the header.
    std::string text(reinterpret_cast<const char*>(bytes), size);
    if (const auto at = text.find("MODELHASH"); at != std::string::npos && model()) {
        text.replace(at, 9, model()->versionHash());
    }
    if (!FileManager::writeContentsAtomically(path, Data(text.begin(), text.end()))) {
        return 0;
    }
    auto store = XMLStore::create({model(), URL::fileURLWithPath(path), {}});
    if (!store->load(nullptr)) {
        return 0;
    }
    const std::size_t found = countAll(*store);
    // Saving nothing rewrites the file; it must read back alike.
    if (!store->save({}, nullptr, nullptr)) {
        return 0;
    }
    auto again = XMLStore::create({model(), URL::fileURLWithPath(path), {}});
    if (!again->load(nullptr) || countAll(*again) != found) {
        std::abort();
    }
    return 0;
}
