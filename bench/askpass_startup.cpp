// Times whole runs of the built responder against a minimal C program that
// prints a constant: the cost of starting any process. Runs alternate pair by
// pair (the order within a pair alternating too), so both see the same
// machine; the ratio of the medians is reported.
//
//   askpass_startup BIN_DIR [RUNS]
#include "bench/BenchmarkSupport.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

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
        const auto [responderMedian, baselineMedian] = bench::pairedMedians(
            [&] { return bench::timeProgramRun(responder, benchmarkCase.arguments, environment); },
            [&] { return bench::timeProgramRun(baseline, {}, environment); }, runs, 20);
        std::printf("%-24s %14.1f %14.1f %8.2f\n", benchmarkCase.name, responderMedian, baselineMedian,
                    responderMedian / baselineMedian);
    }
    rmdir(dataHome);
    return 0;
}
