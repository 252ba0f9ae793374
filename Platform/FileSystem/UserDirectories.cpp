// The user's directories, in a file of their own: a program that needs only
// them (the responder finding its keychain) does not link the rest of the
// file manager, whose use of std::filesystem brings in the C++ locale set-up
// at every start.
#include "Platform/FileSystem/FileManager.h"

#include <cstdlib>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace platform {
namespace {

std::string absoluteVariable(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr && value[0] == '/' ? std::string(value) : std::string();
}

bool isDirectory(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

std::vector<URL> FileManager::URLsForDirectory(SearchPathDirectory directory)
{
    return {URL::fileURLWithPath(pathForDirectory(directory), true)};
}

std::string FileManager::pathForDirectory(SearchPathDirectory directory)
{
    const auto [variable, defaultUnderHome] = [&]() -> std::pair<const char*, const char*> {
        switch (directory) {
        case SearchPathDirectory::ApplicationSupport: return {"XDG_DATA_HOME", "/.local/share"};
        case SearchPathDirectory::Logs: return {"XDG_STATE_HOME", "/.local/state"};
        case SearchPathDirectory::Caches: return {"XDG_CACHE_HOME", "/.cache"};
        }
        return {"XDG_DATA_HOME", "/.local/share"};
    }();
    if (std::string path = absoluteVariable(variable); !path.empty()) {
        return path;
    }
    const std::string home = homeDirectory();
    return (home == "/" ? std::string() : home) + defaultUnderHome;
}

std::string FileManager::homeDirectory()
{
    if (std::string home = absoluteVariable("HOME"); !home.empty()) {
        return home;
    }
    // getpwuid_r: another thread may be asking the user database too.
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr && found->pw_dir[0] == '/') {
        return found->pw_dir;
    }
    return "/";
}

std::string FileManager::temporaryDirectory()
{
    // A $TMPDIR that names no directory is the environment's mistake; the
    // standard place is used rather than failing.
    if (std::string directory = absoluteVariable("TMPDIR"); !directory.empty() && isDirectory(directory)) {
        return directory;
    }
    return "/tmp";
}

}  // namespace platform
