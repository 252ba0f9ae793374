#include "QMFoundation/Aliases/NSURL+QMFinderAlias.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/FileSystem/FileManager.h"

#include <cerrno>
#include <cstring>
#include <string>

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

    platform::ErrorRef failure;
    auto target = platform::FileManager::destinationOfSymbolicLinkAtPath(path, &failure);
    if (!target) {
        platform::setError(error, readError(static_cast<int>(failure->code()), path));
        return std::nullopt;
    }
    if (!target->empty() && target->front() != '/') {
        target = path.substr(0, path.rfind('/') + 1) + *target;
    }
    return platform::URL::fileURLWithPath(*target);
}
