// Bundle: a directory holding an application's information dictionary and
// its resources.
//
// Layout, our own for Linux:
//
//   <bundle>/Info.json          the information dictionary: one JSON object
//                               ("CFBundleName", "CFBundleIdentifier", ...)
//   <bundle>/<name>.<extension> resources, at the top or in subdirectories
//                               (Model.momd, Images/logo.png)
//
// The main bundle of a program is the first of these that is a directory:
//   1. the directory that `ZARVO_MAIN_BUNDLE` names;
//   2. `<program>.bundle` beside the program (a build tree, an unpacked app);
//   3. `../share/<program>` from the program's directory (/usr/bin/app ->
//      /usr/share/app, as packages install data);
//   4. the program's own directory, as the platform does for a bare tool:
//      usually with no Info.json, so an empty information dictionary.
// `<program>` is the executable's file name after symbolic links are
// followed (/proc/self/exe); the search runs once per process.
//
//   auto bundle = Bundle::mainBundle();
//   bundle->bundleIdentifier();                      // "a.b.Sample", or nothing
//   bundle->URLForResource("Sample", "momd");        // file:///usr/share/sample/Sample.momd
//
// Contract:
// - A bundle reads its Info.json once, when it is made, and never changes:
//   every member may be called from any thread. A missing, unreadable or
//   malformed Info.json, or one that is not a JSON object or is larger than
//   1 MiB, gives an empty dictionary; it is never an error.
// - Resource look-ups ask the file system each time. Names, extensions and
//   subdirectories come from callers and may come from outside: any that is
//   absolute or contains a ".." component finds nothing, so a look-up never
//   leaves the bundle's directory by its path (symbolic links inside the
//   bundle are followed, as the bundle's author placed them).
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class Bundle;
using BundleRef = std::shared_ptr<Bundle>;

class Bundle : public Object {
public:
    // Never nothing: rule 4 always finds a directory.
    static BundleRef mainBundle();
    // Nothing unless `path` names a directory. A relative path is taken from
    // the working directory.
    [[nodiscard]] static BundleRef bundleWithPath(std::string_view path);
    // Nothing unless `url` is a file URL of a directory.
    [[nodiscard]] static BundleRef bundleWithURL(const URL& url);

    // Absolute, without a trailing slash.
    const std::string& bundlePath() const { return path_; }
    URL bundleURL() const;
    // Resources lie at the top of the bundle, so this is the bundle's path.
    const std::string& resourcePath() const { return path_; }

    const Dictionary& infoDictionary() const { return info_; }
    // Nothing when the key is absent.
    Value objectForInfoDictionaryKey(std::string_view key) const;
    // "CFBundleIdentifier" when it is a string.
    std::optional<std::string> bundleIdentifier() const;

    // The resource `name`.`extension` (just `name` when the extension is
    // empty; a leading "." of the extension is ignored), in `subdirectory`
    // when one is given. With an empty name, the first resource with the
    // extension in byte order of file names. A resource is anything there but
    // a dangling link: files, and directories such as a compiled model.
    [[nodiscard]] std::optional<URL> URLForResource(std::string_view name, std::string_view extension = {},
                                                    std::string_view subdirectory = {}) const;
    [[nodiscard]] std::optional<std::string> pathForResource(std::string_view name, std::string_view extension = {},
                                                             std::string_view subdirectory = {}) const;
    // Every resource with the extension in the directory, in byte order of
    // file names; an unreadable or missing directory gives none.
    std::vector<URL> URLsForResourcesWithExtension(std::string_view extension, std::string_view subdirectory = {}) const;

    // "Bundle </path/to/bundle>".
    std::string description() const override;

private:
    template <class> friend struct ObjectAllocator;
    Bundle(std::string path, Dictionary info) : path_(std::move(path)), info_(std::move(info)) {}

    std::optional<std::string> resolve(std::string_view name, std::string_view extension,
                                       std::string_view subdirectory) const;

    const std::string path_;
    const Dictionary info_;
};

namespace internal {
// The main bundle's directory by the four rules above, for an executable at
// `executablePath` and the value of `ZARVO_MAIN_BUNDLE` (null when unset).
// Tests call it with throwaway layouts; mainBundle() calls it once.
std::string locateMainBundle(std::string_view executablePath, const char* environmentValue);
}  // namespace internal

}  // namespace platform
