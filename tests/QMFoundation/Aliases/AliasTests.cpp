#include "QMFoundation/Aliases/NSFileManager+QMCreateFinderAlias.h"
#include "QMFoundation/Aliases/NSURL+QMFinderAlias.h"

#include "tests/Support/AssertionCapture.h"
#include "tests/Support/RunProgram.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>

using platform::ErrorRef;
using platform::URL;

namespace {

namespace fs = std::filesystem;

// A scratch folder for the files, and another one as $TMPDIR, so the test
// sees every temporary directory the alias maker creates.
class AliasTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const char* previous = std::getenv("TMPDIR")) {
            previousTemporaryDirectory_ = previous;
        }
        setenv("TMPDIR", temporary_.path().c_str(), 1);
    }
    void TearDown() override
    {
        if (previousTemporaryDirectory_) {
            setenv("TMPDIR", previousTemporaryDirectory_->c_str(), 1);
        } else {
            unsetenv("TMPDIR");
        }
    }

    std::string path(const std::string& name) const { return files_.path() + "/" + name; }
    static URL fileURL(const std::string& path) { return URL::fileURLWithPath(path); }
    std::size_t temporaryEntries() const
    {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(temporary_.path()), fs::directory_iterator()));
    }
    static void write(const std::string& path) { std::ofstream(path) << "contents"; }

    testsupport::TemporaryDirectory files_;
    testsupport::TemporaryDirectory temporary_;
    std::optional<std::string> previousTemporaryDirectory_;
};

TEST_F(AliasTest, MakesALinkThatResolvesToTheDestination)
{
    const auto file = path("a file \u00e9.txt");
    const auto folder = path("a folder");
    write(file);
    fs::create_directory(folder);

    for (const auto& destination : {file, folder}) {
        const auto alias = destination + " alias";
        ErrorRef error;
        ASSERT_TRUE(createAliasAtURL(fileURL(alias), fileURL(destination), &error)) << destination;
        EXPECT_FALSE(error);
        EXPECT_TRUE(fs::is_symlink(alias));
        EXPECT_EQ(fs::read_symlink(alias), destination);

        const auto resolved = fileURLFromAliasAtURL(fileURL(alias), &error);
        ASSERT_TRUE(resolved);
        EXPECT_EQ(resolved->path(), destination);
        EXPECT_TRUE(resolved->isFileURL());
    }
    // Each alias was made in a temporary directory of its own, left behind empty.
    EXPECT_EQ(temporaryEntries(), 2u);
    for (const auto& entry : fs::directory_iterator(temporary_.path())) {
        EXPECT_TRUE(fs::is_empty(entry.path()));
    }
}

TEST_F(AliasTest, RefusesATakenAliasPathOrAMissingDestinationWithoutRunningAnything)
{
    const auto destination = path("destination");
    write(destination);
    write(path("taken"));
    fs::create_symlink(path("nowhere"), path("dangling"));

    struct Case {
        std::string alias;
        std::string destination;
    };
    const Case cases[] = {
        {path("taken"), destination},
        {path("dangling"), destination},
        {path("new alias"), path("missing")},
    };
    for (const auto& testCase : cases) {
        ErrorRef error = platform::Error::create("stale", 1);
        EXPECT_FALSE(createAliasAtURL(fileURL(testCase.alias), fileURL(testCase.destination), &error)) << testCase.alias;
        EXPECT_FALSE(error) << "the error is cleared";
    }
    EXPECT_FALSE(fs::is_symlink(path("taken")));
    EXPECT_EQ(fs::read_symlink(path("dangling")), path("nowhere"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(path("new alias"))));
    EXPECT_EQ(temporaryEntries(), 0u) << "no temporary directory, so no command";
}

TEST_F(AliasTest, ReportsAMoveThatFails)
{
    const auto destination = path("destination");
    write(destination);
    ErrorRef error;
    EXPECT_FALSE(createAliasAtURL(fileURL(path("no such folder/alias")), fileURL(destination), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), platform::NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), ENOENT);
}

TEST_F(AliasTest, ResolvesOnlyLinks)
{
    write(path("plain"));
    fs::create_symlink("plain", path("relative"));

    ErrorRef error;
    const auto resolved = fileURLFromAliasAtURL(fileURL(path("relative")), &error);
    ASSERT_TRUE(resolved);
    EXPECT_EQ(resolved->path(), path("plain"));

    EXPECT_FALSE(fileURLFromAliasAtURL(fileURL(path("plain")), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), EINVAL);
    EXPECT_NE(error->localizedDescription().find("is not an alias"), std::string::npos);

    EXPECT_FALSE(fileURLFromAliasAtURL(fileURL(path("missing")), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), ENOENT);
    EXPECT_FALSE(fileURLFromAliasAtURL(fileURL(path("missing"))));
}

// Links in /proc report a size of 0, and a target may be far longer than a
// first guess: neither may stop the resolver from reading the whole target.
TEST_F(AliasTest, ResolvesLinksWhateverTheirReportedSize)
{
    const auto workingDirectory = fileURLFromAliasAtURL(fileURL("/proc/self/cwd"));
    ASSERT_TRUE(workingDirectory);
    EXPECT_EQ(workingDirectory->path(), fs::current_path().string());

    const std::string longTarget = "/" + std::string(300, 'a') + "/" + std::string(250, 'b') + "/" + std::string(200, 'c');
    fs::create_symlink(longTarget, path("long"));
    const auto resolved = fileURLFromAliasAtURL(fileURL(path("long")));
    ASSERT_TRUE(resolved);
    EXPECT_EQ(resolved->path(), longTarget);
}

TEST_F(AliasTest, AssertsItsArguments)
{
    const auto file = fileURL(path("file"));
    const auto web = *URL::fromString("https://example.com/file");
    struct Case {
        std::function<void()> call;
        std::string description;
        const char* file;
    };
    const char* maker = "QMFoundation/NSFileManager+QMCreateFinderAlias";
    const char* resolver = "QMFoundation/NSURL+QMFinderAlias";
    const Case cases[] = {
        {[&] { static_cast<void>(createAliasAtURL(std::nullopt, std::nullopt)); }, "Invalid parameter not satisfying: aliasFileURL", maker},
        {[&] { static_cast<void>(createAliasAtURL(web, std::nullopt)); }, "Invalid parameter not satisfying: destinationFileURL", maker},
        {[&] { static_cast<void>(createAliasAtURL(web, web)); }, "Invalid parameter not satisfying: aliasFileURL.isFileURL", maker},
        {[&] { static_cast<void>(createAliasAtURL(file, web)); }, "Invalid parameter not satisfying: destinationFileURL.isFileURL", maker},
        {[&] { static_cast<void>(createAliasAtURL(file, fileURL("/"))); }, "Couldn't get alias name for URL: file:///", maker},
        {[&] { static_cast<void>(fileURLFromAliasAtURL(std::nullopt)); }, "Invalid parameter not satisfying: aliasFileURL", resolver},
        {[&] { static_cast<void>(fileURLFromAliasAtURL(web)); }, "Invalid parameter not satisfying: aliasFileURL.isFileURL", resolver},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.description);
        const auto failure = testsupport::captureAssertion(testCase.call);
        EXPECT_EQ(failure.description, testCase.description);
        EXPECT_EQ(failure.file, testCase.file);
    }
}

}  // namespace
