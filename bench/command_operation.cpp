// QMCommandOperation running /bin/true against the plainest way to do the
// same: posix_spawn and waitpid. The two alternate run by run, so each pair
// meets the same machine; each run is timed on its own, and the ratio of the
// medians is reported (also per block of runs, to show the spread). The
// target is a ratio of at most 1.3.
//
//   command_operation [RUNS]
#include "bench/BenchmarkSupport.h"
#include "QMFoundation/Command/QMCommandOperation.h"

#include <sys/wait.h>
#include <spawn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

double microsecondsFor(void (*run)())
{
    const auto start = Clock::now();
    run();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

void runCommandOperation()
{
    if (!QMCommandOperation::runCommandWithLaunchPath("/bin/true", {})) {
        std::fprintf(stderr, "/bin/true failed under QMCommandOperation\n");
        std::exit(1);
    }
}

void runPlainSpawn()
{
    char path[] = "/bin/true";
    char* argv[] = {path, nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, path, nullptr, nullptr, argv, environ) != 0) {
        std::perror("posix_spawn");
        std::exit(1);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "/bin/true failed under posix_spawn\n");
        std::exit(1);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const long runs = argc > 1 ? std::atol(argv[1]) : 1800;
    constexpr long kBlocks = 9;
    runCommandOperation();  // warm: the worker threads and the event monitor exist from here on
    std::vector<double> command, plain;
    for (long run = 0; run < runs; ++run) {
        // Which goes first alternates too, so neither always follows the other.
        if (run % 2 == 0) {
            command.push_back(microsecondsFor(runCommandOperation));
            plain.push_back(microsecondsFor(runPlainSpawn));
        } else {
            plain.push_back(microsecondsFor(runPlainSpawn));
            command.push_back(microsecondsFor(runCommandOperation));
        }
    }
    std::vector<double> blockRatios;
    const long blockSize = std::max(1L, runs / kBlocks);
    for (long first = 0; first + blockSize <= runs; first += blockSize) {
        const auto slice = [&](const std::vector<double>& times) {
            return std::vector<double>(times.begin() + first, times.begin() + first + blockSize);
        };
        blockRatios.push_back(bench::median(slice(command)) / bench::median(slice(plain)));
    }
    std::sort(blockRatios.begin(), blockRatios.end());
    const double commandMedian = bench::median(command);
    const double plainMedian = bench::median(plain);
    std::printf("%ld runs of /bin/true: QMCommandOperation %.0f us   posix_spawn+waitpid %.0f us (medians of single runs)"
                "   ratio %.2f (blocks of %ld: %.2f to %.2f; target <= 1.3)\n",
                runs, commandMedian, plainMedian, commandMedian / plainMedian, blockSize, blockRatios.front(),
                blockRatios.back());
    return 0;
}
