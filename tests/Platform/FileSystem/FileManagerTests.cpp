#include "Platform/FileSystem/FileManager.h"

#include "tests/Support/RunProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

using platform::ErrorRef;
using platform::FileManager;
using platform::FileType;
using platform::SearchPathDirectory;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void writeFile(const std::string& path, const std::string& contents)
{
    std::ofstream file(path, std::ios::binary);
    file << contents;
}

// The error a failed call left behind must be a POSIX one with the system's
// number, naming the path.
void expectPosixError(const ErrorRef& error, int code, const std::string& path)
{
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), platform::NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), code) << error->localizedDescription();
    EXPECT_EQ(error->userInfo().get(platform::NSFilePathErrorKey), platform::Value(path));
    EXPECT_THAT(error->localizedDescription(), testing::HasSubstr(path));
}

// Sets an environment variable (or unsets it, given nothing) for one test.
class ScopedVariable {
public:
    ScopedVariable(const char* name, std::optional<std::string> value) : name_(name)
    {
        if (const char* previous = std::getenv(name)) {
            previous_ = previous;
        }
        set(value);
    }
    ~ScopedVariable() { set(previous_); }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    void set(const std::optional<std::string>& value)
    {
        if (value) {
            ::setenv(name_, value->c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }

    const char* name_;
    std::optional<std::string> previous_;
};

class FileManagerTest : public testing::Test {
protected:
    std::string path(const std::string& name) const { return directory_.path() + "/" + name; }

    testsupport::TemporaryDirectory directory_;
};

using DirectoryListing = FileManagerTest;
using ItemAttributes = FileManagerTest;
using ItemExistence = FileManagerTest;
using DirectoryCreation = FileManagerTest;
using ItemMoving = FileManagerTest;
using ItemRemoval = FileManagerTest;
using LinkReading = FileManagerTest;
using ExtendedAttributes = FileManagerTest;
using FileContents = FileManagerTest;

}  // namespace

TEST_F(DirectoryListing, NamesEveryEntryButDotAndDotDotInByteOrder)
{
    writeFile(path("b.txt"), "");
    writeFile(path(".hidden"), "");
    writeFile(path("A"), "");
    writeFile(path("caf\xC3\xA9"), "");
    writeFile(path("\xFF"), "");
    ASSERT_EQ(::mkdir(path("sub").c_str(), 0700), 0);
    ASSERT_EQ(::symlink("nowhere", path("dangling").c_str()), 0);
    ErrorRef error;
    const auto names = FileManager::contentsOfDirectoryAtPath(directory_.path(), &error);
    ASSERT_TRUE(names.has_value()) << error->localizedDescription();
    EXPECT_THAT(*names, ElementsAre(".hidden", "A", "b.txt", "caf\xC3\xA9", "dangling", "sub", "\xFF"));
    EXPECT_EQ(error, nullptr) << "a success leaves the slot alone";
}

TEST_F(DirectoryListing, WhatIsNoDirectoryIsAnError)
{
    ErrorRef error;
    EXPECT_FALSE(FileManager::contentsOfDirectoryAtPath(path("missing"), &error));
    expectPosixError(error, ENOENT, path("missing"));

    writeFile(path("file"), "x");
    EXPECT_FALSE(FileManager::contentsOfDirectoryAtPath(path("file"), &error));
    expectPosixError(error, ENOTDIR, path("file"));
}

// Run as another user in a child process, since the superuser (as which the
// tests may run) reads every directory.
TEST_F(DirectoryListing, AnUnreadableDirectoryIsAnError)
{
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(path("closed").c_str(), 0), 0);
    const std::string closed = path("closed");
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) {
            ::_exit(100);
        }
        ErrorRef error;
        const auto names = FileManager::contentsOfDirectoryAtPath(closed, &error);
        ::_exit(names || error == nullptr ? 101 : static_cast<int>(error->code()));
    }
    EXPECT_EQ(testsupport::waitForExit(child), EACCES);
}

