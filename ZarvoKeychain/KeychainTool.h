// KeychainTool: the entry of zarvo-keychain, which stores, finds and removes
// passwords in keychains and creates, unlocks and deletes keychain files. It
// finds the subcommand in the command table (CommandTable.h), reads its
// options (CommandOptions.h) and runs it.
//
// Exit statuses tell the outcomes apart for scripts (see ToolExit).
#pragma once

#include <string>
#include <vector>

enum ToolExit : int {
    kExitSuccess = 0,
    kExitFailure = 1,        // any other keychain or system failure
    kExitUsage = 2,          // bad command line or missing input
    kExitNotFound = 3,       // no item matches
    kExitDuplicate = 4,      // the item (or keychain file) already exists
    kExitLocked = 5,         // the keychain is locked and no password was given
    kExitWrongPassword = 6,  // the keychain password is not correct
    kExitNoSuchKeychain = 7, // no keychain at that path
};

// Runs the program with its arguments (without the program name); reads
// passwords from standard input and writes to standard output and error.
int runKeychainTool(const std::vector<std::string>& arguments);
