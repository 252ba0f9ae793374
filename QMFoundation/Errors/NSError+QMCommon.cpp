#include "QMFoundation/Errors/NSError+QMCommon.h"

#include "Platform/Foundation/StringFormat.h"

bool containsError(const platform::Error& error)
{
    return error.code() > 0;
}

std::string fullDescription(const platform::Error& error)
{
    using platform::Value;
    return "<NSError " + error.addressString() + "> {\n"
        + platform::formatWithObjects("\tDomain: %@\n", {Value(error.domain())})
        + "\tCode: " + std::to_string(error.code()) + "\n"
        + platform::formatWithObjects("\tDescription: %@\n", {Value(error.localizedDescription())})
        + platform::formatWithObjects("\tReason: %@\n", {Value(error.localizedFailureReason())})
        + platform::formatWithObjects("\tUserInfo: %@\n", {Value(error.userInfo())})
        + "}";
}
