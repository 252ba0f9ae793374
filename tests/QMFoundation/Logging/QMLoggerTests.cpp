// The facade: the process-wide level, its own three messages, console set-up
// once per process, and file loggers switched on and off.
#include "QMFoundation/Logging/DDLog.h"
#include "QMFoundation/Logging/DDLogMessage.h"
#include "QMFoundation/Logging/QMLogger.h"

#include "Platform/System/ProcessInfo.h"

#include "tests/QMFoundation/Logging/FileLoggingSupport.h"
#include "tests/QMFoundation/Logging/RecordingLogger.h"
#include "tests/Support/RunProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <regex>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

// Keeps the messages a recording logger is given, whole.
struct MessageLog {
    void keep(const DDLogMessage& message)
    {
        std::lock_guard lock(mutex);
        messages.push_back(message);
    }
    std::vector<DDLogMessage> all() const
    {
        std::lock_guard lock(mutex);
        return messages;
    }
    mutable std::mutex mutex;
    std::vector<DDLogMessage> messages;
};

class QMLoggerTest : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        // Every default file logger of this program writes here.
        static testsupport::TemporaryDirectory state;
        ::setenv("XDG_STATE_HOME", state.path().c_str(), 1);
    }
    void SetUp() override
    {
        recorder->beforeWrite = [this](const DDLogMessage& message) { kept.keep(message); };
        DDLog::addLogger(recorder);
    }
    void TearDown() override
    {
        DDLog::removeLogger(recorder);
        QMLogger::setLogLevel(0);
    }
    static std::string logsDirectory()
    {
        return std::string(std::getenv("XDG_STATE_HOME")) + "/" + platform::ProcessInfo::processName();
    }
    // The text of the file a file logger writes, once everything queued
    // before has reached it.
    static std::string fileText(const DDFileLoggerRef& logger)
    {
        DDLog::flushLog();
        return testsupport::readWholeFile(testsupport::currentPath(logger));
    }

    MessageLog kept;
    std::shared_ptr<logtest::RecordingLogger> recorder = logtest::RecordingLogger::create();
};

TEST_F(QMLoggerTest, OwnMessagesNeedTheInfoBit)
{
    EXPECT_EQ(QMLogger::logLevel(), 0);  // where the process starts, and where each case leaves it
    for (int level : {0, 3, 8, 27}) {
        SCOPED_TRACE(level);
        QMLogger::setLogLevel(level);
        QMLogger::create()->deactivateFileLogger();
    }
    for (int level : {4, 7, 31}) {
        SCOPED_TRACE(level);
        QMLogger::setLogLevel(level);
        QMLogger::create()->deactivateFileLogger();
    }
    DDLog::flushLog();
    const auto messages = kept.all();
    ASSERT_EQ(messages.size(), 3u);
    for (std::size_t index = 0; index < messages.size(); ++index) {
        const auto& message = messages[index];
        EXPECT_EQ(message.logMsg(), "File logging disabled.");
        EXPECT_EQ(message.logFlag(), DDLogFlagInfo);
        EXPECT_EQ(message.logLevel(), (std::vector<int>{4, 7, 31}[index]));
        EXPECT_EQ(message.fileName(), "QMLogger");
        EXPECT_EQ(message.methodName(), "deactivateFileLogger");
        EXPECT_EQ(message.lineNumber(), 63);
    }
}

TEST_F(QMLoggerTest, FileLoggingGoesToTheStateDirectoryAndMissesItsOwnFarewell)
{
    QMLogger::setLogLevel(4);
    const auto facade = QMLogger::create();
    facade->activateFileLogger();
    const auto logger = facade->fileLogger();
    ASSERT_NE(logger, nullptr);
    EXPECT_EQ(logger->rollingFrequency(), 86400.0);
    EXPECT_EQ(logger->logFileManager()->maximumNumberOfLogFiles(), 7u);
    EXPECT_EQ(logger->logFileManager()->logsDirectory(), logsDirectory());

    const std::string path = testsupport::currentPath(logger);
    const std::string before = fileText(logger);
    EXPECT_TRUE(std::regex_match(before, std::regex(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d:\d{3}  File logging enabled.\n)")))
        << before;

    facade->deactivateFileLogger();
    EXPECT_EQ(facade->fileLogger(), nullptr);
    DDLog::flushLog();
    EXPECT_EQ(testsupport::readWholeFile(path), before);  // the farewell came after the removal
    EXPECT_THAT(recorder->lines(), ElementsAre("File logging enabled.", "File logging disabled."));
    const auto messages = kept.all();
    EXPECT_EQ(messages[0].methodName(), "activateFileLogger");
    EXPECT_EQ(messages[0].lineNumber(), 57);
}

TEST_F(QMLoggerTest, ASecondActivationLeavesTheFirstLoggerWriting)
{
    const auto facade = QMLogger::create();
    facade->activateFileLogger();
    const auto first = facade->fileLogger();
    // Let the first logger take the newest file before the second looks.
    DDLog::flushLog();
    const std::string path = testsupport::currentPath(first);
    facade->activateFileLogger();
    const auto second = facade->fileLogger();
    ASSERT_NE(first, second);
    EXPECT_EQ(testsupport::currentPath(second), path);  // both continue the newest file

    DDLog::log(true, 31, DDLogFlagError, 0, __FILE__, __func__, __LINE__, platform::Value(), "%s", "twice");
    facade->deactivateFileLogger();
    DDLog::log(true, 31, DDLogFlagError, 0, __FILE__, __func__, __LINE__, platform::Value(), "%s", "once");
    // The removed logger writes what it still holds on its own queue, which a
    // flush of the loggers left does not wait for: wait for that queue too.
    DDLog::flushLog();
    second->loggerQueue()->sync([] {});
    const std::string text = fileText(first);
    EXPECT_EQ(testsupport::countOccurrences(text, "  twice\n"), 2u);
    EXPECT_EQ(testsupport::countOccurrences(text, "  once\n"), 1u);
    DDLog::removeLogger(first);
}

TEST_F(QMLoggerTest, ConsoleLoggingIsSetUpOncePerProcess)
{
    QMLogger::setLogLevel(4);
    testsupport::StandardErrorCapture console;
    QMLogger::create()->setupLogging();
    QMLogger::sharedLogger()->setupLogging();
    DDLog::log(true, 31, DDLogFlagWarning, 0, "/src/app/Sync.cpp", "pull", 9, platform::Value(), "%s", "late");
    DDLog::flushLog();
    console.restore();

    const std::string text = console.text();
    EXPECT_EQ(testsupport::countOccurrences(text, "Console logging enabled."), 1u) << text;
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(Info:    \d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{4})"
                                                   R"(\([^)]*\) \[QMLogger setupLogging/48\] Console logging enabled\.)")))
        << text;
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(Warning: [-0-9 :]+\(zarvo.main-thread\) \[Sync pull/9\] late)"))) << text;
    EXPECT_EQ(testsupport::countOccurrences(text, "late"), 1u);
}

}  // namespace
