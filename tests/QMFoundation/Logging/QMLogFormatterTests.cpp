// The library's line format: level words, the queue label and the source
// position; the file logger's default line; and the timestamps kept per
// second, against the date formatter's own output.
#include "QMFoundation/Logging/DDLogMessage.h"
#include "QMFoundation/Logging/DDLogFileFormatterDefault.h"
#include "QMFoundation/Logging/QMLogFormatter.h"
#include "QMFoundation/Logging/internal/KeptSecondTimestamp.h"

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

// The two timestamps kept per second: the facade's line and the file
// logger's default line.
constexpr const char* kKeptPatterns[] = {"yyyy-MM-dd HH:mm:ss:SSSS", "yyyy/MM/dd HH:mm:ss:SSS"};

platform::DateFormatterRef referenceFormatter(const char* pattern)
{
    auto reference = platform::DateFormatter::create();
    reference->setDateFormat(pattern);
    return reference;
}

TEST(KeptSecondTimestamp, PrintsWhatTheDateFormatterPrintsAcrossSecondsAndZones)
{
    // Dates on both sides of whole seconds (where the kept text must be
    // renewed), a hair under whole milliseconds, before 1970 and around a
    // change of daylight saving time in common zones.
    std::vector<double> seconds;
    for (double base : {0.0, -86400.5, 1394183702.0, 1711846800.0, 1729990800.0, 1700000000.9995}) {
        for (double step : {-1.0, -0.0005, -0.0000001, 0.0, 0.0000001, 0.0004, 0.001, 0.5, 0.9999, 1.0, 3600.0}) {
            seconds.push_back(base + step);
        }
    }
    for (const char* pattern : kKeptPatterns) {
        SCOPED_TRACE(pattern);
        qmlogging::internal::KeptSecondTimestamp timestamp(pattern);
        const auto reference = referenceFormatter(pattern);
        platform::internal::DateFormatterTesting::useICUForEveryPattern(*reference);
        for (double value : seconds) {
            SCOPED_TRACE(value);
            const platform::Date date(value);
            std::string text;
            timestamp.append(date, text);
            EXPECT_EQ(text, reference->stringFromDate(date));
        }
    }
}

TEST(KeptSecondTimestamp, OneTimestampServesSeveralQueuesAtOnce)
{
    for (const char* pattern : kKeptPatterns) {
        SCOPED_TRACE(pattern);
        qmlogging::internal::KeptSecondTimestamp timestamp(pattern);
        const auto reference = referenceFormatter(pattern);
        std::vector<std::thread> threads;
        std::atomic<int> mismatches{0};
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([&, thread] {
                for (int index = 0; index < 2000; ++index) {
                    const platform::Date date(1700000000.0 + thread * 7.3 + index * 0.0137);
                    std::string text;
                    timestamp.append(date, text);
                    if (text != reference->stringFromDate(date)) {
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
}

TEST(DDLogFileFormatterDefaultLine, IsTheTimestampTwoBlanksAndTheText)
{
    const auto line = *DDLogFileFormatterDefault::create()->formatLogMessage(message(4));
    const std::regex shape(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d:\d{3}  sent 3 files)");
    EXPECT_TRUE(std::regex_match(line, shape)) << line;

    // A formatter of the caller's own is used as it stands at each line.
    const auto own = referenceFormatter("HH 'h'");
    const auto formatter = DDLogFileFormatterDefault::create(own);
    EXPECT_TRUE(std::regex_match(*formatter->formatLogMessage(message(4)), std::regex(R"(\d\d h  sent 3 files)")));
    own->setDateFormat("'day' D");
    EXPECT_TRUE(std::regex_match(*formatter->formatLogMessage(message(4)), std::regex(R"(day \d{1,3}  sent 3 files)")));
}

}  // namespace
