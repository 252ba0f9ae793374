// The log directory: which names are log files, how new ones are named and
// made, which old ones go, and the archived mark on real files.
#include "QMFoundation/Logging/DDLog.h"
#include "QMFoundation/Logging/DDLogFileInfo.h"
#include "QMFoundation/Logging/DDLogFileManagerDefault.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/System/ProcessInfo.h"

#include "tests/QMFoundation/Logging/FileLoggingSupport.h"
#include "tests/Support/RunProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <regex>

using platform::FileManager;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

namespace {

// Makes a file whose birth time is later than every file made before, so
// that "newest first" is decided by the order of the calls.
std::string makeFile(const std::string& directory, const std::string& name, const std::string& text = {})
{
    static std::string lastMade;
    testsupport::waitForNewerFileTime(lastMade);
    const std::string path = directory + "/" + name;
    testsupport::writeWholeFile(path, text);
    lastMade = path;
    return path;
}

TEST(DDLogFileManagerNames, RecognisesOnlyTheRandomConventionInUpperCase)
{
    struct Row {
        const char* name;
        bool isLogFile;
    };
    const Row rows[] = {
        {"log-3F9A0C.txt", true},
        {"log-3F9A0Cxyz", true},  // only the ten first characters count
        {"log-000000", true},
        {"log-3f9a0c.txt", false},
        {"log-12345", false},
        {"log-2014-03-07T10:00:00Z.txt", false},
        {"log-(null).txt", false},
        {"LOG-3F9A0C.txt", false},
        {"xlog-3F9A0C.txt", false},
        {"", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(DDLogFileManagerDefault::isLogFile(row.name), row.isLogFile);
    }
}

TEST(DDLogFileManagerNames, NamesFilesByConvention)
{
    const std::regex random("log-[0-9A-F]{6}\\.txt");
    const auto first = DDLogFileManagerDefault::generateLogFileNameWithConvention(0, 1);
    EXPECT_TRUE(std::regex_match(first, random)) << first;
    EXPECT_TRUE(DDLogFileManagerDefault::isLogFile(first));

    const std::regex dated("log-\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ\\.txt");
    const std::regex datedRetry("log-\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ 3\\.txt");
    EXPECT_TRUE(std::regex_match(DDLogFileManagerDefault::generateLogFileNameWithConvention(1, 1), dated));
    EXPECT_TRUE(std::regex_match(DDLogFileManagerDefault::generateLogFileNameWithConvention(1, 3), datedRetry));

    EXPECT_EQ(DDLogFileManagerDefault::generateLogFileNameWithConvention(7, 1), "log-(null).txt");
}

TEST(DDLogFileManagerDirectory, DefaultsToTheStateDirectoryAndIsMadeOnFirstUse)
{
    testsupport::TemporaryDirectory state;
    const char* saved = std::getenv("XDG_STATE_HOME");
    const std::string savedValue = saved != nullptr ? saved : "";
    ::setenv("XDG_STATE_HOME", state.path().c_str(), 1);
    const std::string expected = state.path() + "/" + platform::ProcessInfo::processName();
    EXPECT_EQ(DDLogFileManagerDefault::defaultLogsDirectory(), expected);

    const auto manager = DDLogFileManagerDefault::create();
    EXPECT_FALSE(FileManager::fileExistsAtPath(expected));
    bool isDirectory = false;
    EXPECT_EQ(manager->logsDirectory(), expected);
    EXPECT_TRUE(FileManager::fileExistsAtPath(expected, &isDirectory) && isDirectory);
    if (saved != nullptr) {
        ::setenv("XDG_STATE_HOME", savedValue.c_str(), 1);
    } else {
        ::unsetenv("XDG_STATE_HOME");
    }
}

TEST(DDLogFileManagerDirectory, ADirectoryThatCannotBeMadeIsReportedAndNamedAllTheSame)
{
    testsupport::TemporaryDirectory temporary;
    const std::string blocker = makeFile(temporary.path(), "plain-file");
    const std::string wanted = blocker + "/logs";
    const auto manager = DDLogFileManagerDefault::create(wanted);

    testsupport::StandardErrorCapture console;
    EXPECT_EQ(manager->logsDirectory(), wanted);
    EXPECT_TRUE(manager->sortedLogFileInfos().empty());
    const std::string path = manager->createNewLogFile();  // answered, though nothing could be made
    console.restore();

    EXPECT_EQ(path.rfind(wanted + "/log-", 0), 0u) << path;
    EXPECT_FALSE(FileManager::fileExistsAtPath(path));
    EXPECT_THAT(console.text(), testing::HasSubstr("DDFileLogManagerDefault: Error creating logsDirectory: "));
}

TEST(DDLogFileManagerListing, ListsRegularLogFilesNewestFirstAndNothingElse)
{
    testsupport::TemporaryDirectory directory;
    makeFile(directory.path(), "log-000001.txt");
    makeFile(directory.path(), "log-2014-03-07T10:00:00Z.txt");
    makeFile(directory.path(), "notes.txt");
    makeFile(directory.path(), "log-000002.txt");
    ASSERT_EQ(::mkdir((directory.path() + "/log-DDDDDD.txt").c_str(), 0755), 0);
    ASSERT_EQ(::mkfifo((directory.path() + "/log-EEEEEE.txt").c_str(), 0644), 0);
    makeFile(directory.path(), "log-000003.txt");

    const auto manager = DDLogFileManagerDefault::create(directory.path());
    EXPECT_THAT(manager->sortedLogFileNames(), ElementsAre("log-000003.txt", "log-000002.txt", "log-000001.txt"));
    EXPECT_THAT(manager->unsortedLogFileNames(),
                UnorderedElementsAre("log-000001.txt", "log-000002.txt", "log-000003.txt"));
    EXPECT_EQ(manager->sortedLogFilePaths().front(), directory.path() + "/log-000003.txt");
}

TEST(DDLogFileManagerCreation, MakesAnEmptyFileUnderANewName)
{
    testsupport::TemporaryDirectory directory;
    const auto manager = DDLogFileManagerDefault::create(directory.path());
    const std::string first = manager->createNewLogFile();
    const std::string second = manager->createNewLogFile();
    EXPECT_NE(first, second);
    EXPECT_EQ(FileManager::attributesOfItemAtPath(first)->size, 0u);
    EXPECT_EQ(manager->unsortedLogFilePaths().size(), 2u);
}

TEST(DDLogFileManagerCreation, AConventionThatRepeatsItsNameEndsOnTheTakenFile)
{
    testsupport::TemporaryDirectory directory;
    const auto manager = DDLogFileManagerDefault::create(directory.path());
    manager->setFileNamingConvention(7);
    const std::string taken = makeFile(directory.path(), "log-(null).txt", "kept\n");
    EXPECT_EQ(manager->createNewLogFile(), taken);
    EXPECT_EQ(testsupport::readWholeFile(taken), "kept\n");
}

TEST(DDLogFileManagerCreation, DatedNamesCountAttemptsWithinOneSecond)
{
    testsupport::TemporaryDirectory directory;
    const auto manager = DDLogFileManagerDefault::create(directory.path());
    manager->setFileNamingConvention(1);
    std::vector<std::string> names;
    for (int file = 0; file < 3; ++file) {
        const std::string path = manager->createNewLogFile();
        names.push_back(path.substr(path.rfind('/') + 1));
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(std::unique(names.begin(), names.end()), names.end());
    // The dated convention is not recognised again, so none of these is
    // ever listed, continued or deleted.
    EXPECT_TRUE(manager->unsortedLogFileNames().empty());
}

class DDLogFileManagerDeletion : public testing::Test {
protected:
    // `archived` archived files, oldest first, then (optionally) one in use.
    static std::vector<std::string> makeFiles(const std::string& directory, int archived, bool oneInUse)
    {
        std::vector<std::string> paths;
        for (int index = 0; index < archived; ++index) {
            char name[32];
            std::snprintf(name, sizeof name, "log-%06X.txt", index);
            paths.push_back(makeFile(directory, name));
            DDLogFileInfo::logFileWithPath(paths.back())->setIsArchived(true);
        }
        if (oneInUse) {
            paths.push_back(makeFile(directory, "log-FFFFFF.txt"));
        }
        return paths;
    }

    testsupport::TemporaryDirectory directory;
    DDLogFileManagerDefaultRef manager = DDLogFileManagerDefault::create(directory.path());
};

// A new limit deletes the oldest archived files on the logging queue; the
// file in use does not count, and a newest file that is marked archived
// does. Deleting again changes nothing.
TEST_F(DDLogFileManagerDeletion, KeepsTheLimitOfArchivedFilesBesidesTheOneInUse)
{
    struct Row {
        int archived;
        bool oneInUse;
        std::size_t limit;
        std::size_t kept;  // the newest files that stay
    };
    const Row rows[] = {{8, true, 7, 8}, {4, false, 2, 2}, {6, true, 0, 7}};  // zero: no limit
    for (const auto& row : rows) {
        SCOPED_TRACE("limit " + std::to_string(row.limit));
        testsupport::TemporaryDirectory rowDirectory;
        const auto rowManager = DDLogFileManagerDefault::create(rowDirectory.path());
        auto paths = makeFiles(rowDirectory.path(), row.archived, row.oneInUse);
        std::reverse(paths.begin(), paths.end());
        paths.resize(row.kept);
        rowManager->setMaximumNumberOfLogFiles(row.limit);
        DDLog::loggingQueue()->sync([] {});
        EXPECT_EQ(rowManager->sortedLogFilePaths(), paths);
        rowManager->deleteOldLogFiles();
        DDLog::loggingQueue()->sync([] {});
        EXPECT_EQ(rowManager->sortedLogFilePaths(), paths);
    }
}

TEST_F(DDLogFileManagerDeletion, LeavesOtherNamesAndDirectoriesAlone)
{
    makeFiles(directory.path(), 3, true);
    const std::string dated = makeFile(directory.path(), "log-2014-03-07T10:00:00Z.txt");
    const std::string lower = makeFile(directory.path(), "log-abcdef.txt");
    const std::string folder = directory.path() + "/log-AAAAAA.txt";
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    makeFile(folder, "inside");
    manager->setMaximumNumberOfLogFiles(1);
    DDLog::loggingQueue()->sync([] {});
    EXPECT_EQ(manager->unsortedLogFilePaths().size(), 2u);
    EXPECT_TRUE(FileManager::fileExistsAtPath(dated));
    EXPECT_TRUE(FileManager::fileExistsAtPath(lower));
    EXPECT_TRUE(FileManager::fileExistsAtPath(folder + "/inside"));
}

TEST_F(DDLogFileManagerDeletion, NewFilesTrimTheDirectory)
{
    const auto paths = makeFiles(directory.path(), 3, false);
    manager->setMaximumNumberOfLogFiles(1);
    DDLog::loggingQueue()->sync([] {});
    testsupport::waitForNewerFileTime(paths.back());
    const std::string path = manager->createNewLogFile();
    // The new file is the one in use; one archived file stays with it.
    EXPECT_EQ(manager->sortedLogFilePaths().size(), 2u);
    EXPECT_EQ(manager->sortedLogFilePaths().front(), path);
}

TEST(DDLogFileInfoMark, TheArchivedMarkIsAnExtendedAttributeThatOutlivesTheInfo)
{
    testsupport::TemporaryDirectory directory;
    const std::string path = makeFile(directory.path(), "log-ABCDEF.txt", "line\n");
    const auto info = DDLogFileInfo::logFileWithPath(path);
    EXPECT_FALSE(info->isArchived());
    info->setIsArchived(true);
    EXPECT_TRUE(FileManager::extendedAttribute("velmora.log.archived", path).has_value());
    EXPECT_TRUE(DDLogFileInfo::logFileWithPath(path)->isArchived());
    EXPECT_EQ(info->filePath(), path);  // marked in place, not renamed

    info->setIsArchived(false);
    EXPECT_FALSE(DDLogFileInfo::logFileWithPath(path)->isArchived());
}

TEST(DDLogFileInfoMark, AttributeFailuresAreReportedWithTheirNames)
{
    testsupport::TemporaryDirectory directory;
    const auto gone = DDLogFileInfo::logFileWithPath(directory.path() + "/log-ABCDEF.txt");
    testsupport::StandardErrorCapture console;
    gone->addExtendedAttributeWithName("other.mark");
    gone->removeExtendedAttributeWithName("other.mark");
    console.restore();
    EXPECT_THAT(console.text(), testing::HasSubstr("DDLogFileInfo: setxattr(other.mark, log-ABCDEF.txt): error = -1\n"));
    EXPECT_THAT(console.text(),
                testing::HasSubstr("DDLogFileInfo: removexattr(other.mark, log-ABCDEF.txt): error = -1\n"));
}

TEST(DDLogFileInfoMark, TheNameMarkIsUnderstoodAndUndone)
{
    EXPECT_EQ(DDLogFileInfo::archivedFileName("log-ABCDEF.txt"), "log-ABCDEF.archived.txt");
    EXPECT_EQ(DDLogFileInfo::archivedFileName("log-ABCDEF"), "log-ABCDEF.archived");
    EXPECT_TRUE(DDLogFileInfo::isArchivedFileName("log-ABCDEF.archived.txt"));
    EXPECT_TRUE(DDLogFileInfo::isArchivedFileName("log-ABCDEF.archived"));
    EXPECT_FALSE(DDLogFileInfo::isArchivedFileName("log-ABCDEF.txt"));
    EXPECT_FALSE(DDLogFileInfo::isArchivedFileName("log-archived.txt"));

    testsupport::TemporaryDirectory directory;
    const std::string marked = makeFile(directory.path(), "log-ABCDEF.archived.txt", "old\n");
    const auto info = DDLogFileInfo::logFileWithPath(marked);
    EXPECT_TRUE(info->isArchived());
    info->setIsArchived(false);
    EXPECT_EQ(info->fileName(), "log-ABCDEF.txt");
    EXPECT_EQ(testsupport::readWholeFile(info->filePath()), "old\n");
    EXPECT_FALSE(info->isArchived());
}

TEST(DDLogFileInfoFile, DescribesAndRenamesARealFile)
{
    testsupport::TemporaryDirectory directory;
    const std::string path = makeFile(directory.path(), "log-ABCDEF.txt", "12345");
    const auto info = DDLogFileInfo::logFileWithPath(path);
    EXPECT_EQ(info->fileName(), "log-ABCDEF.txt");
    EXPECT_EQ(info->fileSize(), 5u);
    ASSERT_TRUE(info->creationDate().has_value());
    EXPECT_GE(info->age(), 0.0);
    EXPECT_LT(info->age(), 600.0);
    EXPECT_THAT(info->description(), testing::HasSubstr("log-ABCDEF.txt"));

    info->renameFile("log-BBBBBB.txt");
    EXPECT_EQ(info->filePath(), directory.path() + "/log-BBBBBB.txt");
    EXPECT_EQ(info->fileSize(), 5u);
    EXPECT_FALSE(FileManager::fileExistsAtPath(path));

    // A failed move is reported, and the info follows the new name anyway.
    const auto gone = DDLogFileInfo::logFileWithPath(directory.path() + "/log-CCCCCC.txt");
    testsupport::StandardErrorCapture console;
    gone->renameFile("log-DDDDDD.txt");
    console.restore();
    EXPECT_THAT(console.text(), testing::HasSubstr("DDLogFileInfo: Error renaming file (log-CCCCCC.txt): "));
    EXPECT_EQ(gone->fileName(), "log-DDDDDD.txt");
    EXPECT_FALSE(gone->creationDate().has_value());
    EXPECT_EQ(gone->age(), 0.0);
}

TEST(DDLogFileInfoFile, ComparesNewestFirstAndEqualsByPath)
{
    testsupport::TemporaryDirectory directory;
    const auto older = DDLogFileInfo::logFileWithPath(makeFile(directory.path(), "log-000001.txt"));
    const auto newer = DDLogFileInfo::logFileWithPath(makeFile(directory.path(), "log-000002.txt"));
    ASSERT_LT(*older->creationDate(), *newer->creationDate());
    EXPECT_EQ(newer->reverseCompareByCreationDate(*older), platform::ComparisonResult::OrderedAscending);
    EXPECT_EQ(older->reverseCompareByCreationDate(*newer), platform::ComparisonResult::OrderedDescending);
    EXPECT_EQ(older->reverseCompareByCreationDate(*older), platform::ComparisonResult::OrderedSame);
    EXPECT_TRUE(older->isEqual(*DDLogFileInfo::logFileWithPath(older->filePath())));
    EXPECT_FALSE(older->isEqual(*newer));
}

}  // namespace
