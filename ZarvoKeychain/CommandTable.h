// CommandTable: the subcommands of zarvo-keychain, each with the options it
// takes and its usage text, found by name in one look-up.
#pragma once

#include <cstdio>
#include <string_view>

namespace keychaintool {

struct Options;

struct Command {
    std::string_view name;
    // The single-letter options it takes: a, s, r, P, p, l and k take a value
    // (see Options); w, U and d are flags.
    std::string_view letters;
    bool takesURL;
    bool takesNoPassword;
    int maximumOperands;
    std::string_view synopsis;
    std::string_view summary;
    // Does the work once the options have parsed; returns the exit status.
    int (*run)(const Command& command, const Options& options);
    // Whether it takes --remove.
    bool takesRemove = false;
};

// The subcommand called `name`, or nullptr when there is none.
const Command* findCommand(std::string_view name);

// The program's usage: what it is for and the list of subcommands.
void printUsage(FILE* stream);
// One subcommand's synopsis and summary, on standard output.
void printCommandUsage(const Command& command);

}  // namespace keychaintool
