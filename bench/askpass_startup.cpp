// Times whole runs of the built responder against a minimal C program that
// prints a constant: the cost of starting any process. Runs alternate pair by
// pair, so both see the same machine; the ratio of the medians is reported.
//
//   askpass_startup BIN_DIR [RUNS]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

double runOnce(const std::string& path, const std::vector<std::string>& arguments, char** environment)
{
    std::vector<char*> argv{const_cast<char*>(path.c_str())};
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    if (posix_spawn(&child, path.c_str(), &actions, nullptr, argv.data(), environment) != 0) {
        std::fprintf(stderr, "cannot start %s\n", path.c_str());
        std::exit(2);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    posix_spawn_file_actions_destroy(&actions);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "%s failed\n", path.c_str());
        std::exit(2);
    }
    return std::chrono::duration<double, std::micro>(elapsed).count();
}

double median(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s BIN_DIR [RUNS]\n", argv[0]);
        return 2;
    }
    const std::string bin = argv[1];
    const int runs = argc > 2 ? std::atoi(argv[2]) : 300;
    const std::string responder = bin + "/zarvo-askpass";
    const std::string baseline = bin + "/print-constant";

    // An empty data directory: the HTTP prompt reaches no keychain file.
    char dataHome[] = "/tmp/zarvo-bench-XXXXXX";
    if (mkdtemp(dataHome) == nullptr) {
        return 2;
    }
    std::string xdg = std::string("XDG_DATA_HOME=") + dataHome;
    std::string user = "USER=bench";
    std::string path = "PATH=/usr/bin:/bin";
    char* environment[] = {xdg.data(), user.data(), path.data(), nullptr};

    struct Case {
        const char* name;
        std::vector<std::string> arguments;
    };
    const Case cases[] = {
        {"host-key prompt", {"Are you sure you want to continue connecting (yes/no)? "}},
        {"HTTP user-name prompt", {"Username for 'https://example.com': "}},
    };

    std::printf("%-24s %14s %14s %8s\n", "case", "responder us", "baseline us", "ratio");
    for (const auto& benchmarkCase : cases) {
        std::vector<double> responderTimes;
        std::vector<double> baselineTimes;
        for (int warmUp = 0; warmUp < 20; ++warmUp) {
            runOnce(responder, benchmarkCase.arguments, environment);
            runOnce(baseline, {}, environment);
        }
        for (int run = 0; run < runs; ++run) {
            responderTimes.push_back(runOnce(responder, benchmarkCase.arguments, environment));
            baselineTimes.push_back(runOnce(baseline, {}, environment));
        }
        const double responderMedian = median(responderTimes);
        const double baselineMedian = median(baselineTimes);
        std::printf("%-24s %14.1f %14.1f %8.2f\n", benchmarkCase.name, responderMedian, baselineMedian,
                    responderMedian / baselineMedian);
    }
    rmdir(dataHome);
    return 0;
}
