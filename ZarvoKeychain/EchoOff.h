// EchoOff: turns a terminal's echo off for as long as it lives, as a password
// prompt needs, and puts it back however the prompt ends.
//
// A signal that would end the process while echo is off (Ctrl-C, Ctrl-\,
// SIGTERM, a hang-up) first restores the terminal and throws away what was
// typed but not entered, so that neither the shell nor the user is left with
// a silent terminal or half a password on the next command line; then the
// process ends by that signal with its default disposition, as it would have
// without the prompt. A signal the process ignores stays ignored.
//
// One at a time per process: the handlers share one saved state.
#pragma once

#include <csignal>
#include <iterator>
#include <termios.h>

class EchoOff {
public:
    // Turns echo off on `descriptor` when it is a terminal; else does nothing.
    explicit EchoOff(int descriptor);
    ~EchoOff();
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

private:
    static constexpr int kEndingSignals[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};

    int descriptor_;
    bool active_ = false;
    struct sigaction previous_[std::size(kEndingSignals)]{};
};
