#include "Platform/Bundle/Bundle.h"

#include "tests/Support/RunProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using namespace platform;
using ::testing::ElementsAre;

namespace {

namespace fs = std::filesystem;

void writeFile(const fs::path& path, const std::string& contents)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << contents;
}

// A throwaway bundle: Info.json and a few resources, one of them a directory.
class BundleTest : public ::testing::Test {
protected:
    BundleTest() : bundlePath_(fs::path(scratch_.path()) / "Sample.bundle")
    {
        writeFile(bundlePath_ / "Info.json", R"({"CFBundleName": "Sample", "CFBundleIdentifier": "a.b.Sample", "Build": 7})");
        writeFile(bundlePath_ / "Sample.momd" / "v1.mom", "model");
        writeFile(bundlePath_ / "b.png", "b");
        writeFile(bundlePath_ / "a.png", "a");
        writeFile(bundlePath_ / "README", "plain");
        writeFile(bundlePath_ / "Images" / "logo.png", "logo");
        writeFile(fs::path(scratch_.path()) / "outside.txt", "not ours");
    }

    BundleRef bundle() const { return Bundle::bundleWithPath(bundlePath_.string()); }
    fs::path resource(const std::string& name) const { return bundlePath_ / name; }

    testsupport::TemporaryDirectory scratch_;
    fs::path bundlePath_;
};

TEST_F(BundleTest, ReadsItsInformationDictionary)
{
    const auto sample = bundle();
    ASSERT_NE(sample, nullptr);
    EXPECT_EQ(sample->infoDictionary().keys(), (std::vector<std::string>{"CFBundleName", "CFBundleIdentifier", "Build"}));
    EXPECT_EQ(sample->objectForInfoDictionaryKey("CFBundleName"), Value("Sample"));
    EXPECT_EQ(sample->objectForInfoDictionaryKey("Build"), Value(7));
    EXPECT_TRUE(sample->objectForInfoDictionaryKey("Missing").isNothing());
    EXPECT_EQ(sample->bundleIdentifier(), "a.b.Sample");
}

TEST_F(BundleTest, TakesABadInformationFileAsAnEmptyDictionary)
{
    const std::string bad[] = {
        "{\"CFBundleIdentifier\": ",          // cut short
        "[\"CFBundleIdentifier\"]",           // not an object
        "{\"CFBundleName\": \"\xff\"}",       // not UTF-8
        "{\"CFBundleName\": \"x\"}" + std::string(1 << 20, ' '),  // over 1 MiB
    };
    for (const auto& contents : bad) {
        writeFile(resource("Info.json"), contents);
        const auto broken = bundle();
        ASSERT_NE(broken, nullptr);
        EXPECT_TRUE(broken->infoDictionary().empty()) << contents.substr(0, 40);
    }
    writeFile(resource("Info.json"), R"({"CFBundleIdentifier": 42})");
    EXPECT_FALSE(bundle()->bundleIdentifier());  // only a string identifies
    fs::remove(resource("Info.json"));
    EXPECT_TRUE(bundle()->infoDictionary().empty());
}

TEST_F(BundleTest, IsMadeOnlyForDirectories)
{
    EXPECT_EQ(Bundle::bundleWithPath(resource("README").string()), nullptr);
    EXPECT_EQ(Bundle::bundleWithPath(resource("missing").string()), nullptr);
    EXPECT_EQ(Bundle::bundleWithPath(""), nullptr);
    EXPECT_EQ(Bundle::bundleWithURL(*URL::fromString("https://example.com/Sample.bundle")), nullptr);

    // Trailing slashes and dot components do not change the bundle's path.
    const auto spelled = Bundle::bundleWithPath(bundlePath_.string() + "/Images/../");
    ASSERT_NE(spelled, nullptr);
    EXPECT_EQ(spelled->bundlePath(), bundlePath_.string());
    const auto byURL = Bundle::bundleWithURL(spelled->bundleURL());
    ASSERT_NE(byURL, nullptr);
    EXPECT_EQ(byURL->bundlePath(), bundlePath_.string());
    EXPECT_EQ(byURL->objectForInfoDictionaryKey("CFBundleName"), Value("Sample"));
}

TEST_F(BundleTest, FindsResourcesByNameAndExtension)
{
    const auto sample = bundle();
    EXPECT_EQ(sample->pathForResource("a", "png"), resource("a.png").string());
    EXPECT_EQ(sample->pathForResource("a", ".png"), resource("a.png").string());
    EXPECT_EQ(sample->pathForResource("README"), resource("README").string());
    EXPECT_EQ(sample->pathForResource("logo", "png", "Images"), resource("Images/logo.png").string());
    EXPECT_EQ(sample->pathForResource("Images/logo", "png"), resource("Images/logo.png").string());
    EXPECT_FALSE(sample->pathForResource("c", "png"));
    EXPECT_FALSE(sample->pathForResource("logo", "png"));  // not at the top

    // A compiled model is a directory: found, and its URL says so.
    const auto model = sample->URLForResource("Sample", "momd");
    ASSERT_TRUE(model);
    EXPECT_EQ(model->absoluteString(), URL::fileURLWithPath(resource("Sample.momd").string(), true).absoluteString());
    EXPECT_EQ(model->absoluteString().back(), '/');
}

