#include "QMFoundation/Logging/internal/SystemConsole.h"

#include <unistd.h>

#include <cerrno>
#include <string>

namespace qmlogging::internal {

void writeToSystemConsole(std::string_view message)
{
    std::string line(message);
    line += '\n';
    std::size_t written = 0;
    while (written < line.size()) {
        const auto count = ::write(STDERR_FILENO, line.data() + written, line.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return;
        }
        written += static_cast<std::size_t>(count);
    }
}

}  // namespace qmlogging::internal
