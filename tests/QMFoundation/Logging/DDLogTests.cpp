#include "QMFoundation/Logging/DDLog.h"

#include "QMFoundation/Logging/DDAbstractLogger.h"
#include "QMFoundation/Logging/DDLogMessage.h"
#include "QMFoundation/Logging/internal/DDLogTesting.h"
#include "tests/QMFoundation/Logging/RecordingLogger.h"

#include "Platform/Foundation/Thread.h"
#include "Platform/Runtime/Class.h"
#include "tests/Support/AssertionCapture.h"
#include "tests/Support/Signal.h"
#include "tests/Support/ThreadState.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

using logtest::RecordingLogger;
using testing::ElementsAre;

namespace {

// Classes of the registry that take part in per-class levels, and one that
// has only half of what it takes.
int uploaderLevel = 7;
int halfLevel = 3;

}  // namespace

PLATFORM_CLASS_REGISTRATION(DDLogTestUploader) = platform::ClassDescription("DDLogTestUploader")
    .classOperation<int()>("ddLogLevel", [] { return uploaderLevel; })
    .classOperation<void(int)>("ddSetLogLevel:", [](int level) { uploaderLevel = level; });
PLATFORM_CLASS_REGISTRATION(DDLogTestSubUploader) = platform::ClassDescription("DDLogTestSubUploader")
    .superclass("DDLogTestUploader");
PLATFORM_CLASS_REGISTRATION(DDLogTestHalf) = platform::ClassDescription("DDLogTestHalf")
    .classOperation<int()>("ddLogLevel", [] { return halfLevel; });

namespace {

void logSync(int flag, const char* text, int context = 0)
{
    DDLog::log(false, DDLogLevelAll, flag, context, __FILE__, __func__, __LINE__, {}, "%s", text);
}

class DDLogTest : public logtest::LoggingTest {};

// --- Which logger takes which message -------------------------------------

TEST_F(DDLogTest, LevelsAdmitFlagsByNumberNotByBit)
{
    struct Row {
        int level;
        std::vector<int> admitted;  // of the flags 1, 2, 3, 4, 8, 16
    };
    const std::vector<Row> rows = {
        {0, {}},
        {1, {1}},
        {5, {1, 2, 3, 4}},  // Warning passes level 5 although bit 2 is not set
        {7, {1, 2, 3, 4}},
        {8, {1, 2, 3, 4, 8}},
        {31, {1, 2, 3, 4, 8, 16}},
        {-1, {}},
    };
    std::vector<std::shared_ptr<RecordingLogger>> loggers;
    for (const auto& row : rows) {
        loggers.push_back(RecordingLogger::create());
        DDLog::addLogger(loggers.back(), row.level);
    }
    for (int flag : {1, 2, 3, 4, 8, 16}) {
        logSync(flag, "m");
    }
    // Synchronous logging returned only after every admitting logger wrote.
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE("level " + std::to_string(rows[i].level));
        EXPECT_EQ(loggers[i]->flags(), rows[i].admitted);
        EXPECT_TRUE(loggers[i]->allOnOwnQueue());
    }
}

TEST_F(DDLogTest, ALoggerAddedTwiceGetsEachMessageTwiceAndRemovalTakesTheFirstOnly)
{
    auto twice = RecordingLogger::create();
    auto once = RecordingLogger::create();
    DDLog::addLogger(twice, 1);   // first node: errors only
    DDLog::addLogger(once);
    DDLog::addLogger(twice, 31);  // second node: everything
    logSync(DDLogFlagError, "both nodes");
    logSync(DDLogFlagInfo, "second node");
    EXPECT_THAT(twice->lines(), ElementsAre("both nodes", "both nodes", "second node"));

    DDLog::removeLogger(twice);
    logSync(DDLogFlagInfo, "after removal");
    // The node that remains is the second one, which takes Info.
    EXPECT_THAT(twice->lines(), ElementsAre("both nodes", "both nodes", "second node", "after removal"));
    ASSERT_TRUE(twice->removed.wait());
    EXPECT_EQ(twice->removed.count(), 1);

    DDLog::removeLogger(nullptr);  // ignored
    DDLog::addLogger(nullptr);     // ignored
    logSync(DDLogFlagError, "still there");
    EXPECT_EQ(once->lines().back(), "still there");
}

