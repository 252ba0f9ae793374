#include "QMFoundation/Errors/NSException+QMCommon.h"

#include "Platform/Foundation/StringFormat.h"

#include <cstdio>

std::string fullDescription(const platform::Exception& exception)
{
    using platform::Value;
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(&exception));
    const Value userInfo = exception.userInfo().empty() ? Value() : Value(exception.userInfo());
    std::string text = std::string("NSException <") + address + "> {\n"
        + platform::formatWithObjects("\t\tname: %@\n", {Value(exception.name())})
        + platform::formatWithObjects("\t\treason: %@\n", {Value(exception.reason())})
        + platform::formatWithObjects("\t\tuserInfo: %@\n", {userInfo});
    if (!exception.callStackSymbols().empty()) {
        const platform::Array symbols(exception.callStackSymbols().begin(), exception.callStackSymbols().end());
        text += platform::formatWithObjects("\t\tcallStack: %@\n", {Value(symbols)});
    }
    return text + "\t}";
}
