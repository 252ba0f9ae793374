#include "ZarvoKeychain/CommandOptions.h"

#include "ZarvoKeychain/CommandTable.h"
#include "ZarvoKeychain/ToolOutput.h"

namespace keychaintool {

namespace {

std::optional<std::string>* valueSlot(Options& options, char letter)
{
    switch (letter) {
    case 'a': return &options.account;
    case 's': return &options.serverOrService;
    case 'r': return &options.protocol;
    case 'P': return &options.port;
    case 'p': return &options.path;
    case 'l': return &options.label;
    case 'k': return &options.keychain;
    default: return nullptr;
    }
}


}  // namespace

bool parseOptions(const Command& command, const std::vector<std::string>& arguments, Options* options,
                  platform::ErrorRef* error)
{
    bool operandsOnly = false;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::string& argument = arguments[index];
        if (operandsOnly || argument.empty() || argument[0] != '-' || argument == "-") {
            options->operands.push_back(argument);
            continue;
        }
        if (argument == "--") {
            operandsOnly = true;
        } else if (argument == "--help" || argument == "-h") {
            options->help = true;
        } else if (command.takesURL && (argument == "--url" || argument.rfind("--url=", 0) == 0)) {
            if (argument == "--url") {
                if (++index == arguments.size()) {
                    return refuse("--url needs a URL", error);
                }
                options->url = arguments[index];
            } else {
                options->url = argument.substr(6);
            }
        } else if (command.takesNoPassword && argument == "--no-password") {
            options->noPassword = true;
        } else if (command.takesRemove && argument == "--remove") {
            options->removeFile = true;
        } else if (argument.size() == 2 && command.letters.find(argument[1]) != std::string_view::npos) {
            const char letter = argument[1];
            if (auto* slot = valueSlot(*options, letter)) {
                if (++index == arguments.size()) {
                    return refuse(argument + " needs a value", error);
                }
                *slot = arguments[index];
            } else if (letter == 'w') {
                options->passwordOnly = true;
            } else if (letter == 'U') {
                options->update = true;
            } else if (letter == 'd') {
                options->showSecrets = true;
            }
        } else {
            return refuse("unknown option " + argument, error);
        }
    }
    if (static_cast<int>(options->operands.size()) > command.maximumOperands) {
        return refuse("unexpected argument " + options->operands[static_cast<std::size_t>(command.maximumOperands)],
                        error);
    }
    return true;
}

}  // namespace keychaintool
