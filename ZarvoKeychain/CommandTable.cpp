#include "ZarvoKeychain/CommandTable.h"

#include "ZarvoKeychain/ImportCommand.h"
#include "ZarvoKeychain/ItemCommands.h"
#include "ZarvoKeychain/KeychainCommands.h"
#include "ZarvoKeychain/ToolOutput.h"

#include "Platform/Security/SecKeychain.h"

#include <string>
#include <unordered_map>

namespace keychaintool {

namespace {

// In the order the usage text lists them.
constexpr Command kCommands[] = {
    {"add-internet-password", "asrPplkU", true, false, 0,
     "[-a account] (-s server | --url URL) [-r protocol] [-P port] [-p path] [-l label] [-k keychain] [-U]",
     "Stores a password for a server. The password is read from standard input, or asked for\n"
     "twice on a terminal; it is never taken from the command line. When the keychain is locked,\n"
     "the first line of standard input is the keychain's password and the item's follows.\n"
     "--url maps a URL the way zarvo-askpass looks one up (user, host, scheme, port or 0, path).\n"
     "-U replaces the password of an existing item instead of failing.",
     addInternetPassword},
    {"find-internet-password", "asrPplkw", true, false, 0,
     "[-a account] [-s server | --url URL] [-r protocol] [-P port] [-p path] [-l label] [-k keychain] [-w]",
     "Shows the first item that matches every given attribute, without its password.\n"
     "-w prints only the password (ending in a newline only on a terminal).",
     findInternetPassword},
    {"delete-internet-password", "asrPplk", true, false, 0,
     "[-a account] [-s server | --url URL] [-r protocol] [-P port] [-p path] [-l label] [-k keychain]",
     "Deletes the first item that matches every given attribute.", deleteInternetPassword},
    {"add-generic-password", "aslkU", false, false, 0, "[-a account] -s service [-l label] [-k keychain] [-U]",
     "Stores a password for a service, read as for add-internet-password.", addGenericPassword},
    {"find-generic-password", "aslkw", false, false, 0, "[-a account] [-s service] [-l label] [-k keychain] [-w]",
     "Shows the first matching item; -w prints only its password.", findGenericPassword},
    {"delete-generic-password", "aslk", false, false, 0, "[-a account] [-s service] [-l label] [-k keychain]",
     "Deletes the first matching item.", deleteGenericPassword},
    {"create-keychain", "", false, true, 1, "[--no-password] path",
     "Creates a keychain file. Its password is asked for twice on a terminal; otherwise it is\n"
     "the first line of standard input, as for every command that unlocks a keychain. With\n"
     "--no-password it has none and, like the default keychain, is protected by its file\n"
     "permissions (mode 0600).",
     createKeychain},
    {"delete-keychain", "", false, false, 1, "path", "Deletes a keychain file (only a keychain).", deleteKeychain},
    {"unlock-keychain", "k", false, false, 1, "[-k keychain | keychain]",
     "Checks a keychain's password. A keychain is unlocked only inside the process that unlocks\n"
     "it, so commands that need a locked keychain's secrets ask for its password themselves:\n"
     "at a prompt, or as the first line of standard input.",
     unlockKeychain},
    {"dump-keychain", "kd", false, false, 0, "[-k keychain] [-d]",
     "Lists every item of the keychain. Passwords are shown only with -d.", dumpKeychain},
    {"import-git-credentials", "k", false, false, 1, "[-k keychain] [--remove] [file]",
     "Stores the passwords of git's plain-text credential store as internet passwords that\n"
     "zarvo-askpass and git-credential-zarvo find. Without a file it reads ~/.git-credentials\n"
     "and $XDG_CONFIG_HOME/git/credentials. Items already in the keychain are skipped; lines\n"
     "that cannot be stored are named by number, never shown. --remove deletes a file once\n"
     "every line of it is in the keychain.",
     importGitCredentials, true},
};

}  // namespace

const Command* findCommand(std::string_view name)
{
    static const auto byName = [] {
        std::unordered_map<std::string_view, const Command*> index;
        for (const auto& command : kCommands) {
            index.emplace(command.name, &command);
        }
        return index;
    }();
    const auto found = byName.find(name);
    return found == byName.end() ? nullptr : found->second;
}

void printUsage(FILE* stream)
{
    std::string text = "usage: " + std::string(kProgram) + " command [options]\n\n"
                       "Manages the passwords that zarvo-askpass answers git and ssh with. Without -k,\n"
                       "commands use the default keychain, " + platform::SecKeychainDefaultPath() + ",\n"
                       "which has no password: like your SSH keys, it is protected by its file permissions.\n\n"
                       "Commands:\n";
    for (const auto& command : kCommands) {
        text += "    " + std::string(command.name) + "\n";
    }
    text += "\nRun '" + std::string(kProgram) + " command --help' for a command's options.\n"
            "Exit status: 0 success, 1 other failure, 2 bad usage, 3 item not found,\n"
            "4 duplicate item or keychain, 5 keychain locked, 6 wrong keychain password,\n"
            "7 no such keychain.\n";
    print(stream, text);
}

void printCommandUsage(const Command& command)
{
    print(stdout, "usage: " + std::string(kProgram) + " " + std::string(command.name) + " " +
                      std::string(command.synopsis) + "\n\n" + std::string(command.summary) + "\n");
}

}  // namespace keychaintool
