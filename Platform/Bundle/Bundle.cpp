#include "Platform/Bundle/Bundle.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/JSON.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace platform {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLargestInfoFile = 1 << 20;

bool isDirectory(const fs::path& path)
{
    bool directory = false;
    return FileManager::fileExistsAtPath(path.string(), &directory) && directory;
}

// Absolute and lexically normal, without a trailing slash (except for "/").
std::string normalizedPath(std::string_view path)
{
    std::error_code error;
    auto absolute = fs::absolute(fs::path(path), error);
    if (error) {
        return {};
    }
    auto text = absolute.lexically_normal().string();
    while (text.size() > 1 && text.back() == '/') {
        text.pop_back();
    }
    return text;
}

Dictionary readInfoDictionary(const fs::path& bundle)
{
    const auto contents = FileManager::contentsAtPath((bundle / "Info.json").string(), kLargestInfoFile);
    if (!contents) {
        return {};
    }
    const auto value = JSONSerialization::valueWithString(
        std::string_view(reinterpret_cast<const char*>(contents->data()), contents->size()));
    if (!value || value->dictionary() == nullptr) {
        return {};
    }
    return *value->dictionary();
}

// A relative path that stays below the directory it is joined to.
bool staysInside(std::string_view part)
{
    if (part.empty()) {
        return true;
    }
    if (part.front() == '/' || part.find('\0') != std::string_view::npos) {
        return false;
    }
    for (const auto& component : fs::path(part)) {
        if (component == "..") {
            return false;
        }
    }
    return true;
}

std::string_view withoutLeadingDot(std::string_view extension)
{
    if (!extension.empty() && extension.front() == '.') {
        extension.remove_prefix(1);
    }
    return extension;
}

// The names in `directory` that end in "." + `extension`, in byte order,
// leaving out dangling links.
std::vector<std::string> namesWithExtension(const fs::path& directory, std::string_view extension)
{
    std::vector<std::string> names;
    const std::string suffix = "." + std::string(extension);
    for (auto& name : FileManager::contentsOfDirectoryAtPath(directory.string()).value_or(std::vector<std::string>{})) {
        if (name.size() > suffix.size() && name.ends_with(suffix) && FileManager::fileExistsAtPath((directory / name).string())) {
            names.push_back(std::move(name));
        }
    }
    return names;
}

}  // namespace

std::string internal::locateMainBundle(std::string_view executablePath, const char* environmentValue)
{
    if (environmentValue != nullptr && *environmentValue != '\0' && isDirectory(environmentValue)) {
        return normalizedPath(environmentValue);
    }
    const fs::path executable(executablePath);
    const auto directory = executable.parent_path();
    const auto name = executable.filename().string();
    if (!name.empty()) {
        if (const auto beside = directory / (name + ".bundle"); isDirectory(beside)) {
            return normalizedPath(beside.string());
        }
        if (const auto shared = directory / ".." / "share" / name; isDirectory(shared)) {
            return normalizedPath(shared.string());
        }
    }
    return normalizedPath(directory.empty() ? "." : directory.string());
}

BundleRef Bundle::mainBundle()
{
    static const BundleRef bundle = [] {
        const auto executable = FileManager::destinationOfSymbolicLinkAtPath("/proc/self/exe");
        const auto path = internal::locateMainBundle(executable.value_or(std::string()),
                                                     std::getenv("ZARVO_MAIN_BUNDLE"));
        auto found = bundleWithPath(path);
        // Only a directory removed since the search (or no working directory
        // at all) leaves nothing: the bundle is then that path, empty.
        return found ? found : makeObject<Bundle>(path, Dictionary());
    }();
    return bundle;
}

BundleRef Bundle::bundleWithPath(std::string_view path)
{
    if (path.empty()) {
        return nullptr;
    }
    auto normalized = normalizedPath(path);
    if (normalized.empty() || !isDirectory(normalized)) {
        return nullptr;
    }
    auto info = readInfoDictionary(normalized);
    return makeObject<Bundle>(std::move(normalized), std::move(info));
}

BundleRef Bundle::bundleWithURL(const URL& url)
{
    return url.isFileURL() ? bundleWithPath(url.path()) : nullptr;
}

URL Bundle::bundleURL() const
{
    return URL::fileURLWithPath(path_, true);
}

Value Bundle::objectForInfoDictionaryKey(std::string_view key) const
{
    return info_.get(key);
}

std::optional<std::string> Bundle::bundleIdentifier() const
{
    if (const auto* identifier = info_.find("CFBundleIdentifier"); identifier != nullptr && identifier->string()) {
        return *identifier->string();
    }
    return std::nullopt;
}

std::optional<std::string> Bundle::resolve(std::string_view name, std::string_view extension,
                                           std::string_view subdirectory) const
{
    extension = withoutLeadingDot(extension);
    if (!staysInside(name) || !staysInside(extension) || !staysInside(subdirectory)
        || extension.find('/') != std::string_view::npos) {
        return std::nullopt;
    }
    auto directory = fs::path(path_);
    if (!subdirectory.empty()) {
        directory /= fs::path(subdirectory);
    }
    std::string fileName(name);
    if (name.empty()) {
        if (extension.empty()) {
            return std::nullopt;
        }
        auto names = namesWithExtension(directory, extension);
        if (names.empty()) {
            return std::nullopt;
        }
        fileName = std::move(names.front());
    } else if (!extension.empty()) {
        fileName += "." + std::string(extension);
    }
    const auto path = (directory / fileName).lexically_normal().string();
    if (!FileManager::fileExistsAtPath(path)) {
        return std::nullopt;
    }
    return path;
}

std::optional<URL> Bundle::URLForResource(std::string_view name, std::string_view extension,
                                          std::string_view subdirectory) const
{
    const auto path = resolve(name, extension, subdirectory);
    if (!path) {
        return std::nullopt;
    }
    return URL::fileURLWithPath(*path, isDirectory(*path));
}

std::optional<std::string> Bundle::pathForResource(std::string_view name, std::string_view extension,
                                                   std::string_view subdirectory) const
{
    return resolve(name, extension, subdirectory);
}

std::vector<URL> Bundle::URLsForResourcesWithExtension(std::string_view extension,
                                                       std::string_view subdirectory) const
{
    extension = withoutLeadingDot(extension);
    std::vector<URL> urls;
    if (extension.empty() || !staysInside(subdirectory) || extension.find('/') != std::string_view::npos) {
        return urls;
    }
    auto directory = fs::path(path_);
    if (!subdirectory.empty()) {
        directory /= fs::path(subdirectory);
    }
    for (const auto& name : namesWithExtension(directory, extension)) {
        const auto path = (directory / name).lexically_normal();
        urls.push_back(URL::fileURLWithPath(path.string(), isDirectory(path)));
    }
    return urls;
}

std::string Bundle::description() const
{
    return "Bundle <" + path_ + ">";
}

}  // namespace platform
