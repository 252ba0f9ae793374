// SymbolicLinkTarget: the text a symbolic link holds, read whatever its
// reported size.
#pragma once

#include <optional>
#include <string>

namespace qm::internal {

// The link's target as stored, or nothing with errno set (EINVAL when the
// path is not a symbolic link, ENAMETOOLONG when the target outgrows any
// path the kernel would take). Links in /proc report a size of 0, and a link
// may be replaced between lstat and readlink, so the buffer grows until the
// target fits rather than trusting the size.
std::optional<std::string> symbolicLinkTarget(const std::string& path);

}  // namespace qm::internal
