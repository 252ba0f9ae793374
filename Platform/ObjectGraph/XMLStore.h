// XMLStore: the whole object graph in one XML file (store type NSXMLStoreType).
//
// The file is read whole when the store is loaded and written whole, atomically
// (FileManager::writeContentsAtomically: temporary file, fsync, rename), on
// every save, so after a crash it holds the last saved graph. Fetches and
// counts evaluate predicates and sort descriptors in memory, with the rules of
// Platform/Predicates, so they answer as the SQLite store's SQL does.
//
// The file:
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <zarvo-object-graph format="1" uuid="6F0A...C1" model="<model version hash>">
//     <entity name="Employee" next-key="3">
//       <object pk="1" version="2">
//         <p n="name" t="string" v="Ada"/>
//         <p n="photo" t="binary" v="iVBORw0K..."/>           <!-- Base64 -->
//         <p n="department" t="ref" v="7"/>                  <!-- primary key -->
//         <p n="tags" t="refs" v="1 4 2"/>                   <!-- in order -->
//       </object>
//     </entity>
//   </zarvo-object-graph>
//
// A nil value has no <p>. Types are the model file's attribute type names;
// a string that XML cannot carry as it stands (control characters, invalid
// UTF-8) is written as "string64", Base64. Dates are seconds since 1970.
// Anything else (another root, another format, a property the model does not
// have, a value that does not parse, a reference to no object) makes the file
// "not a store": NSPersistentStoreTypeMismatchError, its failure reason naming
// the place. A file of another model version is
// NSPersistentStoreIncompatibleVersionHashError.
//
// Primary keys handed out by newPrimaryKeys are written with the next save;
// keys given out but never saved may be given out again after a restart. One
// process uses a file at a time: the store takes no lock against another.
//
// The rows, their saving (conflict checks, and the rollback when the file
// cannot be written), fetches, counts and primary keys are the in-memory
// store's; this class only reads the file (`readContents`) and writes it
// (`writeContents`).
//
// Threading: as every PersistentStore, called by its coordinator from one
// thread at a time.
#pragma once

#include "Platform/ObjectGraph/InMemoryStore.h"

#include <memory>

namespace platform {

class XMLStore final : public InMemoryStore {
public:
    static std::shared_ptr<XMLStore> create(Configuration configuration);

    std::string_view type() const override { return NSXMLStoreType; }
    std::string className() const override { return "NSXMLStore"; }

private:
    template <class> friend struct ObjectAllocator;
    explicit XMLStore(Configuration configuration) : InMemoryStore(std::move(configuration)) {}

    [[nodiscard]] bool readContents(ErrorRef* error) override;
    [[nodiscard]] bool writeContents(ErrorRef* error) override;

    // The file's reading and writing, step by step; see XMLStore.cpp.
    class Reader;
    class Writer;
};

}  // namespace platform
