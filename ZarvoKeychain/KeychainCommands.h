// KeychainCommands: the subcommands that create, delete, unlock and list
// keychain files. Each returns the program's exit status.
#pragma once

namespace keychaintool {

struct Command;
struct Options;

int createKeychain(const Command& command, const Options& options);
int deleteKeychain(const Command& command, const Options& options);
int unlockKeychain(const Command& command, const Options& options);
int dumpKeychain(const Command& command, const Options& options);

}  // namespace keychaintool
