#include "QMFoundation/Aliases/SymbolicLinkTarget.h"

#include <cerrno>
#include <climits>
#include <unistd.h>

namespace qm::internal {

std::optional<std::string> symbolicLinkTarget(const std::string& path)
{
    // A target fits when readlink leaves part of the buffer unused; a full
    // buffer may have cut it short.
    for (std::size_t capacity = 256; capacity <= 2 * PATH_MAX; capacity *= 2) {
        std::string target(capacity, '\0');
        const auto length = readlink(path.c_str(), target.data(), target.size());
        if (length < 0) {
            return std::nullopt;
        }
        if (static_cast<std::size_t>(length) < target.size()) {
            target.resize(static_cast<std::size_t>(length));
            return target;
        }
    }
    errno = ENAMETOOLONG;
    return std::nullopt;
}

}  // namespace qm::internal
