// QMVersionStringComparator::compareVersion on 1,000,000 pairs of version
// strings against glibc's strverscmp on the same pairs. Runs alternate; the
// ratio of the medians is reported (above 1: slower than strverscmp).
//
//   version_comparison [RUNS]
#include "QMFoundation/Comparison/QMVersionStringComparator.h"

#include "bench/BenchmarkSupport.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

std::string randomVersion(std::mt19937& random)
{
    static const char* const suffixes[] = {"", "", "", "a1", "b2", "rc1", "beta"};
    std::string version = std::to_string(random() % 12);
    const auto parts = 1 + random() % 3;
    for (unsigned part = 0; part < parts; ++part) {
        version += "." + std::to_string(random() % (part == 0 ? 20 : 120));
    }
    return version + suffixes[random() % 7];
}

template <typename Compare>
double timeAll(const std::vector<std::pair<std::string, std::string>>& pairs, Compare compare, long& checksum)
{
    const auto start = std::chrono::steady_clock::now();
    for (const auto& [version, otherVersion] : pairs) {
        checksum += compare(version, otherVersion);
    }
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    constexpr std::size_t kPairs = 1'000'000;
    std::mt19937 random(1);
    std::vector<std::pair<std::string, std::string>> pairs;
    pairs.reserve(kPairs);
    for (std::size_t index = 0; index < kPairs; ++index) {
        pairs.emplace_back(randomVersion(random), randomVersion(random));
    }

    long checksum = 0;
    std::vector<double> ours;
    std::vector<double> glibc;
    for (int run = 0; run < runs; ++run) {
        ours.push_back(timeAll(pairs, [](const std::string& a, const std::string& b) {
            return static_cast<int>(QMVersionStringComparator::compareVersion(a, b));
        }, checksum));
        glibc.push_back(timeAll(pairs, [](const std::string& a, const std::string& b) {
            const int result = strverscmp(a.c_str(), b.c_str());
            return result < 0 ? -1 : (result > 0 ? 1 : 0);
        }, checksum));
    }
    const auto oursMedian = bench::median(ours);
    const auto glibcMedian = bench::median(glibc);
    std::printf("%zu pairs: compareVersion %.1f ms (%.0f ns/pair), strverscmp %.1f ms (%.0f ns/pair), ratio x%.2f "
                "(%d runs, checksum %ld)\n",
                kPairs, oursMedian, oursMedian * 1e6 / kPairs, glibcMedian, glibcMedian * 1e6 / kPairs,
                oursMedian / glibcMedian, runs, checksum);
    return 0;
}
