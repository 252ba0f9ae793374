// Helpers shared by the benchmarks: medians of samples, timing one whole run
// of a program, and comparing two runs pair by pair.
#pragma once

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace bench {

inline double median(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

// Microseconds from spawning `path` to reaping it. Standard output goes to
// /dev/null; `input`, when given, is waiting on standard input (it must fit in
// a pipe's buffer). Any failure of the program ends the benchmark.
inline double timeProgramRun(const std::string& path, const std::vector<std::string>& arguments, char** environment,
                             const std::string& input = {})
{
    std::vector<char*> argv{const_cast<char*>(path.c_str())};
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);

    int inputPipe[2] = {-1, -1};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    if (!input.empty()) {
        if (pipe2(inputPipe, O_CLOEXEC) != 0) {
            std::exit(2);
        }
        posix_spawn_file_actions_adddup2(&actions, inputPipe[0], STDIN_FILENO);
    }

    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    if (posix_spawn(&child, path.c_str(), &actions, nullptr, argv.data(), environment) != 0) {
        std::fprintf(stderr, "cannot start %s\n", path.c_str());
        std::exit(2);
    }
    if (!input.empty()) {
        close(inputPipe[0]);
        if (write(inputPipe[1], input.data(), input.size()) != static_cast<ssize_t>(input.size())) {
            std::exit(2);
        }
        close(inputPipe[1]);
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

using Run = std::function<double()>;

// Median microseconds of `first` and of `second`, run in pairs whose order
// alternates, so that both see the same machine, after `warmUpPairs` pairs
// that are not counted.
inline std::pair<double, double> pairedMedians(const Run& first, const Run& second, int pairs, int warmUpPairs = 10)
{
    std::vector<double> firstTimes, secondTimes;
    for (int pair = -warmUpPairs; pair < pairs; ++pair) {
        double firstTime = 0;
        double secondTime = 0;
        if (pair % 2 == 0) {
            firstTime = first();
            secondTime = second();
        } else {
            secondTime = second();
            firstTime = first();
        }
        if (pair >= 0) {
            firstTimes.push_back(firstTime);
            secondTimes.push_back(secondTime);
        }
    }
    return {median(firstTimes), median(secondTimes)};
}

// A TCP socket bound to a port of 127.0.0.1 that the system chose, not yet
// listening; the port is stored in `port`.
inline int bindLoopbackSocket(int& port)
{
    const int socketFD = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(socketFD, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(socketFD, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    return socketFD;
}

}  // namespace bench
