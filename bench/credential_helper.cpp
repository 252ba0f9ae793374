// `git credential fill` answered through git-credential-zarvo, against the
// same answered through git's own `git credential-store`, with the same
// credentials in a default keychain and in a credentials file of 10 and
// 10,000 items. Both are whole runs of git, which starts its helper through
// the shell in both cases; the two run in alternating pairs in the same run,
// and medians and their ratio are reported. The credential asked for is the
// middle one of each store. Prompting is off, so a helper that does not
// answer fails the benchmark instead of being timed.
//
//   credential_helper BIN_DIR [PAIRS]
#include "bench/BenchmarkSupport.h"
#include "bench/CredentialStores.h"

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s BIN_DIR [PAIRS]\n", argv[0]);
        return 2;
    }
    // git takes a helper named by a relative path for one of its own commands.
    const std::string bin = std::filesystem::absolute(argv[1]).string();
    const int pairs = argc > 2 ? std::atoi(argv[2]) : 100;
    const std::string git = "/usr/bin/git";

    std::printf("%-8s %14s %14s %8s\n", "items", "zarvo us", "git-store us", "ratio");
    for (const int items : {10, 10000}) {
        const auto home = bench::prepareCredentialStores(items);
        const int wanted = items / 2;
        std::string dataHome = "XDG_DATA_HOME=" + home.string();
        std::string homeVariable = "HOME=" + home.string();
        std::string path = "PATH=/usr/bin:/bin";
        std::string noSystem = "GIT_CONFIG_NOSYSTEM=1";
        std::string noGlobal = "GIT_CONFIG_GLOBAL=/dev/null";
        std::string noPrompt = "GIT_TERMINAL_PROMPT=0";
        char* environment[] = {dataHome.data(), homeVariable.data(), path.data(), noSystem.data(),
                               noGlobal.data(), noPrompt.data(), nullptr};

        const std::string request = "protocol=https\nhost=" + bench::credentialServer(wanted) +
                                    "\nusername=" + bench::credentialAccount(wanted) + "\n\n";
        const std::vector<std::string> throughZarvo{"-c", "credential.helper=",
                                                    "-c", "credential.helper=" + bin + "/git-credential-zarvo",
                                                    "credential", "fill"};
        const std::vector<std::string> throughStore{
            "-c", "credential.helper=",
            "-c", "credential.helper=store --file=" + (home / "git-credentials").string(),
            "credential", "fill"};

        const bench::Run runZarvo = [&] { return bench::timeProgramRun(git, throughZarvo, environment, request); };
        const bench::Run runStore = [&] { return bench::timeProgramRun(git, throughStore, environment, request); };
        const auto [zarvo, store] = bench::pairedMedians(runZarvo, runStore, pairs);
        std::printf("%-8d %14.1f %14.1f %8.2f\n", items, zarvo, store, zarvo / store);
    }
    return 0;
}
