// QMCommandOperation running /bin/true against the plainest way to do the
// same: posix_spawn and waitpid. Both run the same number of times per round;
// rounds alternate, so each round compares the two under the same machine
// load, and the medians of the rounds and of the per-round ratios are
// reported. The target is a ratio of at most 1.3.
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

double secondsFor(long runs, void (*run)())
{
    const auto start = Clock::now();
    for (long index = 0; index < runs; ++index) {
        run();
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
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
    const long runs = argc > 1 ? std::atol(argv[1]) : 200;
    constexpr int kRounds = 9;
    runCommandOperation();  // warm: the worker threads and the event monitor exist from here on
    std::vector<double> command, plain;
    for (int round = 0; round < kRounds; ++round) {
        command.push_back(secondsFor(runs, runCommandOperation));
        plain.push_back(secondsFor(runs, runPlainSpawn));
    }
    std::vector<double> ratios;
    for (int round = 0; round < kRounds; ++round) {
        ratios.push_back(command[static_cast<std::size_t>(round)] / plain[static_cast<std::size_t>(round)]);
    }
    const double commandSeconds = bench::median(command);
    const double plainSeconds = bench::median(plain);
    std::printf("%ld runs of /bin/true: QMCommandOperation %.3f s (%.0f us each)   posix_spawn+waitpid %.3f s (%.0f us each)"
                "   ratio %.2f (median of rounds %.2f; target <= 1.3)\n",
                runs, commandSeconds, commandSeconds * 1e6 / static_cast<double>(runs), plainSeconds,
                plainSeconds * 1e6 / static_cast<double>(runs), commandSeconds / plainSeconds, bench::median(ratios));
    return 0;
}
