#include "tests/Support/RunOnTerminal.h"

#include "tests/Support/CommandLine.h"
#include "tests/Support/RunProgram.h"

#include <chrono>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdexcept>
#include <termios.h>
#include <unistd.h>

namespace testsupport {

TerminalResult runOnTerminal(const std::string& path, const std::vector<std::string>& arguments,
                             const std::map<std::string, std::string>& environment,
                             const std::vector<std::string>& answers, int signalAfterAnswers, int seconds)
{
    const CommandLine command(path, arguments, environment);
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child < 0) {
        throw std::runtime_error("forkpty failed");
    }
    if (child == 0) {
        execve(command.path(), command.argv(), command.envp());
        _exit(127);
    }

    TerminalResult result;
    std::size_t answered = 0;
    std::size_t seenWhenAnswered = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    char buffer[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd readable{terminal, POLLIN, 0};
        if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) == 0) {
            kill(child, SIGKILL);
            break;
        }
        // Once the program and its descendants have let go of the terminal,
        // reading fails (EIO): that is the end of the session.
        const auto count = read(terminal, buffer, sizeof buffer);
        if (count <= 0) {
            break;
        }
        result.screen.append(buffer, static_cast<std::size_t>(count));
        const bool prompted = result.screen.size() > seenWhenAnswered && result.screen.ends_with(": ");
        if (prompted && answered < answers.size()) {
            const std::string typed = answers[answered++] + "\n";
            if (write(terminal, typed.data(), typed.size()) != static_cast<ssize_t>(typed.size())) {
                throw std::runtime_error("cannot type on the terminal");
            }
            seenWhenAnswered = result.screen.size();
        } else if (prompted && signalAfterAnswers != 0) {
            kill(child, signalAfterAnswers);
            signalAfterAnswers = 0;
            seenWhenAnswered = result.screen.size();
        }
    }
    // The settings of the terminal, read through its master side; they
    // outlive the program for as long as the master is open.
    termios settings{};
    result.echoing = tcgetattr(terminal, &settings) == 0 && (settings.c_lflag & ECHO) != 0;
    close(terminal);
    result.exitStatus = waitForExit(child);
    return result;
}

}  // namespace testsupport
