// The rolling file logger on real files: lines, restarts, rolling by size,
// age, deletion and renaming, files that are not ours, and many producers.
#include "QMFoundation/Logging/DDFileLogger.h"
#include "QMFoundation/Logging/DDLog.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/RunLoop.h"

#include "tests/QMFoundation/Logging/FileLoggingSupport.h"
#include "tests/Support/AssertionCapture.h"
#include "tests/Support/RunProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

using platform::FileManager;
using testing::ElementsAre;
using testing::HasSubstr;
using testsupport::currentPath;
using testsupport::readWholeFile;
using testsupport::writeDirectly;

namespace {

class DDFileLoggerTest : public testing::Test {
protected:
    DDFileLoggerRef makeLogger()
    {
        return DDFileLogger::create(manager);
    }
    // Lets settings given through the queues take effect.
    static void settle(const DDFileLoggerRef& logger)
    {
        DDLog::loggingQueue()->sync([] {});
        logger->loggerQueue()->sync([] {});
    }
    static void writeRawLines(const DDFileLoggerRef& logger)
    {
        logger->setLogFormatter(nullptr);
        settle(logger);
    }

    testsupport::TemporaryDirectory directory;
    std::shared_ptr<testsupport::RollRecordingManager> manager =
        testsupport::RollRecordingManager::make(directory.path());
};

// Lines

TEST_F(DDFileLoggerTest, WritesTimestampedLinesWithOneLineEndEach)
{
    const auto logger = makeLogger();
    writeDirectly(logger, "first");
    writeDirectly(logger, "second\n");
    const std::string text = readWholeFile(currentPath(logger));
    const std::regex lines(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d:\d{3}  first\n)"
                           R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d:\d{3}  second\n)");
    EXPECT_TRUE(std::regex_match(text, lines)) << text;
}

TEST_F(DDFileLoggerTest, WritesBadAndHugeTextAsItCame)
{
    const auto logger = makeLogger();
    writeRawLines(logger);
    const std::string invalid = "bad \xff\xfe bytes \xc3";
    const std::string huge(1024 * 1024, 'x');
    writeDirectly(logger, invalid);
    const std::string first = currentPath(logger);
    writeDirectly(logger, huge);
    // The megabyte took the file over the default size limit: it rolled
    // after the line, and the next line starts a new file.
    writeDirectly(logger, "after");
    EXPECT_EQ(readWholeFile(first), invalid + "\n" + huge + "\n");
    EXPECT_EQ(readWholeFile(currentPath(logger)), "after\n");
    EXPECT_THAT(manager->rolledPaths(), ElementsAre(first));
}

TEST_F(DDFileLoggerTest, AFormatterThatDropsAMessageWritesNothing)
{
    class Dropping : public DDLogFormatter {
    public:
        std::optional<std::string> formatLogMessage(const DDLogMessage& message) override
        {
            if (message.logMsg() == "drop") {
                return std::nullopt;
            }
            return message.logMsg();
        }
    };
    const auto logger = makeLogger();
    logger->setLogFormatter(platform::makeObject<Dropping>());
    settle(logger);
    writeDirectly(logger, "keep");
    writeDirectly(logger, "drop");
    EXPECT_EQ(readWholeFile(currentPath(logger)), "keep\n");
}

// Restarts and the files of others

TEST_F(DDFileLoggerTest, ARestartContinuesTheNewestUnarchivedFileAndLeavesOtherNamesAlone)
{
    auto logger = makeLogger();
    writeRawLines(logger);
    writeDirectly(logger, "one");
    const std::string path = currentPath(logger);
    logger.reset();  // the process ends without removing its logger

    testsupport::waitForNewerFileTime(path);
    const std::string dated = directory.path() + "/log-2014-03-07T10:00:00Z.txt";
    const std::string lower = directory.path() + "/log-abcdef.txt";
    testsupport::writeWholeFile(dated, "dated\n");
    testsupport::writeWholeFile(lower, "lower\n");

    logger = makeLogger();
    writeRawLines(logger);
    writeDirectly(logger, "two");
    EXPECT_EQ(currentPath(logger), path);
    EXPECT_EQ(readWholeFile(path), "one\ntwo\n");
    EXPECT_EQ(readWholeFile(dated), "dated\n");
    EXPECT_EQ(readWholeFile(lower), "lower\n");
    EXPECT_FALSE(DDLogFileInfo::logFileWithPath(dated)->isArchived());
}

