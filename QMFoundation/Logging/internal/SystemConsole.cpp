#include "QMFoundation/Logging/internal/SystemConsole.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/FileHandle.h"

namespace qmlogging::internal {

void writeToSystemConsole(std::string_view message)
{
    platform::Data line(message.begin(), message.end());
    line.push_back('\n');
    try {
        platform::FileHandle::fileHandleWithStandardError()->writeData(line);
    } catch (const platform::Exception&) {
        // Standard error is closed or full: there is nowhere left to say so.
    }
}

}  // namespace qmlogging::internal
