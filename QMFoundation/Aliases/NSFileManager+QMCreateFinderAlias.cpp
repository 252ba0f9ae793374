#include "QMFoundation/Aliases/NSFileManager+QMCreateFinderAlias.h"

#include "Platform/FileSystem/FileManager.h"
#include "QMFoundation/Command/QMCommandOperation.h"
#include "QMFoundation/Strings/NSFileManager+QMTemporaryFiles.h"

#include "Platform/Foundation/Exception.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/NSFileManager+QMCreateFinderAlias";

platform::ErrorRef moveError(int code, const std::string& from, const std::string& to)
{
    return platform::Error::posix(code, "Couldn't move " + from + " to " + to);
}

// rename(2), and across file systems a new link in place of the old one: a
// link is its target's path, so copying it is making it again.
bool moveLink(const std::string& from, const std::string& to, platform::ErrorRef* error)
{
    if (std::rename(from.c_str(), to.c_str()) == 0) {
        return true;
    }
    if (errno != EXDEV) {
        platform::setError(error, moveError(errno, from, to));
        return false;
    }
    platform::ErrorRef failure;
    const auto target = platform::FileManager::destinationOfSymbolicLinkAtPath(from, &failure);
    if (!target) {
        platform::setError(error, moveError(static_cast<int>(failure->code()), from, to));
        return false;
    }
    if (symlink(target->c_str(), to.c_str()) != 0) {
        platform::setError(error, moveError(errno, from, to));
        return false;
    }
    unlink(from.c_str());
    return true;
}

}  // namespace

bool createAliasAtURL(const std::optional<platform::URL>& aliasFileURL,
                      const std::optional<platform::URL>& withDestinationURL, platform::ErrorRef* error)
{
    PLATFORM_PARAMETER_ASSERT(aliasFileURL.has_value(), "aliasFileURL");
    PLATFORM_PARAMETER_ASSERT(withDestinationURL.has_value(), "destinationFileURL");
    PLATFORM_PARAMETER_ASSERT(aliasFileURL->isFileURL(), "aliasFileURL.isFileURL");
    PLATFORM_PARAMETER_ASSERT(withDestinationURL->isFileURL(), "destinationFileURL.isFileURL");

    const auto destinationPath = withDestinationURL->path();
    const auto aliasPath = aliasFileURL->path();
    // A link is the same for files and folders, so unlike the Finder's
    // script nothing here needs to know which the destination is.
    struct stat status {};
    const bool destinationExists = stat(destinationPath.c_str(), &status) == 0;
    const bool aliasPathTaken = lstat(aliasPath.c_str(), &status) == 0;
    if (!destinationExists || aliasPathTaken) {
        platform::setError(error, nullptr);
        return false;
    }

    const auto aliasName = withDestinationURL->lastPathComponent();
    PLATFORM_ASSERT(!aliasName.empty() && aliasName != "/",
                    "Couldn't get alias name for URL: " + withDestinationURL->absoluteString());
    const auto temporaryDirectory = createTemporaryDirectory();
    PLATFORM_ASSERT(temporaryDirectory.has_value(), "Couldn't create temporary directory");

    const auto madeLink = temporaryDirectory->path() + "/" + aliasName;
    if (!QMCommandOperation::runCommandWithLaunchPath("/bin/ln", {"-s", destinationPath, madeLink}, error)) {
        return false;
    }
    return moveLink(madeLink, aliasPath, error);
}
