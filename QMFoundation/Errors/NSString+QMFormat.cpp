#include "QMFoundation/Errors/NSString+QMFormat.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/StringFormat.h"

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/NSString+QMFormat";
}

std::string stringWithFormat(std::string_view format, const platform::Array& arguments)
{
    PLATFORM_ASSERT(arguments.size() <= QMStringFormatMaximumArgumentCount,
                    "Only 10 string format arguments supported.");
    if (arguments.empty()) {
        return std::string(format);
    }
    return platform::formatWithObjects(format, arguments);
}
