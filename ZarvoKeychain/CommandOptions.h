// CommandOptions: the options of one zarvo-keychain subcommand, read from its
// arguments as its entry in the command table allows.
#pragma once

#include "Platform/Foundation/Error.h"

#include <optional>
#include <string>
#include <vector>

namespace keychaintool {

struct Command;

struct Options {
    std::optional<std::string> account;          // -a
    std::optional<std::string> serverOrService;  // -s
    std::optional<std::string> protocol;         // -r
    std::optional<std::string> port;             // -P
    std::optional<std::string> path;             // -p
    std::optional<std::string> label;            // -l
    std::optional<std::string> keychain;         // -k
    std::optional<std::string> url;              // --url
    bool passwordOnly = false;                   // -w
    bool update = false;                         // -U
    bool showSecrets = false;                    // -d
    bool noPassword = false;                     // --no-password
    bool removeFile = false;                     // --remove
    bool help = false;                           // --help, -h
    std::vector<std::string> operands;
};

// Reads `arguments` (those after the subcommand's name) into `options`. An
// option the command does not take, a missing value or an operand too many
// is a usage complaint (see ToolOutput.h) in `error`.
[[nodiscard]] bool parseOptions(const Command& command, const std::vector<std::string>& arguments, Options* options,
                                platform::ErrorRef* error);

}  // namespace keychaintool