TEST_F(ItemAttributes, DescribeAFile)
{
    writeFile(path("file"), "12345");
    ASSERT_EQ(::chmod(path("file").c_str(), 0640), 0);
    const auto attributes = FileManager::attributesOfItemAtPath(path("file"));
    ASSERT_TRUE(attributes.has_value());
    EXPECT_EQ(attributes->type, FileType::Regular);
    EXPECT_EQ(attributes->size, 5U);
    EXPECT_EQ(attributes->posixPermissions, 0640U);
    const double now = platform::Date::now().timeIntervalSince1970();
    EXPECT_NEAR(attributes->modificationDate.timeIntervalSince1970(), now, 60);
    EXPECT_LE(attributes->creationDate, attributes->modificationDate);

    const auto dictionary = attributes->dictionary();
    EXPECT_EQ(dictionary.get(platform::NSFileType), platform::Value("NSFileTypeRegular"));
    EXPECT_EQ(dictionary.get(platform::NSFileSize), platform::Value(5));
    EXPECT_EQ(dictionary.get(platform::NSFileCreationDate), platform::Value(attributes->creationDate));
}

TEST_F(ItemAttributes, DescribeDirectoriesAndLinksThemselves)
{
    ASSERT_EQ(::mkdir(path("sub").c_str(), 0700), 0);
    ASSERT_EQ(::symlink("sub", path("link").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", path("dangling").c_str()), 0);
    EXPECT_EQ(FileManager::attributesOfItemAtPath(path("sub"))->type, FileType::Directory);
    const auto link = FileManager::attributesOfItemAtPath(path("link"));
    ASSERT_TRUE(link.has_value());
    EXPECT_EQ(link->type, FileType::SymbolicLink);
    EXPECT_EQ(link->size, 3U) << "a link's size is the length of its target";
    ASSERT_TRUE(FileManager::attributesOfItemAtPath(path("dangling")).has_value());
    EXPECT_EQ(FileManager::attributesOfItemAtPath(path("dangling"))->dictionary().get(platform::NSFileType),
              platform::Value("NSFileTypeSymbolicLink"));
}

// Setting the modification time to the past must not move the creation date
// with it where the file system keeps a birth time; where it does not, the
// earlier of the two times stands in.
TEST_F(ItemAttributes, CreationDateIsTheBirthTimeOrTheEarliestKnownTime)
{
    writeFile(path("old"), "x");
    const timespec times[2] = {{978307200, 0}, {978307200, 0}};  // 2001-01-01
    ASSERT_EQ(::utimensat(AT_FDCWD, path("old").c_str(), times, 0), 0);
    const auto attributes = FileManager::attributesOfItemAtPath(path("old"));
    ASSERT_TRUE(attributes.has_value());
    EXPECT_EQ(attributes->modificationDate, platform::Date(978307200));
    if (attributes->creationDateIsBirthTime) {
        EXPECT_NEAR(attributes->creationDate.timeIntervalSince1970(), platform::Date::now().timeIntervalSince1970(),
                    60);
    } else {
        EXPECT_EQ(attributes->creationDate, platform::Date(978307200));
    }
}

TEST_F(ItemAttributes, FailuresKeepTheSystemsErrorNumber)
{
    ErrorRef error;
    EXPECT_FALSE(FileManager::attributesOfItemAtPath(path("missing"), &error));
    expectPosixError(error, ENOENT, path("missing"));

    writeFile(path("file"), "");
    EXPECT_FALSE(FileManager::attributesOfItemAtPath(path("file") + "/below", &error));
    expectPosixError(error, ENOTDIR, path("file") + "/below");
}

TEST_F(ItemAttributes, APathWithANulByteIsInvalidNotCut)
{
    writeFile(path("file"), "");
    const std::string withNul = path("file") + std::string("\0.other", 7);
    ErrorRef error;
    EXPECT_FALSE(FileManager::attributesOfItemAtPath(withNul, &error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), EINVAL);
    EXPECT_FALSE(FileManager::fileExistsAtPath(withNul));
    EXPECT_FALSE(FileManager::removeItemAtPath(withNul));
    EXPECT_TRUE(FileManager::fileExistsAtPath(path("file")));
}

TEST_F(ItemExistence, FollowsLinksAndTellsDirectoriesApart)
{
    writeFile(path("file"), "");
    ASSERT_EQ(::mkdir(path("sub").c_str(), 0700), 0);
    ASSERT_EQ(::symlink("sub", path("link").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", path("dangling").c_str()), 0);

    bool isDirectory = true;
    EXPECT_TRUE(FileManager::fileExistsAtPath(path("file"), &isDirectory));
    EXPECT_FALSE(isDirectory);
    EXPECT_TRUE(FileManager::fileExistsAtPath(path("sub"), &isDirectory));
    EXPECT_TRUE(isDirectory);
    isDirectory = false;
    EXPECT_TRUE(FileManager::fileExistsAtPath(path("link"), &isDirectory));
    EXPECT_TRUE(isDirectory);

    isDirectory = true;
    EXPECT_FALSE(FileManager::fileExistsAtPath(path("dangling"), &isDirectory));
    EXPECT_FALSE(FileManager::fileExistsAtPath(path("missing"), &isDirectory));
    EXPECT_TRUE(isDirectory) << "left alone when nothing is there";
    EXPECT_FALSE(FileManager::fileExistsAtPath(""));
}

TEST_F(DirectoryCreation, MakesEveryMissingParent)
{
    const std::string deep = path("a/b/c");
    ErrorRef error;
    ASSERT_TRUE(FileManager::createDirectoryAtPath(deep, true, &error)) << error->localizedDescription();
    bool isDirectory = false;
    EXPECT_TRUE(FileManager::fileExistsAtPath(deep, &isDirectory));
    EXPECT_TRUE(isDirectory);
    // Again, and with doubled and trailing slashes: nothing to do is success.
    EXPECT_TRUE(FileManager::createDirectoryAtPath(path("a//b/c/"), true));
    EXPECT_TRUE(FileManager::createDirectoryAtPath(path("a/b/c2/"), true));
    EXPECT_TRUE(FileManager::fileExistsAtPath(path("a/b/c2")));
}

TEST_F(DirectoryCreation, WithoutIntermediatesNeedsTheParentAndNoDirectoryThere)
{
    ErrorRef error;
    EXPECT_FALSE(FileManager::createDirectoryAtPath(path("x/y"), false, &error));
    expectPosixError(error, ENOENT, path("x/y"));
    EXPECT_FALSE(FileManager::fileExistsAtPath(path("x")));

    ASSERT_TRUE(FileManager::createDirectoryAtPath(path("x"), false));
    EXPECT_FALSE(FileManager::createDirectoryAtPath(path("x"), false, &error));
    expectPosixError(error, EEXIST, path("x"));
}

TEST_F(DirectoryCreation, AFileInTheWayIsAnError)
{
    writeFile(path("file"), "");
    ErrorRef error;
    EXPECT_FALSE(FileManager::createDirectoryAtPath(path("file"), true, &error));
    expectPosixError(error, EEXIST, path("file"));
    EXPECT_FALSE(FileManager::createDirectoryAtPath(path("file/below"), true, &error));
    expectPosixError(error, ENOTDIR, path("file/below"));
}

TEST_F(DirectoryCreation, RacingCreatorsOfOneTreeBothSucceed)
{
    constexpr int kRounds = 50;
    for (int round = 0; round < kRounds; ++round) {
        const std::string deep = path("race" + std::to_string(round) + "/one/two/three");
        bool first = false;
        bool second = false;
        std::thread other([&] { first = FileManager::createDirectoryAtPath(deep, true); });
        second = FileManager::createDirectoryAtPath(deep, true);
        other.join();
        EXPECT_TRUE(first);
        EXPECT_TRUE(second);
    }
}

TEST_F(ItemMoving, RenamesButNeverReplaces)
{
    writeFile(path("from"), "moved");
    ASSERT_TRUE(FileManager::moveItemAtPath(path("from"), path("to")));
    EXPECT_FALSE(FileManager::fileExistsAtPath(path("from")));
    EXPECT_EQ(FileManager::attributesOfItemAtPath(path("to"))->size, 5U);

    writeFile(path("other"), "kept");
    ErrorRef error;
    EXPECT_FALSE(FileManager::moveItemAtPath(path("other"), path("to"), &error));
    expectPosixError(error, EEXIST, path("other"));
    EXPECT_EQ(FileManager::attributesOfItemAtPath(path("to"))->size, 5U);
    EXPECT_TRUE(FileManager::fileExistsAtPath(path("other")));

    EXPECT_FALSE(FileManager::moveItemAtPath(path("missing"), path("to2"), &error));
    expectPosixError(error, ENOENT, path("missing"));
}

// Links in /proc report a size of 0, and a target may be longer than any
// first guess: the whole target comes back either way.
TEST_F(LinkReading, ReadsTheWholeTargetWhateverTheReportedSize)
{
    EXPECT_EQ(FileManager::destinationOfSymbolicLinkAtPath("/proc/self/cwd"), std::filesystem::current_path().string());
    const std::string longTarget = "relative/" + std::string(700, 'x');
    ASSERT_EQ(::symlink(longTarget.c_str(), path("long").c_str()), 0);
    EXPECT_EQ(FileManager::destinationOfSymbolicLinkAtPath(path("long")), longTarget);

    writeFile(path("plain"), "");
    ErrorRef error;
    EXPECT_FALSE(FileManager::destinationOfSymbolicLinkAtPath(path("plain"), &error));
    expectPosixError(error, EINVAL, path("plain"));
}

TEST_F(FileContents, ReadsWholeFilesWithinTheLimitOnly)
{
    writeFile(path("data"), std::string("ab\0cd", 5));
    const auto contents = FileManager::contentsAtPath(path("data"), 5);
    ASSERT_TRUE(contents.has_value());
    EXPECT_EQ(*contents, (platform::Data{'a', 'b', 0, 'c', 'd'}));

    ErrorRef error;
    EXPECT_FALSE(FileManager::contentsAtPath(path("data"), 4, &error));
    expectPosixError(error, EFBIG, path("data"));
    EXPECT_FALSE(FileManager::contentsAtPath(directory_.path(), 100, &error));
    expectPosixError(error, EISDIR, directory_.path());
    EXPECT_FALSE(FileManager::contentsAtPath(path("missing"), 100, &error));
    expectPosixError(error, ENOENT, path("missing"));
}

TEST_F(FileContents, AtomicWritesReplaceWholeAndLeaveNothingBeside)
{
    writeFile(path("store"), "old contents, longer than the new");
    ASSERT_TRUE(FileManager::writeContentsAtomically(path("store"), platform::Data{'n', 'e', 'w'}));
    EXPECT_EQ(*FileManager::contentsAtPath(path("store"), 100), (platform::Data{'n', 'e', 'w'}));
    EXPECT_THAT(*FileManager::contentsOfDirectoryAtPath(directory_.path()), ElementsAre("store"));

    // A new file gets the mode the umask gives, not a temporary file's 0600.
    const mode_t mask = ::umask(022);
    ASSERT_TRUE(FileManager::writeContentsAtomically(path("fresh"), {}));
    ::umask(mask);
    EXPECT_EQ(FileManager::attributesOfItemAtPath(path("fresh"))->posixPermissions, 0644u);

    // Where nothing can be written, the old file and the directory stay as
    // they were.
    ErrorRef error;
    EXPECT_FALSE(FileManager::writeContentsAtomically(path("none/store"), {}, &error));
    expectPosixError(error, ENOENT, path("none/store"));
    EXPECT_THAT(*FileManager::contentsOfDirectoryAtPath(directory_.path()), ElementsAre("fresh", "store"));
}

TEST_F(ItemRemoval, RemovesFilesAndWholeTrees)
{
    writeFile(path("file"), "");
    ASSERT_TRUE(FileManager::createDirectoryAtPath(path("tree/a/b"), true));
    writeFile(path("tree/a/b/leaf"), "x");
    writeFile(path("tree/top"), "x");
    ASSERT_TRUE(FileManager::removeItemAtPath(path("file")));
    ASSERT_TRUE(FileManager::removeItemAtPath(path("tree")));
    EXPECT_THAT(*FileManager::contentsOfDirectoryAtPath(directory_.path()), IsEmpty());
}

TEST_F(ItemRemoval, RemovesLinksNotWhatTheyPointAt)
{
    ASSERT_TRUE(FileManager::createDirectoryAtPath(path("target"), false));
    writeFile(path("target/keep"), "x");
    ASSERT_EQ(::symlink("target", path("link").c_str()), 0);
    ASSERT_TRUE(FileManager::createDirectoryAtPath(path("tree"), false));
    ASSERT_EQ(::symlink("../target", path("tree/inner").c_str()), 0);

    ASSERT_TRUE(FileManager::removeItemAtPath(path("link")));
    ASSERT_TRUE(FileManager::removeItemAtPath(path("tree")));
    EXPECT_TRUE(FileManager::fileExistsAtPath(path("target/keep")));
}

TEST_F(ItemRemoval, NothingThereIsAnError)
{
    ErrorRef error;
    EXPECT_FALSE(FileManager::removeItemAtPath(path("missing"), &error));
    expectPosixError(error, ENOENT, path("missing"));
}

TEST_F(ExtendedAttributes, SetReadAndRemoveInTheUserNamespace)
{
    writeFile(path("log"), "");
    ErrorRef error;
    ASSERT_TRUE(FileManager::setExtendedAttribute("velmora.log.archived", {}, path("log"), &error))
        << error->localizedDescription();
    const auto value = FileManager::extendedAttribute("velmora.log.archived", path("log"), &error);
    ASSERT_TRUE(value.has_value());
    EXPECT_THAT(*value, IsEmpty());
    // Where the attribute really lives, as other tools see it.
    EXPECT_EQ(::getxattr(path("log").c_str(), "user.velmora.log.archived", nullptr, 0), 0);

    ASSERT_TRUE(FileManager::setExtendedAttribute("note", {'a', 0, 'b'}, path("log")));
    EXPECT_EQ(*FileManager::extendedAttribute("note", path("log")), (platform::Data{'a', 0, 'b'}));

    ASSERT_TRUE(FileManager::removeExtendedAttribute("velmora.log.archived", path("log"), &error));
    EXPECT_FALSE(FileManager::extendedAttribute("velmora.log.archived", path("log"), &error));
    expectPosixError(error, ENODATA, path("log"));
    EXPECT_TRUE(FileManager::extendedAttribute("note", path("log")).has_value());
}

TEST_F(ExtendedAttributes, FailuresAreReported)
{
    writeFile(path("log"), "");
    ErrorRef error;
    EXPECT_FALSE(FileManager::removeExtendedAttribute("absent", path("log"), &error));
    expectPosixError(error, ENODATA, path("log"));
    EXPECT_FALSE(FileManager::setExtendedAttribute("x", {}, path("missing"), &error));
    expectPosixError(error, ENOENT, path("missing"));
    EXPECT_FALSE(FileManager::setExtendedAttribute("", {}, path("log"), &error));
    expectPosixError(error, EINVAL, path("log"));
    EXPECT_FALSE(FileManager::extendedAttribute(std::string_view("a\0b", 3), path("log"), &error));
    expectPosixError(error, EINVAL, path("log"));
}

TEST(UserDirectories, FollowTheXDGVariablesWhenAbsolute)
{
    ScopedVariable home("HOME", "/home/someone");
    ScopedVariable data("XDG_DATA_HOME", "/srv/data");
    ScopedVariable state("XDG_STATE_HOME", "relative/state");
    ScopedVariable cache("XDG_CACHE_HOME", std::nullopt);
    const std::pair<SearchPathDirectory, std::string> rows[] = {
        {SearchPathDirectory::ApplicationSupport, "/srv/data"},
        {SearchPathDirectory::Logs, "/home/someone/.local/state"},
        {SearchPathDirectory::Caches, "/home/someone/.cache"},
    };
    for (const auto& [directory, expected] : rows) {
        SCOPED_TRACE(expected);
        const auto urls = FileManager::URLsForDirectory(directory);
        ASSERT_EQ(urls.size(), 1U);
        EXPECT_TRUE(urls.front().isFileURL());
        EXPECT_EQ(urls.front().path(), expected);
    }
}

TEST(UserDirectories, HomeComesFromTheUserDatabaseWhenHOMEIsNoAbsolutePath)
{
    ScopedVariable home("HOME", "not/absolute");
    ScopedVariable data("XDG_DATA_HOME", std::nullopt);
    const std::string fromDatabase = FileManager::homeDirectory();
    EXPECT_EQ(fromDatabase.front(), '/');
    EXPECT_NE(fromDatabase, "not/absolute");
    const std::string expected = (fromDatabase == "/" ? std::string() : fromDatabase) + "/.local/share";
    EXPECT_EQ(FileManager::URLsForDirectory(SearchPathDirectory::ApplicationSupport).front().path(), expected);
}

TEST(UserDirectories, TemporaryDirectoryFallsBackWhenTMPDIRNamesNone)
{
    testsupport::TemporaryDirectory scratch;
    {
        ScopedVariable tmpdir("TMPDIR", scratch.path());
        EXPECT_EQ(FileManager::temporaryDirectory(), scratch.path());
    }
    {
        ScopedVariable tmpdir("TMPDIR", scratch.path() + "/missing");
        EXPECT_EQ(FileManager::temporaryDirectory(), "/tmp");
    }
    {
        ScopedVariable tmpdir("TMPDIR", std::nullopt);
        EXPECT_EQ(FileManager::temporaryDirectory(), "/tmp");
    }
}
