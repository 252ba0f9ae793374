// Whole runs of zarvo-askpass answering git's HTTP password prompt from a
// default keychain of 10, 1,000 and 100,000 items, against (a) a minimal C
// program that prints a constant and (b) `git credential-store get` answering
// the same credential from a credentials file of the same size. Each
// comparison runs its two programs in alternating pairs, one comparison after
// the other in the same run; medians and ratios are reported. The credential
// asked for is the middle one of each store.
//
// Filled stores are kept between runs (see bench/CredentialStores.h).
//
//   askpass_keychain BIN_DIR [ROUNDS]
#include "bench/BenchmarkSupport.h"
#include "bench/CredentialStores.h"

#include <cstdio>
#include <string>
#include <vector>

using bench::credentialAccount;
using bench::credentialServer;

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s BIN_DIR [ROUNDS]\n", argv[0]);
        return 2;
    }
    const std::string bin = argv[1];
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 100;
    const std::string responder = bin + "/zarvo-askpass";
    const std::string baseline = bin + "/print-constant";
    const std::string git = "/usr/bin/git";

    std::printf("%-8s %12s %12s %12s %12s %10s %10s\n", "items", "askpass us", "constant us", "askpass us",
                "git-store us", "vs (a)", "vs (b)");
    for (const int items : {10, 1000, 100000}) {
        const auto home = bench::prepareCredentialStores(items);
        const int wanted = items / 2;
        std::string dataHome = "XDG_DATA_HOME=" + home.string();
        std::string homeVariable = "HOME=" + home.string();
        std::string path = "PATH=/usr/bin:/bin";
        char* environment[] = {dataHome.data(), homeVariable.data(), path.data(), nullptr};

        const std::vector<std::string> prompt{"Password for 'https://" + credentialAccount(wanted) + "@" + credentialServer(wanted) + "': "};
        const std::vector<std::string> store{"credential-store", "--file", (home / "git-credentials").string(), "get"};
        const std::string query = "protocol=https\nhost=" + credentialServer(wanted) + "\nusername=" + credentialAccount(wanted) + "\n\n";

        const bench::Run runResponder = [&] { return bench::timeProgramRun(responder, prompt, environment); };
        const bench::Run runBaseline = [&] { return bench::timeProgramRun(baseline, {}, environment); };
        const bench::Run runGit = [&] { return bench::timeProgramRun(git, store, environment, query); };
        // Each comparison in pairs of its own: a run right after git has read
        // a large credentials file finds the caches cold, which is git's cost
        // and must not be charged to the comparison with the C program.
        const auto [responderBesideBaseline, baselineMedian] = bench::pairedMedians(runResponder, runBaseline, rounds);
        const auto [responderBesideGit, gitMedian] = bench::pairedMedians(runResponder, runGit, rounds);
        std::printf("%-8d %12.1f %12.1f %12.1f %12.1f %10.2f %10.2f\n", items, responderBesideBaseline, baselineMedian,
                    responderBesideGit, gitMedian, responderBesideBaseline / baselineMedian,
                    responderBesideGit / gitMedian);
    }
    return 0;
}
