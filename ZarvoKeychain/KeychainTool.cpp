#include "ZarvoKeychain/KeychainTool.h"

#include "ZarvoKeychain/CommandOptions.h"
#include "ZarvoKeychain/CommandTable.h"
#include "ZarvoKeychain/ToolOutput.h"

using namespace keychaintool;

int runKeychainTool(const std::vector<std::string>& arguments)
{
    if (arguments.empty()) {
        printUsage(stderr);
        return kExitUsage;
    }
    if (arguments.front() == "--help" || arguments.front() == "-h" || arguments.front() == "help") {
        printUsage(stdout);
        return kExitSuccess;
    }
    const Command* command = findCommand(arguments.front());
    if (command == nullptr) {
        print(stderr, std::string(kProgram) + ": unknown command " + arguments.front() + "\n");
        printUsage(stderr);
        return kExitUsage;
    }
    Options options;
    platform::ErrorRef error;
    if (!parseOptions(*command, {arguments.begin() + 1, arguments.end()}, &options, &error)) {
        return complain(*command, error);
    }
    if (options.help) {
        printCommandUsage(*command);
        return kExitSuccess;
    }
    return command->run(*command, options);
}
