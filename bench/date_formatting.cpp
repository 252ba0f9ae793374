// One log-line timestamp, "yyyy-MM-dd HH:mm:ss:SSSS" in local time, made by a
// shared DateFormatter against localtime_r + strftime + snprintf (the
// baseline) on the same dates. Runs alternate; the ratio of the medians is
// reported (above 1: slower than the baseline). A second figure has two
// threads share the one formatter, as loggers on two queues would.
//
//   date_formatting [RUNS]
#include "Platform/DateFormatting/DateFormatter.h"

#include "bench/BenchmarkSupport.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kDates = 200'000;

std::vector<platform::Date> dates()
{
    // One message every 1.37 ms from now on: what a busy log writes.
    std::vector<platform::Date> result;
    const auto start = platform::Date::now();
    for (int index = 0; index < kDates; ++index) {
        result.push_back(start.dateByAddingTimeInterval(index * 0.00137));
    }
    return result;
}

template <typename Format>
double millisecondsFor(const std::vector<platform::Date>& all, Format format, std::size_t& checksum)
{
    const auto start = std::chrono::steady_clock::now();
    for (const auto& date : all) {
        checksum += format(date).size();
    }
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

std::string baseline(platform::Date date)
{
    const double seconds = date.timeIntervalSince1970();
    const double whole = std::floor(seconds);
    const auto time = static_cast<std::time_t>(whole);
    std::tm local{};
    localtime_r(&time, &local);
    char text[40];
    const auto length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ":%04d", static_cast<int>((seconds - whole) * 10000));
    return text;
}

}  // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    const auto all = dates();
    const auto formatter = platform::DateFormatter::create();
    formatter->setDateFormat("yyyy-MM-dd HH:mm:ss:SSSS");
    const auto ours = [&](platform::Date date) { return formatter->stringFromDate(date); };

    std::size_t checksum = 0;
    std::vector<double> oursTimes;
    std::vector<double> baselineTimes;
    std::vector<double> sharedTimes;
    for (int run = -1; run < runs; ++run) {  // the first run only warms up
        const double oursTime = millisecondsFor(all, ours, checksum);
        const double baselineTime = millisecondsFor(all, baseline, checksum);
        // Two threads, each formatting all dates with the one formatter: the
        // time per date over both, to set against one thread's.
        const auto start = std::chrono::steady_clock::now();
        std::thread other([&] {
            std::size_t otherChecksum = 0;
            millisecondsFor(all, ours, otherChecksum);
        });
        millisecondsFor(all, ours, checksum);
        other.join();
        const double sharedTime =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count() / 2;
        if (run >= 0) {
            oursTimes.push_back(oursTime);
            baselineTimes.push_back(baselineTime);
            sharedTimes.push_back(sharedTime);
        }
    }
    const double oursMedian = bench::median(oursTimes);
    const double baselineMedian = bench::median(baselineTimes);
    const double sharedMedian = bench::median(sharedTimes);
    std::printf("%d timestamps: DateFormatter %.0f ns each, strftime + snprintf %.0f ns each, ratio x%.2f; "
                "two threads sharing the formatter %.0f ns per timestamp (%d runs, checksum %zu)\n",
                kDates, oursMedian * 1e6 / kDates, baselineMedian * 1e6 / kDates, oursMedian / baselineMedian,
                sharedMedian * 1e6 / kDates, runs, checksum);
    std::printf("example: \"%s\" against \"%s\"\n", formatter->stringFromDate(all.front()).c_str(),
                baseline(all.front()).c_str());
    return 0;
}