TEST_F(DDLogTest, RegistrationIsAnnouncedOnTheLoggersQueueAndFlushReachesEveryLogger)
{
    auto first = RecordingLogger::create("test.first");
    auto second = RecordingLogger::create("test.second");
    DDLog::addLogger(first);
    DDLog::addLogger(second);
    ASSERT_TRUE(first->added.wait());
    EXPECT_TRUE(first->addedOnOwnQueue);
    EXPECT_EQ(first->loggerQueue()->label(), "test.first");

    DDLog::flushLog();
    EXPECT_EQ(first->flushed.count(), 1);
    EXPECT_EQ(second->flushed.count(), 1);

    DDLog::removeAllLoggers();
    ASSERT_TRUE(first->removed.wait());
    ASSERT_TRUE(second->removed.wait());
    logSync(DDLogFlagError, "nobody");
    EXPECT_TRUE(first->lines().empty());
}

TEST_F(DDLogTest, FormatsLongMessagesWholeAndANullFormatNotAtAll)
{
    auto logger = RecordingLogger::create();
    DDLog::addLogger(logger);
    const std::string big(1 << 20, 'x');
    DDLog::log(false, 31, DDLogFlagError, 0, __FILE__, __func__, __LINE__, {}, nullptr);
    DDLog::log(false, 31, DDLogFlagError, 0, __FILE__, __func__, __LINE__, {}, "%d of %s", 3, "four");
    DDLog::log(false, 31, DDLogFlagError, 0, __FILE__, __func__, __LINE__, {}, "<%s>", big.c_str());
    EXPECT_THAT(logger->lines(), ElementsAre("3 of four", "<" + big + ">"));
}

// --- The bound on messages in flight -------------------------------------

TEST_F(DDLogTest, AProducerWaitsWhileAThousandMessagesAreInFlight)
{
    auto logger = RecordingLogger::create();
    testsupport::Signal entered;
    std::mutex gateMutex;
    std::condition_variable gateOpened;
    bool open = false;
    logger->beforeWrite = [&](const DDLogMessage&) {
        entered.raise();
        std::unique_lock lock(gateMutex);
        gateOpened.wait(lock, [&] { return open; });
    };
    DDLog::addLogger(logger);

    std::atomic<int> returned{0};
    std::atomic<pid_t> producerThread{0};
    testsupport::Signal reachedBound;
    std::thread producer([&] {
        producerThread = static_cast<pid_t>(::syscall(SYS_gettid));
        for (int i = 0; i < 1200; ++i) {
            DDLog::log(true, 31, DDLogFlagInfo, 0, __FILE__, __func__, __LINE__, {}, "%d", i);
            if (returned.fetch_add(1) + 1 == 1000) {
                reachedBound.raise();
            }
        }
    });
    ASSERT_TRUE(entered.wait());
    ASSERT_TRUE(reachedBound.wait());
    // One message is being written and 999 wait behind it: the next call
    // cannot return until the writer lets one go.
    testsupport::waitUntilAsleep(producerThread);
    EXPECT_EQ(returned.load(), 1000);
    {
        std::lock_guard lock(gateMutex);
        open = true;
    }
    gateOpened.notify_all();
    producer.join();
    DDLog::flushLog();
    EXPECT_EQ(logger->lines().size(), 1200U);
}

TEST_F(DDLogTest, MessagesWithoutLoggersStillReleaseTheirPlace)
{
    for (int i = 0; i < 2500; ++i) {
        DDLog::log(true, 31, DDLogFlagInfo, 0, __FILE__, __func__, __LINE__, {}, "nobody listens");
    }
    DDLog::flushLog();  // would never be reached if the places were not given back
    auto logger = RecordingLogger::create();
    DDLog::addLogger(logger);
    logSync(DDLogFlagInfo, "heard");
    EXPECT_THAT(logger->lines(), ElementsAre("heard"));
}

// --- Many producers, loggers coming and going -------------------------------

