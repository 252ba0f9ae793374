// Runs a built program on a pseudo-terminal, as a person at a terminal would
// use it: its standard streams are the terminal, so it may prompt, turn echo
// off and tell a terminal from a pipe.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace testsupport {

struct TerminalResult {
    std::string screen;  // all the terminal showed, typed characters included when echoed
    int exitStatus = -1;  // as in ProgramResult
    // Whether the terminal echoed typed characters once the program had gone,
    // as the shell would find it.
    bool echoing = false;
};

// Each time the screen shows a prompt (output ending in ": "), the next of
// `answers` is typed, followed by Enter. When `signalAfterAnswers` is not 0,
// the prompt after the last answer gets that signal sent to the program in
// place of an answer. A program still running after `seconds` is killed (and
// reports 128 + SIGKILL).
TerminalResult runOnTerminal(const std::string& path, const std::vector<std::string>& arguments,
                             const std::map<std::string, std::string>& environment,
                             const std::vector<std::string>& answers, int signalAfterAnswers = 0,
                             int seconds = 60);

}  // namespace testsupport
