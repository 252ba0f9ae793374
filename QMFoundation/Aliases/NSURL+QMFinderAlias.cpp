#include "QMFoundation/Aliases/NSURL+QMFinderAlias.h"

#include "Platform/Foundation/Exception.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/NSURL+QMFinderAlias";

platform::ErrorRef readError(int code, const std::string& path)
{
    const std::string description =
        code == EINVAL ? path + " is not an alias (a symbolic link)" : path + ": " + std::strerror(code);
    return platform::Error::create(std::string(platform::NSPOSIXErrorDomain), code,
                                   platform::Dictionary{{std::string(platform::NSLocalizedDescriptionKey), description},
                                                        {std::string(platform::NSFilePathErrorKey), path}});
}

}  // namespace

std::optional<platform::URL> fileURLFromAliasAtURL(const std::optional<platform::URL>& aliasFileURL,
                                                   platform::ErrorRef* error)
{
    PLATFORM_PARAMETER_ASSERT(aliasFileURL.has_value(), "aliasFileURL");
    PLATFORM_PARAMETER_ASSERT(aliasFileURL->isFileURL(), "aliasFileURL.isFileURL");
    const auto path = aliasFileURL->path();

    // A link's size is the length of its target; read one byte more to see
    // whether the target changed length in between, and try again if so.
    std::string target;
    for (;;) {
        struct stat status {};
        if (lstat(path.c_str(), &status) != 0) {
            platform::setError(error, readError(errno, path));
            return std::nullopt;
        }
        if (!S_ISLNK(status.st_mode)) {
            platform::setError(error, readError(EINVAL, path));
            return std::nullopt;
        }
        target.resize(static_cast<std::size_t>(status.st_size) + 1);
        const auto length = readlink(path.c_str(), target.data(), target.size());
        if (length < 0) {
            platform::setError(error, readError(errno, path));
            return std::nullopt;
        }
        if (static_cast<std::size_t>(length) < target.size()) {
            target.resize(static_cast<std::size_t>(length));
            break;
        }
    }
    if (!target.empty() && target.front() != '/') {
        target = path.substr(0, path.rfind('/') + 1) + target;
    }
    return platform::URL::fileURLWithPath(target);
}
