// QMArrayComparator on arrays of strings with 1% of the elements removed, 1%
// inserted and 1% moved, with its scans shared out to every processor
// against the same algorithm kept on one thread. Runs alternate, so both see
// the same machine; the ratio of the medians is reported.
//
//   array_comparator [RUNS]
#include "QMFoundation/Comparison/NSMutableArray+QMMoving.h"
#include "QMFoundation/Comparison/QMArrayComparator.h"
#include "QMFoundation/Comparison/QMConcurrentEnumeration.h"

#include "bench/BenchmarkSupport.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

struct Arrays {
    platform::Array left;
    platform::Array right;
};

Arrays makeArrays(std::size_t count)
{
    std::mt19937 random(static_cast<unsigned>(count));
    Arrays arrays;
    for (std::size_t index = 0; index < count; ++index) {
        arrays.left.emplace_back("com.example.item." + std::to_string(index));
    }
    arrays.right = arrays.left;
    const auto changes = std::max<std::size_t>(1, count / 100);
    for (std::size_t change = 0; change < changes; ++change) {
        arrays.right.erase(arrays.right.begin() + static_cast<std::ptrdiff_t>(random() % arrays.right.size()));
    }
    for (std::size_t change = 0; change < changes; ++change) {
        arrays.right.insert(arrays.right.begin() + static_cast<std::ptrdiff_t>(random() % arrays.right.size()),
                            "com.example.new." + std::to_string(change));
    }
    for (std::size_t change = 0; change < changes; ++change) {
        moveObjectAtIndex(arrays.right, random() % arrays.right.size(), random() % arrays.right.size());
    }
    return arrays;
}

struct Run {
    double milliseconds;
    std::size_t moves;
};

Run compareOnce(const Arrays& arrays, std::size_t concurrency)
{
    const auto comparator = QMArrayComparator::arrayComparatorWithLeftArray(arrays.left, arrays.right);
    comparator->setConcurrency(concurrency);
    std::size_t moves = 0;
    const auto start = std::chrono::steady_clock::now();
    comparator->compareWithCompletionHandler(
        [&](platform::IndexSet, platform::IndexSet, std::vector<QMArrayMove> moveList) { moves = moveList.size(); });
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return {std::chrono::duration<double, std::milli>(elapsed).count(), moves};
}

}  // namespace

int main(int argc, char** argv)
{
    const int requestedRuns = argc > 1 ? std::atoi(argv[1]) : 0;
    const auto processors = processorCount();
    std::printf("processors: %zu\n", processors);
    for (const std::size_t count : {1000u, 10000u}) {
        const auto arrays = makeArrays(count);
        const int runs = requestedRuns > 0 ? requestedRuns : (count <= 1000 ? 15 : 3);
        std::vector<double> parallel;
        std::vector<double> serial;
        std::size_t moves = 0;
        for (int run = 0; run < runs; ++run) {
            const auto shared = compareOnce(arrays, processors);
            const auto alone = compareOnce(arrays, 1);
            if (shared.moves != alone.moves) {
                std::fprintf(stderr, "results differ between the two runs\n");
                return 1;
            }
            moves = shared.moves;
            parallel.push_back(shared.milliseconds);
            serial.push_back(alone.milliseconds);
        }
        const auto parallelMedian = bench::median(parallel);
        const auto serialMedian = bench::median(serial);
        std::printf("%6zu strings, %zu moves: one thread %.1f ms, %zu threads %.1f ms, speed-up x%.2f (%d runs)\n", count,
                    moves, serialMedian, processors, parallelMedian, serialMedian / parallelMedian, runs);
    }
    return 0;
}