// Parses "producer:index".
std::pair<int, int> parse(const std::string& line)
{
    const auto colon = line.find(':');
    return {std::stoi(line.substr(0, colon)), std::stoi(line.substr(colon + 1))};
}

void runProducersWithChurn()
{
    constexpr int kProducers = 8;
    constexpr int kMessages = 1500;
    auto permanent = RecordingLogger::create("test.permanent");
    DDLog::addLogger(permanent);

    std::vector<std::shared_ptr<RecordingLogger>> transient;
    // A new logger replaces the last one every 200 messages that the
    // permanent logger has seen, while the producers keep going.
    std::thread churn([&] {
        std::shared_ptr<RecordingLogger> current;
        for (int seen = 200; seen < kProducers * kMessages; seen += 200) {
            if (!permanent->written.wait(seen)) {
                break;
            }
            if (current) {
                DDLog::removeLogger(current);
            }
            current = RecordingLogger::create("test.transient");
            transient.push_back(current);
            DDLog::addLogger(current);
        }
        if (current) {
            DDLog::removeLogger(current);
        }
    });
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([p] {
            for (int i = 0; i < kMessages; ++i) {
                DDLog::log(i % 7 == 0 ? false : true, 31, DDLogFlagInfo, 0, __FILE__, __func__, __LINE__, {}, "%d:%d",
                           p, i);
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    churn.join();
    DDLog::flushLog();

    // The permanent logger has every message once, in order per producer.
    std::map<int, std::vector<int>> seen;
    for (const auto& line : permanent->lines()) {
        const auto [producer, index] = parse(line);
        seen[producer].push_back(index);
    }
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(kProducers));
    for (const auto& [producer, indexes] : seen) {
        SCOPED_TRACE("producer " + std::to_string(producer));
        ASSERT_EQ(indexes.size(), static_cast<std::size_t>(kMessages));
        for (int i = 0; i < kMessages; ++i) {
            ASSERT_EQ(indexes[static_cast<std::size_t>(i)], i);
        }
    }
    // A logger that was registered for a while has, from each producer, an
    // unbroken run of that producer's messages: nothing twice, nothing
    // skipped, nothing out of order.
    std::size_t heardByTransients = 0;
    for (const auto& logger : transient) {
        std::map<int, std::vector<int>> runs;
        for (const auto& line : logger->lines()) {
            const auto [producer, index] = parse(line);
            runs[producer].push_back(index);
        }
        for (const auto& [producer, indexes] : runs) {
            heardByTransients += indexes.size();
            for (std::size_t i = 1; i < indexes.size(); ++i) {
                ASSERT_EQ(indexes[i], indexes[i - 1] + 1) << "producer " << producer;
            }
        }
    }
    EXPECT_GT(transient.size(), 1U);
    EXPECT_GT(heardByTransients, 0U);
}

// Two processors fan a message out to the loggers in parallel, one in sequence.
TEST_F(DDLogTest, EightProducersWithLoggersAddedAndRemovedInEitherFanOut)
{
    for (const std::size_t processors : {2, 1}) {
        SCOPED_TRACE(std::to_string(processors) + " processors");
        const auto previous = ddlog_internal::setProcessorCount(processors);
        runProducersWithChurn();
        ddlog_internal::setProcessorCount(previous);
        removeAllLoggers();
    }
}

// --- The formatter property ----------------------------------------------

class TaggingFormatter : public DDLogFormatter {
public:
    static std::shared_ptr<TaggingFormatter> create(std::string prefix)
    {
        return platform::makeObject<TaggingFormatter>(std::move(prefix));
    }
    std::optional<std::string> formatLogMessage(const DDLogMessage& message) override
    {
        if (message.logMsg() == "drop") {
            return std::nullopt;
        }
        return prefix_ + message.logMsg();
    }
    void didAddToLogger(const DDLoggerRef&) override { events.push_back("added"); }
    void willRemoveFromLogger(const DDLoggerRef&) override { events.push_back("removed"); }

    std::vector<std::string> events;  // written on the logger's queue, read after a flush

private:
    template <class> friend struct platform::ObjectAllocator;
    explicit TaggingFormatter(std::string prefix) : prefix_(std::move(prefix)) {}
    std::string prefix_;
};

TEST_F(DDLogTest, AFormatterChangeTakesEffectBetweenMessages)
{
    auto logger = RecordingLogger::create();
    DDLog::addLogger(logger);
    auto first = TaggingFormatter::create("1 ");
    auto second = TaggingFormatter::create("2 ");
    logSync(DDLogFlagInfo, "plain");
    logger->setLogFormatter(first);
    logSync(DDLogFlagInfo, "a");
    logSync(DDLogFlagInfo, "drop");
    logger->setLogFormatter(first);  // the same one again: no events
    logger->setLogFormatter(second);
    logSync(DDLogFlagInfo, "b");
    EXPECT_EQ(logger->logFormatter(), second);
    EXPECT_THAT(logger->lines(), ElementsAre("plain", "1 a", "2 b"));
    EXPECT_THAT(first->events, ElementsAre("added", "removed"));
    EXPECT_THAT(second->events, ElementsAre("added"));
}

TEST_F(DDLogTest, TheFormatterPropertyRefusesTheQueuesItWouldDeadlockOn)
{
    auto logger = RecordingLogger::create("test.formatter");
    platform::AssertionFailure onGlobal;
    DDLog::loggingQueue()->sync([&] { onGlobal = testsupport::captureAssertion([&] { logger->logFormatter(); }); });
    EXPECT_EQ(onGlobal.description, "Core architecture requirement failure");
    EXPECT_EQ(onGlobal.file, "DDLog");
    EXPECT_EQ(onGlobal.method, "logFormatter");
    EXPECT_EQ(onGlobal.object, logger->description());

    platform::AssertionFailure onOwn;
    logger->loggerQueue()->sync(
        [&] { onOwn = testsupport::captureAssertion([&] { logger->setLogFormatter(nullptr); }); });
    EXPECT_EQ(onOwn.description, "MUST access ivar directly, NOT via self.* syntax.");
    EXPECT_EQ(onOwn.method, "setLogFormatter");
    EXPECT_GT(onOwn.line, 0);
}

// --- Messages ---------------------------------------------------------------

TEST(DDLogMessageTest, FileNameIsTheLastComponentUpToTheLastDotAnywhere)
{
    const std::vector<std::pair<const char*, std::string>> rows = {
        {"/a/b/QMLogger.m", "QMLogger"},
        {"Makefile", "Makefile"},
        {"src/archive.tar.gz", "archive.tar"},
        {"/a.b/c", ""},  // the dot lies before the last slash
        {"dir/.hidden", ""},
        {"/trailing/", ""},
        {"/é/naïve.cpp", "naïve"},
        {"", ""},
    };
    for (const auto& [path, name] : rows) {
        SCOPED_TRACE(path);
        DDLogMessage message("m", 31, 1, 0, path, nullptr, 1, {}, 0);
        EXPECT_EQ(message.fileName(), name);
    }
    DDLogMessage noFile("m", 31, 1, 0, nullptr, nullptr, 1, {}, 0);
    EXPECT_EQ(noFile.fileName(), std::nullopt);
    EXPECT_EQ(noFile.methodName(), std::nullopt);
}

TEST(DDLogMessageTest, CopiesOwnTheirStringsAndOutliveTheOriginal)
{
    std::string file = "/src/Uploader.cpp";
    std::string function = "uploadAll";
    auto original = std::make_unique<DDLogMessage>("text", 7, 4, 2, file.c_str(), function.c_str(), 12,
                                                   platform::Value("tag"),
                                                   DDLogMessageCopyFile | DDLogMessageCopyFunction);
    EXPECT_NE(original->file(), file.c_str());
    DDLogMessage copy(*original);
    EXPECT_NE(copy.file(), original->file());
    original.reset();
    file.assign(file.size(), '?');
    function.assign(function.size(), '?');
    EXPECT_STREQ(copy.file(), "/src/Uploader.cpp");
    EXPECT_EQ(copy.methodName(), "uploadAll");
    EXPECT_EQ(copy.fileName(), "Uploader");
    EXPECT_EQ(copy.tag(), platform::Value("tag"));
    EXPECT_EQ(copy.logLevel(), 7);
    EXPECT_EQ(copy.logContext(), 2);
    EXPECT_EQ(copy.lineNumber(), 12);

    static const char kStatic[] = "/static/File.cpp";
    DDLogMessage borrowed("text", 31, 1, 0, kStatic, __func__, 1, {}, 0);
    DDLogMessage borrowedCopy(borrowed);
    EXPECT_EQ(borrowedCopy.file(), kStatic);
    DDLogMessage assigned("other", 31, 1, 0, nullptr, nullptr, 1, {}, 0);
    assigned = copy;
    EXPECT_STREQ(assigned.file(), "/src/Uploader.cpp");
    EXPECT_NE(assigned.file(), copy.file());
}

TEST(DDLogMessageTest, RecordsTheCreatingThreadAndQueue)
{
    platform::Thread::setName("log-producer");
    const auto queue = platform::DispatchQueue::create("test.producer-queue");
    std::optional<DDLogMessage> made;
    queue->sync([&] { made.emplace("m", 31, 1, 0, nullptr, nullptr, 1, platform::Value(), 0); });
    EXPECT_EQ(made->queueLabel(), "test.producer-queue");
    EXPECT_EQ(made->threadName(), "log-producer");
    EXPECT_EQ(made->machThreadID(), static_cast<std::uint32_t>(::syscall(SYS_gettid)));
    char hex[16];
    std::snprintf(hex, sizeof hex, "%x", made->machThreadID());
    EXPECT_EQ(made->threadID(), hex);
    const double now = platform::Date::now().timeIntervalSince1970();
    EXPECT_LE(made->timestamp().timeIntervalSince1970(), now);
    EXPECT_GT(made->timestamp().timeIntervalSince1970(), now - 60);
}

// --- Per-class levels ---------------------------------------------------------

TEST(DDLogClassLevelsTest, OnlyClassesWithBothOperationsTakePart)
{
    const auto names = DDLog::registeredClassNames();
    EXPECT_THAT(names, testing::Contains("DDLogTestUploader"));
    EXPECT_THAT(names, testing::Contains("DDLogTestSubUploader"));  // inherits both
    EXPECT_THAT(names, testing::Not(testing::Contains("DDLogTestHalf")));

    EXPECT_EQ(DDLog::logLevelForClassWithName("DDLogTestHalf"), -1);
    EXPECT_EQ(DDLog::logLevelForClassWithName("NoSuchClass"), -1);
    EXPECT_EQ(DDLog::logLevelForClass(nullptr), -1);

    DDLog::setLogLevel(16, "DDLogTestUploader");
    EXPECT_EQ(DDLog::logLevelForClassWithName("DDLogTestUploader"), 16);
    DDLog::setLogLevel(1, platform::classFromString("DDLogTestSubUploader"));
    EXPECT_EQ(DDLog::logLevelForClass(platform::classFromString("DDLogTestUploader")), 1);

    DDLog::setLogLevel(31, "DDLogTestHalf");  // ignored
    EXPECT_EQ(halfLevel, 3);
}

// --- The end of the process --------------------------------------------------

class StderrLogger : public DDAbstractLogger {
public:
    static DDLoggerRef create()
    {
        return platform::makeObject<StderrLogger>();
    }
    void logMessage(const DDLogMessage& message) override
    {
        // Slow enough that an exit without a flush would beat it.
        for (int i = 0; i < 20; ++i) {
            std::this_thread::yield();
        }
        std::fprintf(stderr, "written: %s\n", message.logMsg().c_str());
    }
};

TEST(DDLogExitTest, QueuedMessagesAreWrittenBeforeANormalExit)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            DDLog::addLogger(StderrLogger::create());
            for (int i = 0; i < 200; ++i) {
                DDLog::log(true, 31, DDLogFlagInfo, 0, __FILE__, __func__, __LINE__, {}, "message %d", i);
            }
            std::exit(0);
        },
        testing::ExitedWithCode(0), "written: message 199");
}

}  // namespace