TEST_F(BundleTest, ListsResourcesOfAnExtensionInByteOrder)
{
    const auto sample = bundle();
    fs::create_symlink(resource("gone.png"), resource("0-dangling.png"));
    EXPECT_EQ(sample->pathForResource("", "png"), resource("a.png").string());  // the dangling link is no resource
    EXPECT_THAT(sample->URLsForResourcesWithExtension("png"),
                ElementsAre(URL::fileURLWithPath(resource("a.png").string()), URL::fileURLWithPath(resource("b.png").string())));
    EXPECT_EQ(sample->URLsForResourcesWithExtension("png", "Images").size(), 1u);
    EXPECT_TRUE(sample->URLsForResourcesWithExtension("png", "Missing").empty());
    EXPECT_TRUE(sample->URLsForResourcesWithExtension("").empty());
    EXPECT_FALSE(sample->pathForResource("", ""));
}

TEST_F(BundleTest, NeverLooksOutsideItselfByPath)
{
    const auto sample = bundle();
    ASSERT_TRUE(fs::exists(bundlePath_ / ".." / "outside.txt"));
    EXPECT_FALSE(sample->pathForResource("../outside", "txt"));
    EXPECT_FALSE(sample->pathForResource("outside", "txt", ".."));
    EXPECT_FALSE(sample->pathForResource("outside", "txt", "Images/../.."));
    EXPECT_FALSE(sample->pathForResource((bundlePath_ / ".." / "outside").string(), "txt"));
    EXPECT_FALSE(sample->pathForResource("outside", "/../outside.txt"));
    EXPECT_TRUE(sample->URLsForResourcesWithExtension("txt", "..").empty());
    EXPECT_FALSE(sample->pathForResource(std::string("a\0/../../outside", 16), "txt"));
}

// Where a program's main bundle is found, for each layout in turn.
class MainBundleLocation : public ::testing::Test {
protected:
    MainBundleLocation() : root_(scratch_.path()), program_(root_ / "prefix" / "bin" / "sample")
    {
        writeFile(program_, "#!/bin/sh\n");
    }

    std::string locate(const char* environmentValue = nullptr) const
    {
        return internal::locateMainBundle(program_.string(), environmentValue);
    }

    testsupport::TemporaryDirectory scratch_;
    fs::path root_;
    fs::path program_;
};

TEST_F(MainBundleLocation, TakesTheProgramsDirectoryWhenNothingElseIsThere)
{
    EXPECT_EQ(locate(), (root_ / "prefix" / "bin").string());
    EXPECT_EQ(locate(""), (root_ / "prefix" / "bin").string());
}

TEST_F(MainBundleLocation, PrefersTheSharedDataDirectoryToThat)
{
    fs::create_directories(root_ / "prefix" / "share" / "sample");
    EXPECT_EQ(locate(), (root_ / "prefix" / "share" / "sample").string());
}

TEST_F(MainBundleLocation, PrefersABundleBesideTheProgramToThat)
{
    fs::create_directories(root_ / "prefix" / "share" / "sample");
    fs::create_directories(root_ / "prefix" / "bin" / "sample.bundle");
    EXPECT_EQ(locate(), (root_ / "prefix" / "bin" / "sample.bundle").string());
}

TEST_F(MainBundleLocation, LetsTheEnvironmentNameItAboveAll)
{
    fs::create_directories(root_ / "prefix" / "bin" / "sample.bundle");
    fs::create_directories(root_ / "elsewhere");
    EXPECT_EQ(locate((root_ / "elsewhere/").c_str()), (root_ / "elsewhere").string());
    // A name that is no directory is passed over, not taken.
    EXPECT_EQ(locate((root_ / "missing").c_str()), (root_ / "prefix" / "bin" / "sample.bundle").string());
    EXPECT_EQ(locate(program_.c_str()), (root_ / "prefix" / "bin" / "sample.bundle").string());
}

TEST(MainBundle, IsFoundOnceForThisProgram)
{
    const auto bundle = Bundle::mainBundle();
    ASSERT_NE(bundle, nullptr);
    EXPECT_EQ(Bundle::mainBundle(), bundle);
    const auto executable = fs::read_symlink("/proc/self/exe").string();
    EXPECT_EQ(bundle->bundlePath(), internal::locateMainBundle(executable, std::getenv("ZARVO_MAIN_BUNDLE")));
}

}  // namespace
