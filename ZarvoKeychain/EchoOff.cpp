#include "ZarvoKeychain/EchoOff.h"

#include <iterator>
#include <unistd.h>

namespace {

// What the signal handler puts back. Written before the handlers are
// installed and not again while they are, so the handler reads it whole.
int gTerminal = -1;
termios gSaved{};

void restoreTerminalAndEnd(int signal)
{
    // Only async-signal-safe calls here. TCSAFLUSH drops typed input that
    // was not entered yet: it is part of a password.
    ::tcsetattr(gTerminal, TCSAFLUSH, &gSaved);
    // Ends the prompt's line, as Enter would have, for whatever is shown next.
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, "\n", 1);
    struct sigaction defaultAction {};
    defaultAction.sa_handler = SIG_DFL;
    sigemptyset(&defaultAction.sa_mask);
    ::sigaction(signal, &defaultAction, nullptr);
    // Blocked while this handler runs, the signal is delivered again, with
    // its default disposition, as soon as the handler returns.
    ::raise(signal);
}

}  // namespace

EchoOff::EchoOff(int descriptor) : descriptor_(descriptor)
{
    termios saved{};
    if (::tcgetattr(descriptor_, &saved) != 0) {
        return;
    }
    gTerminal = descriptor_;
    gSaved = saved;
    struct sigaction restoring {};
    restoring.sa_handler = restoreTerminalAndEnd;
    sigemptyset(&restoring.sa_mask);
    for (const int signal : kEndingSignals) {
        sigaddset(&restoring.sa_mask, signal);
    }
    for (std::size_t index = 0; index < std::size(kEndingSignals); ++index) {
        ::sigaction(kEndingSignals[index], nullptr, &previous_[index]);
        if (previous_[index].sa_handler != SIG_IGN) {
            ::sigaction(kEndingSignals[index], &restoring, nullptr);
        }
    }
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    active_ = ::tcsetattr(descriptor_, TCSAFLUSH, &quiet) == 0;
}

EchoOff::~EchoOff()
{
    if (gTerminal != descriptor_) {
        return;  // not a terminal: nothing was changed
    }
    if (active_) {
        ::tcsetattr(descriptor_, TCSAFLUSH, &gSaved);
    }
    for (std::size_t index = 0; index < std::size(kEndingSignals); ++index) {
        ::sigaction(kEndingSignals[index], &previous_[index], nullptr);
    }
    gTerminal = -1;
}
