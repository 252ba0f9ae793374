// One million log lines of one length through DDLog into a DDFileLogger,
// from one producer thread and from two, against spdlog's asynchronous
// logger (the baseline: a queue of 1000 messages, producers blocked while it
// is full, one writer thread, a plain file sink) writing the same lines to the
// same file system. Each run is timed from the first message to the last line
// written, synced and the file closed, in a fresh directory; runs alternate
// in pairs and the ratio of the medians is printed (above 1: faster than the
// baseline). Every run checks that no line was lost. Neither side rolls files.
//
// Then the cost of one QMLogFormatter line against the same fields printed
// with localtime_r + strftime + snprintf.
//
//   logging [PAIRS]
#include "QMFoundation/Logging/DDFileLogger.h"
#include "QMFoundation/Logging/DDLog.h"
#include "QMFoundation/Logging/DDLogFileManagerDefault.h"
#include "QMFoundation/Logging/DDLogMessage.h"
#include "QMFoundation/Logging/QMLogFormatter.h"

#include "Platform/FileSystem/FileManager.h"

#include "bench/BenchmarkSupport.h"

#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kMessages = 1'000'000;

std::string makeDirectory()
{
    char path[] = "/tmp/zarvo-bench-logging-XXXXXX";
    if (::mkdtemp(path) == nullptr) {
        std::perror("mkdtemp");
        std::exit(2);
    }
    return path;
}

// Counts the lines of every file in `directory`, then removes it.
long long countLinesAndRemove(const std::string& directory)
{
    long long lines = 0;
    for (const auto& name : platform::FileManager::contentsOfDirectoryAtPath(directory).value_or(std::vector<std::string>())) {
        std::ifstream file(directory + "/" + name, std::ios::binary);
        std::string line;
        while (std::getline(file, line)) {
            ++lines;
        }
    }
    (void)platform::FileManager::removeItemAtPath(directory);
    return lines;
}

void checkAllLines(const char* who, long long lines)
{
    if (lines != kMessages) {
        std::fprintf(stderr, "%s lost lines: %lld of %d written\n", who, lines, kMessages);
        std::exit(1);
    }
}

template <typename Produce>
void runProducers(int producers, Produce produce)
{
    std::vector<std::thread> threads;
    for (int producer = 0; producer < producers; ++producer) {
        threads.emplace_back([&, producer] {
            for (int index = producer; index < kMessages; index += producers) {
                produce(index);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

double runOurs(int producers)
{
    const std::string directory = makeDirectory();
    const auto logger = DDFileLogger::create(DDLogFileManagerDefault::create(directory));
    logger->setMaximumFileSize(0);
    DDLog::addLogger(logger);
    DDLog::flushLog();  // registered before the clock starts

    const auto start = std::chrono::steady_clock::now();
    runProducers(producers, [](int index) {
        DDLog::log(true, 31, DDLogFlagInfo, 0, __FILE__, __func__, __LINE__, platform::Value(),
                   "message %07d from the benchmark, all of one length", index);
    });
    // Removal rolls the file: the last lines are written, synced and the
    // file is closed when the logger's queue has done it.
    DDLog::removeLogger(logger);
    DDLog::loggingQueue()->sync([] {});
    logger->loggerQueue()->sync([] {});
    const double elapsed = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    checkAllLines("DDFileLogger", countLinesAndRemove(directory));
    return elapsed;
}

double runBaseline(int producers)
{
    const std::string directory = makeDirectory();
    const std::string path = directory + "/spdlog.txt";
    const auto start = std::chrono::steady_clock::now();
    {
        auto pool = std::make_shared<spdlog::details::thread_pool>(1000, 1);
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
        auto logger = std::make_shared<spdlog::async_logger>("bench", std::move(sink), pool,
                                                             spdlog::async_overflow_policy::block);
        logger->set_pattern("%Y/%m/%d %H:%M:%S:%e  %v");
        runProducers(producers, [&](int index) {
            logger->info("message {:07d} from the benchmark, all of one length", index);
        });
        logger.reset();
        pool.reset();  // joins the writer once the queue is empty; the sink closes the file
    }
    // The same promise as the file logger's roll: on disk.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ::fsync(fd);
    ::close(fd);
    const double elapsed = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    checkAllLines("spdlog", countLinesAndRemove(directory));
    return elapsed;
}

std::string baselineLine(const DDLogMessage& message)
{
    const double seconds = message.timestamp().timeIntervalSince1970();
    const double whole = std::floor(seconds);
    const auto time = static_cast<std::time_t>(whole);
    std::tm local{};
    localtime_r(&time, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    const auto file = message.fileName();
    char line[512];
    std::snprintf(line, sizeof line, "%s%s:%04d(%s) [%s %s/%d] %s", "Info:    ", stamp,
                  static_cast<int>((seconds - whole) * 10000), message.queueLabel().c_str(),
                  file ? file->c_str() : "(null)", message.function(), message.lineNumber(),
                  message.logMsg().c_str());
    return line;
}

void measureFormatter()
{
    constexpr int kLines = 1'000'000;
    const auto formatter = QMLogFormatter::create();
    const DDLogMessage message("message 0001234 from the benchmark, all of one length", 31, DDLogFlagInfo, 0,
                               "/src/app/Uploader.cpp", "upload", 120, platform::Value(), 0);
    std::size_t checksum = 0;
    const auto ours = [&] {
        const auto start = std::chrono::steady_clock::now();
        for (int line = 0; line < kLines; ++line) {
            checksum += formatter->formatLogMessage(message)->size();
        }
        return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() / kLines;
    };
    const auto baseline = [&] {
        const auto start = std::chrono::steady_clock::now();
        for (int line = 0; line < kLines; ++line) {
            checksum += baselineLine(message).size();
        }
        return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() / kLines;
    };
    const auto [oursNs, baselineNs] = bench::pairedMedians(ours, baseline, 7, 1);
    std::printf("QMLogFormatter line: %.0f ns; localtime_r + strftime + snprintf of the same fields: %.0f ns; "
                "ratio x%.2f (below 1: cheaper) (checksum %zu)\n",
                oursNs, baselineNs, oursNs / baselineNs, checksum);
    std::printf("example: \"%s\"\n         \"%s\"\n", formatter->formatLogMessage(message)->c_str(),
                baselineLine(message).c_str());
}

}  // namespace

int main(int argc, char** argv)
{
    const int pairs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    for (int producers : {1, 2}) {
        const auto [ours, baseline] =
            bench::pairedMedians([&] { return runOurs(producers); }, [&] { return runBaseline(producers); }, pairs, 1);
        std::printf("%d messages, %d producer%s: DDLog + DDFileLogger %.0f ms, spdlog async (queue 1000, blocking) "
                    "%.0f ms; ratio of medians x%.2f (spdlog / ours, >= 1.0 is the target; %d pairs)\n",
                    kMessages, producers, producers == 1 ? "" : "s", ours, baseline, baseline / ours,
                    pairs);
    }
    measureFormatter();
    return 0;
}
