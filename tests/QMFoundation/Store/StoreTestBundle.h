// A bundle directory with a small model ("Sample.momd": Folder and Note), made
// fresh under a temporary directory for each test that needs one.
#pragma once

#include "Platform/Bundle/Bundle.h"
#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/URL.h"
#include "tests/Support/RunProgram.h"

#include <fstream>
#include <string>

namespace storetest {

inline constexpr const char* kSampleModel = R"({
  "format": "zarvo-object-model",
  "formatVersion": 1,
  "entities": [
    {"name": "Folder",
     "attributes": [{"name": "name", "type": "string"}],
     "relationships": [{"name": "notes", "destination": "Note", "inverse": "folder", "toMany": true,
                        "deleteRule": "deny"}]},
    {"name": "Note",
     "attributes": [{"name": "title", "type": "string", "optional": false}],
     "relationships": [{"name": "folder", "destination": "Folder", "inverse": "notes"}]}
  ]
})";

inline void writeFile(const std::string& path, const std::string& text)
{
    std::ofstream(path) << text;
}

class SampleBundle {
public:
    explicit SampleBundle(const std::string& info = R"({"CFBundleIdentifier": "a.b.Sample"})")
    {
        writeFile(directory_.path() + "/Info.json", info);
        writeFile(directory_.path() + "/Sample.momd", kSampleModel);
        bundle_ = platform::Bundle::bundleWithPath(directory_.path());
    }

    const platform::BundleRef& bundle() const { return bundle_; }
    platform::URL modelURL() const { return *bundle_->URLForResource("Sample", "momd"); }
    std::string path(const std::string& name) const { return directory_.path() + "/" + name; }

private:
    testsupport::TemporaryDirectory directory_;
    platform::BundleRef bundle_;
};

}  // namespace storetest
