#include "QMFoundation/Strings/NSFileManager+QMTemporaryFiles.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

// Points $TMPDIR at a directory of the test's own, so that what the cases
// create can be counted and is removed afterwards.
class TemporaryFilesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const char* previous = std::getenv("TMPDIR")) {
            previous_ = previous;
        }
        root_ = fs::temp_directory_path() / ("qm-temporary-files-" + std::to_string(::getpid()));
        fs::create_directories(root_);
        ::setenv("TMPDIR", root_.c_str(), 1);
    }

    void TearDown() override
    {
        if (previous_) {
            ::setenv("TMPDIR", previous_->c_str(), 1);
        } else {
            ::unsetenv("TMPDIR");
        }
        fs::remove_all(root_);
    }

    std::size_t entries() const { return static_cast<std::size_t>(std::distance(fs::directory_iterator(root_), fs::directory_iterator())); }

    static std::string contentsOf(const platform::URL& url)
    {
        std::ifstream file(url.path(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    fs::path root_;
    std::optional<std::string> previous_;
};

TEST_F(TemporaryFilesTest, PathsAreFreshNamesThatAreNotCreated)
{
    const fs::path directory = temporaryDirectoryPath();
    EXPECT_EQ(directory.parent_path(), root_);
    EXPECT_EQ(directory.filename().string().size(), 36u);
    EXPECT_NE(temporaryDirectoryPath(), directory.string());

    const auto file = temporaryFilePathWithExtension("txt");
    EXPECT_EQ(fs::path(file).parent_path(), root_);
    EXPECT_TRUE(file.ends_with(".txt")) << file;
    EXPECT_NE(temporaryFilePathWithExtension("txt"), file);
    EXPECT_EQ(fs::path(temporaryFilePath()).filename().string().find('.'), std::string::npos);
    EXPECT_EQ(fs::path(temporaryFilePathWithExtension("")).filename().string().find('.'), std::string::npos);

    EXPECT_TRUE(temporaryFileURL().isFileURL());
    EXPECT_TRUE(temporaryFileURLWithExtension("json").path().ends_with(".json"));
    EXPECT_TRUE(temporaryDirectoryURL().absoluteString().ends_with("/"));
    EXPECT_EQ(entries(), 0u);
}

TEST_F(TemporaryFilesTest, CreatesADirectory)
{
    platform::ErrorRef error;
    const auto url = createTemporaryDirectory(&error);
    ASSERT_TRUE(url);
    EXPECT_FALSE(error);
    EXPECT_TRUE(fs::is_directory(url->path()));
    EXPECT_EQ(fs::path(url->path()).parent_path(), root_);
}

TEST_F(TemporaryFilesTest, WritesTheContentsForTheOwnerOnly)
{
    const platform::Data contents{'a', 0, 'b', '\n'};
    const auto url = createTemporaryFileWithExtension("bin", contents);
    ASSERT_TRUE(url);
    EXPECT_TRUE(url->path().ends_with(".bin"));
    EXPECT_EQ(contentsOf(*url), std::string("a\0b\n", 4));
    struct stat status {};
    ASSERT_EQ(::stat(url->path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    const auto empty = createTemporaryFileWithContents(std::nullopt);
    ASSERT_TRUE(empty);
    EXPECT_EQ(fs::file_size(empty->path()), 0u);
    EXPECT_EQ(entries(), 2u);  // no staging file left behind
}

TEST_F(TemporaryFilesTest, FailuresAreReportedThroughTheError)
{
    platform::ErrorRef error;
    EXPECT_FALSE(createTemporaryFileWithExtension("d/x", platform::Data{'x'}, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), platform::NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), ENOENT);
    EXPECT_EQ(entries(), 0u);

    // Not even the superuser may make directories in /proc.
    ::setenv("TMPDIR", "/proc", 1);
    error = nullptr;
    EXPECT_FALSE(createTemporaryDirectory(&error));
    ASSERT_TRUE(error);
    EXPECT_NE(error->localizedDescription().find("/proc/"), std::string::npos) << error->localizedDescription();
}

}  // namespace
