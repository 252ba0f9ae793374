// The library's line format: level words, the timestamp against the date
// formatter's own output, the queue label and the source position.
#include "QMFoundation/Logging/DDLogMessage.h"
#include "QMFoundation/Logging/QMLogFormatter.h"

#include "Platform/DateFormatting/DateFormatter.h"
#include "Platform/Dispatch/DispatchQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <regex>
#include <thread>
#include <vector>

namespace {

DDLogMessage message(int flag, const char* file = "/src/app/Uploader.cpp", const char* function = "upload")
{
    return DDLogMessage("sent 3 files", 31, flag, 0, file, function, 120, platform::Value(), 0);
}

TEST(QMLogFormatterLine, ChoosesTheLevelWordByEqualityOfTheFlag)
{
    struct Row {
        int flag;
        const char* word;
    };
    const Row rows[] = {
        {1, "Error:   "}, {2, "Warning: "}, {4, "Info:    "}, {8, "         "},
        {16, "         "}, {3, "         "}, {0, "         "}, {31, "         "},
    };
    const auto formatter = QMLogFormatter::create();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.flag);
        const std::string line = *formatter->formatLogMessage(message(row.flag));
        EXPECT_EQ(line.substr(0, 9), row.word);
        EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(line[9]))) << line;
    }
}

TEST(QMLogFormatterLine, PutsQueueFileMethodAndLineAroundTheMessage)
{
    const auto formatter = QMLogFormatter::create();
    const std::regex shape(R"(Info:    \d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3}0\(\) \[Uploader upload/120\] sent 3 files)");
    std::string offQueue;
    std::thread([&] { offQueue = *formatter->formatLogMessage(message(4)); }).join();
    EXPECT_TRUE(std::regex_match(offQueue, shape)) << offQueue;

    std::string onQueue;
    platform::DispatchQueue::create("cocoa.velmora.uploads")->sync([&] {
        onQueue = *formatter->formatLogMessage(message(4));
    });
    EXPECT_NE(onQueue.find("0(cocoa.velmora.uploads) [Uploader upload/120] "), std::string::npos) << onQueue;

    const std::string missing = *formatter->formatLogMessage(message(8, nullptr, nullptr));
    EXPECT_TRUE(missing.ends_with("(zarvo.main-thread) [(null) (null)/120] sent 3 files")) << missing;
    EXPECT_EQ(missing.find('\n'), std::string::npos);
}

TEST(QMLogFormatterTimestamp, PrintsWhatTheDateFormatterPrintsAcrossSecondsAndZones)
{
    const auto formatter = QMLogFormatter::create();
    const auto reference = platform::DateFormatter::create();
    reference->setDateFormat("yyyy-MM-dd HH:mm:ss:SSSS");
    platform::internal::DateFormatterTesting::useICUForEveryPattern(*reference);

    // Dates on both sides of whole seconds (where the kept text must be
    // renewed), a hair under whole milliseconds, before 1970 and around a
    // change of daylight saving time in common zones.
    std::vector<double> seconds;
    for (double base : {0.0, -86400.5, 1394183702.0, 1711846800.0, 1729990800.0, 1700000000.9995}) {
        for (double step : {-1.0, -0.0005, -0.0000001, 0.0, 0.0000001, 0.0004, 0.001, 0.5, 0.9999, 1.0, 3600.0}) {
            seconds.push_back(base + step);
        }
    }
    for (double value : seconds) {
        SCOPED_TRACE(value);
        const platform::Date date(value);
        EXPECT_EQ(formatter->timestampText(date), reference->stringFromDate(date));
    }
}

TEST(QMLogFormatterTimestamp, OneFormatterServesSeveralQueuesAtOnce)
{
    const auto formatter = QMLogFormatter::create();
    const auto reference = platform::DateFormatter::create();
    reference->setDateFormat("yyyy-MM-dd HH:mm:ss:SSSS");
    std::vector<std::thread> threads;
    std::atomic<int> mismatches{0};
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (int index = 0; index < 2000; ++index) {
                const platform::Date date(1700000000.0 + thread * 7.3 + index * 0.0137);
                if (formatter->timestampText(date) != reference->stringFromDate(date)) {
                    ++mismatches;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
