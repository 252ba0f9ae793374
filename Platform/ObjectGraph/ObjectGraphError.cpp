#include "Platform/ObjectGraph/ObjectGraphError.h"

namespace platform::objectgraph {

ErrorRef makeError(std::int64_t code, std::string description, std::string reason, ErrorRef underlying,
                   Dictionary extra)
{
    Dictionary userInfo = std::move(extra);
    userInfo.set(NSLocalizedDescriptionKey, std::move(description));
    if (!reason.empty()) {
        userInfo.set(NSLocalizedFailureReasonErrorKey, std::move(reason));
    }
    if (underlying) {
        userInfo.set(NSUnderlyingErrorKey, Value(std::move(underlying)));
    }
    return Error::create(std::string(NSCocoaErrorDomain), code, std::move(userInfo));
}

ErrorRef unknownEntityError(std::string_view entityName)
{
    return makeError(NSPersistentStoreOperationError, "The fetch request names an entity the model does not have.",
                     "No entity " + std::string(entityName) + ".");
}

}  // namespace platform::objectgraph