TEST_F(DDFileLoggerTest, AFullOrOldFileIsArchivedBeforeTheFirstWrite)
{
    struct Row {
        const char* name;
        std::string content;
        std::function<void(const DDFileLoggerRef&)> limit;
        bool newFileStays;  // a millisecond's age limit rolls the new file at once too
    };
    const Row rows[] = {
        {"full", std::string(200, 'o') + "\n", [](const DDFileLoggerRef& logger) { logger->setMaximumFileSize(100); },
         true},
        {"old", "old\n", [](const DDFileLoggerRef& logger) { logger->setRollingFrequency(0.001); }, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        testsupport::TemporaryDirectory rowDirectory;
        const std::string existing = rowDirectory.path() + "/log-AAAAAA.txt";
        testsupport::writeWholeFile(existing, row.content);
        // Past the millisecond's age limit for sure: one tick of the file
        // clock can be a millisecond itself.
        testsupport::waitForNewerFileTime(existing, 0.002);
        const auto logger = DDFileLogger::create(testsupport::RollRecordingManager::make(rowDirectory.path()));
        writeRawLines(logger);
        row.limit(logger);
        settle(logger);
        writeDirectly(logger, "new");
        EXPECT_TRUE(DDLogFileInfo::logFileWithPath(existing)->isArchived());
        EXPECT_NE(currentPath(logger), existing);
        if (row.newFileStays) {
            EXPECT_EQ(readWholeFile(currentPath(logger)), "new\n");
        }
        EXPECT_EQ(readWholeFile(existing), row.content);
    }
}

// Rolling

TEST_F(DDFileLoggerTest, RollsAfterTheLineThatReachesTheSizeLimit)
{
    const auto logger = makeLogger();
    writeRawLines(logger);
    logger->setMaximumFileSize(100);
    settle(logger);
    const std::string line(39, 'a');  // 41 bytes with the digit and the line end
    writeDirectly(logger, line + "1");
    const std::string first = currentPath(logger);
    writeDirectly(logger, line + "2");
    writeDirectly(logger, line + "3");  // 123 bytes: over the limit by one line
    writeDirectly(logger, line + "4");
    EXPECT_EQ(readWholeFile(first), line + "1\n" + line + "2\n" + line + "3\n");
    EXPECT_EQ(readWholeFile(currentPath(logger)), line + "4\n");
    EXPECT_THAT(manager->rolledPaths(), ElementsAre(first));
    EXPECT_TRUE(DDLogFileInfo::logFileWithPath(first)->isArchived());
}

TEST_F(DDFileLoggerTest, LoweringTheSizeLimitRollsAFileAlreadyOverIt)
{
    const auto logger = makeLogger();
    writeRawLines(logger);
    writeDirectly(logger, std::string(500, 'b'));
    logger->setMaximumFileSize(100);
    ASSERT_TRUE(manager->rolled.wait());
    EXPECT_EQ(logger->maximumFileSize(), 100u);
}

TEST_F(DDFileLoggerTest, RollsWhenTheFileGrowsOld)
{
    const auto logger = makeLogger();
    writeRawLines(logger);
    logger->setRollingFrequency(0.3);
    settle(logger);
    writeDirectly(logger, "young");
    const std::string first = currentPath(logger);
    ASSERT_TRUE(manager->rolled.wait());  // the timer, at the file's birth plus 0.3 s
    EXPECT_THAT(manager->rolledPaths(), ElementsAre(first));
    EXPECT_GE(DDLogFileInfo::logFileWithPath(first)->age(), 0.3);
    testsupport::waitForNewerFileTime(first);
    writeDirectly(logger, "next");
    EXPECT_NE(currentPath(logger), first);
}

TEST_F(DDFileLoggerTest, DeletingRenamingOrReplacingTheFileRollsItEvenWithoutLimits)
{
    struct Row {
        const char* name;
        std::function<void(const std::string& path, const std::string& moved)> change;
        bool keepsLines;  // the lines written before are at `moved`
    };
    const Row rows[] = {
        {"deleted", [](const std::string& path, const std::string&) { ASSERT_EQ(::unlink(path.c_str()), 0); }, false},
        {"renamed",
         [](const std::string& path, const std::string& moved) { ASSERT_EQ(::rename(path.c_str(), moved.c_str()), 0); },
         true},
        {"replaced by a directory",
         [](const std::string& path, const std::string&) {
             ASSERT_EQ(::unlink(path.c_str()), 0);
             ASSERT_EQ(::mkdir(path.c_str(), 0755), 0);
             testsupport::writeWholeFile(path + "/inside", "theirs\n");
         },
         false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        testsupport::TemporaryDirectory rowDirectory;
        const auto rowManager = testsupport::RollRecordingManager::make(rowDirectory.path());
        const auto logger = DDFileLogger::create(rowManager);
        writeRawLines(logger);
        logger->setMaximumFileSize(0);
        logger->setRollingFrequency(0);
        settle(logger);
        writeDirectly(logger, "before");
        const std::string first = currentPath(logger);
        const std::string moved = rowDirectory.path() + "/moved.txt";
        row.change(first, moved);
        ASSERT_TRUE(rowManager->rolled.wait());
        writeDirectly(logger, "after");
        EXPECT_NE(currentPath(logger), first);
        EXPECT_EQ(readWholeFile(currentPath(logger)), "after\n");
        EXPECT_EQ(FileManager::fileExistsAtPath(moved), row.keepsLines);
        if (row.keepsLines) {
            EXPECT_EQ(readWholeFile(moved), "before\n");
        }
        // Whatever now stands at the old path is not ours to touch.
        EXPECT_TRUE(!FileManager::fileExistsAtPath(first) || readWholeFile(first + "/inside") == "theirs\n");
    }
}

TEST_F(DDFileLoggerTest, ARequestedRollArchivesCallsBackOnTheMainQueueAndIsNotContinued)
{
    const auto logger = makeLogger();
    writeRawLines(logger);
    writeDirectly(logger, "one");
    const std::string first = currentPath(logger);
    std::atomic<bool> called{false};
    logger->rollLogFileWithCompletionBlock([&] { called = true; });
    const auto giveUp = platform::Date::now().dateByAddingTimeInterval(20);
    while (!called && platform::Date::now() < giveUp) {
        platform::RunLoop::currentRunLoop()->runModeBeforeDate(platform::NSDefaultRunLoopMode,
                                                                platform::Date::now().dateByAddingTimeInterval(1));
    }
    EXPECT_TRUE(called);
    EXPECT_THAT(manager->rolledPaths(), ElementsAre(first));
    EXPECT_TRUE(DDLogFileInfo::logFileWithPath(first)->isArchived());

    testsupport::waitForNewerFileTime(first);
    writeDirectly(logger, "two");
    EXPECT_NE(currentPath(logger), first);
    EXPECT_EQ(readWholeFile(first), "one\n");
}

TEST_F(DDFileLoggerTest, RemovalFromTheCoreArchivesTheFile)
{
    const auto logger = makeLogger();
    DDLog::addLogger(logger);
    DDLog::log(false, 31, DDLogFlagWarning, 0, __FILE__, __func__, __LINE__, platform::Value(), "%s", "registered");
    const std::string first = currentPath(logger);
    DDLog::removeLogger(logger);
    ASSERT_TRUE(manager->rolled.wait());
    EXPECT_THAT(readWholeFile(first), HasSubstr("  registered\n"));
    EXPECT_TRUE(DDLogFileInfo::logFileWithPath(first)->isArchived());
}

// Properties and their queues

TEST_F(DDFileLoggerTest, PropertiesGoThroughTheQueuesAndRefuseThem)
{
    const auto logger = makeLogger();
    EXPECT_EQ(logger->maximumFileSize(), 1024u * 1024u);
    EXPECT_EQ(logger->rollingFrequency(), 86400.0);
    logger->setMaximumFileSize(5000);
    logger->setRollingFrequency(60);
    EXPECT_EQ(logger->maximumFileSize(), 5000u);
    EXPECT_EQ(logger->rollingFrequency(), 60.0);
    EXPECT_EQ(logger->loggerQueue()->label(), "cocoa.velmora.fileLogger");

    DDLog::loggingQueue()->sync([&] {
        const auto failure = testsupport::captureAssertion([&] { (void)logger->maximumFileSize(); });
        EXPECT_EQ(failure.description, "Core architecture requirement failure");
        EXPECT_EQ(testsupport::captureAssertion([&] { logger->rollLogFile(); }).description,
                  "Core architecture requirement failure");
    });
    logger->loggerQueue()->sync([&] {
        const auto failure = testsupport::captureAssertion([&] { logger->setRollingFrequency(1); });
        EXPECT_EQ(failure.description, "MUST access ivar directly, NOT via self.* syntax.");
    });
    EXPECT_EQ(logger->rollingFrequency(), 60.0);
}

// Many producers

TEST_F(DDFileLoggerTest, EveryLineArrivesOnceAndInOrderAcrossRolls)
{
    constexpr int kProducers = 4;
    constexpr int kMessages = 1500;
    const auto logger = makeLogger();
    writeRawLines(logger);
    logger->setMaximumFileSize(4096);
    manager->setMaximumNumberOfLogFiles(0);
    DDLog::addLogger(logger);

    std::vector<std::thread> producers;
    for (int producer = 0; producer < kProducers; ++producer) {
        producers.emplace_back([producer] {
            for (int sequence = 0; sequence < kMessages; ++sequence) {
                DDLog::log(true, 31, DDLogFlagInfo, 0, __FILE__, __func__, __LINE__, platform::Value(), "p%d %d",
                           producer, sequence);
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    DDLog::flushLog();
    const int rollsBefore = static_cast<int>(manager->rolledPaths().size());
    DDLog::removeLogger(logger);
    ASSERT_TRUE(manager->rolled.wait(rollsBefore + 1));

    std::map<int, int> next;
    int lines = 0;
    for (const auto& path : manager->rolledPaths()) {
        std::istringstream file(readWholeFile(path));
        std::string line;
        while (std::getline(file, line)) {
            int producer = -1;
            int sequence = -1;
            ASSERT_EQ(std::sscanf(line.c_str(), "p%d %d", &producer, &sequence), 2) << line;
            ASSERT_EQ(sequence, next[producer]) << "producer " << producer << " in " << path;
            ++next[producer];
            ++lines;
        }
    }
    EXPECT_EQ(lines, kProducers * kMessages);
    EXPECT_GT(manager->rolledPaths().size(), 10u);
}

}  // namespace
