// The object-graph store's errors: the platform's Cocoa error domain with the
// codes its object-graph framework uses, so that callers who test a code (the
// referential-integrity code 133000 above all) keep working.
//
// Each error says in its localized description what failed and, where there
// is one, names the place (a file, an entity, a property, an object ID) in
// its failure reason. Secrets never appear: values of attributes are not
// quoted in any message.
//
// | Code   | Constant                                      | Meaning; does retrying help?                      |
// |--------|-----------------------------------------------|---------------------------------------------------|
// | 260    | NSFileReadNoSuchFileError                     | a model file that does not exist; no              |
// | 259    | NSFileReadCorruptFileError                    | a model file that is not a model (the place of    |
// |        |                                               | the fault in the failure reason); no              |
// | 1550   | NSManagedObjectValidationError                | a value of the wrong type for its attribute; no   |
// | 1570   | NSValidationMissingMandatoryPropertyError     | a required property left empty at save; no        |
// | 1600   | NSValidationRelationshipDeniedDeleteError     | a delete refused by a "deny" rule; no             |
// | 133000 | NSManagedObjectReferentialIntegrityError      | an object ID whose object no longer exists; no    |
// | 133020 | NSManagedObjectMergeError                     | a save that met newer changes in the store        |
// |        |                                               | under the error merge policy; yes, after a merge  |
// | 134000 | NSPersistentStoreInvalidTypeError             | an unknown store type; no                         |
// | 134010 | NSPersistentStoreTypeMismatchError            | a store file that is not a store of the type      |
// |        |                                               | ("file not a store"); no                          |
// | 134020 | NSPersistentStoreIncompatibleSchemaError      | the store's tables do not match what it says; no  |
// | 134030 | NSPersistentStoreSaveError                    | the store could not write (disk full, busy); yes  |
// | 134060 | NSCoreDataError                               | any other failure of a store; maybe               |
// | 134070 | NSPersistentStoreOperationError               | an operation the store cannot do (a fetch before  |
// |        |                                               | the store is loaded); no                          |
// | 134080 | NSPersistentStoreOpenError                    | the store file could not be opened (missing       |
// |        |                                               | directory, no permission, locked); maybe          |
// | 134100 | NSPersistentStoreIncompatibleVersionHashError | a store made with another model; no (rebuild)     |
//
// Errors of the underlying store library or of the file system travel as the
// NSUnderlyingErrorKey entry.
#pragma once

#include "Platform/Foundation/Error.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace platform {

inline constexpr std::int64_t NSFileReadCorruptFileError = 259;
inline constexpr std::int64_t NSFileReadNoSuchFileError = 260;
inline constexpr std::int64_t NSManagedObjectValidationError = 1550;
inline constexpr std::int64_t NSValidationMissingMandatoryPropertyError = 1570;
inline constexpr std::int64_t NSValidationRelationshipDeniedDeleteError = 1600;
inline constexpr std::int64_t NSManagedObjectReferentialIntegrityError = 133000;
inline constexpr std::int64_t NSManagedObjectMergeError = 133020;
inline constexpr std::int64_t NSPersistentStoreInvalidTypeError = 134000;
inline constexpr std::int64_t NSPersistentStoreTypeMismatchError = 134010;
inline constexpr std::int64_t NSPersistentStoreIncompatibleSchemaError = 134020;
inline constexpr std::int64_t NSPersistentStoreSaveError = 134030;
inline constexpr std::int64_t NSCoreDataError = 134060;
inline constexpr std::int64_t NSPersistentStoreOperationError = 134070;
inline constexpr std::int64_t NSPersistentStoreOpenError = 134080;
inline constexpr std::int64_t NSPersistentStoreIncompatibleVersionHashError = 134100;

// User-information keys of the store's errors.
inline constexpr std::string_view NSValidationKeyErrorKey = "NSValidationErrorKey";
inline constexpr std::string_view NSValidationObjectErrorKey = "NSValidationErrorObject";
inline constexpr std::string_view NSPersistentStoreSaveConflictsErrorKey = "conflictList";
inline constexpr std::string_view NSAffectedObjectsErrorKey = "NSAffectedObjectsErrorKey";
inline constexpr std::string_view NSStoreFilePathErrorKey = "NSFilePath";

namespace objectgraph {

// An error of the Cocoa domain with a description, an optional failure reason
// (empty: none) and an optional underlying error.
ErrorRef makeError(std::int64_t code, std::string description, std::string reason = {},
                   ErrorRef underlying = nullptr, Dictionary extra = {});

// The error of a fetch request that names an entity the model does not have.
ErrorRef unknownEntityError(std::string_view entityName);

}  // namespace objectgraph
}  // namespace platform
