#include "Platform/ObjectGraph/FetchRequest.h"

namespace platform {

std::shared_ptr<FetchRequest> FetchRequest::fetchRequestWithEntityName(std::string entityName)
{
    return makeObject<FetchRequest>(std::move(entityName));
}

std::string FetchRequest::description() const
{
    // The predicate is not printed: its constants may be secrets.
    return "<NSFetchRequest: " + addressString() + "> (entity: " + entityName_ +
           "; predicate: " + (predicate_ ? "given" : "(null)") +
           "; sortDescriptors: " + std::to_string(sortDescriptors_.size()) +
           "; limit: " + std::to_string(fetchLimit_) + "; offset: " + std::to_string(fetchOffset_) + ")";
}

}  // namespace platform
