// KeychainAccess: which keychain a subcommand works on, and opening a
// password-protected one when the subcommand needs its secrets.
#pragma once

#include "Platform/Foundation/Value.h"
#include "Platform/Security/SecKeychain.h"

class PasswordInput;

namespace keychaintool {

struct Command;
struct Options;

// The keychain named by -k, else by the first operand, else the default
// keychain; `isExplicit` tells whether one was named.
platform::SecKeychainRef targetKeychain(const Options& options, bool* isExplicit);

// The query that names exactly the stored item with the same primary key as
// `attributes` (which hold kSecClass): every key attribute, with the store's
// "" or 0 where unset.
platform::Dictionary primaryKeyQuery(const platform::Dictionary& attributes);
// Limits `query` to `keychain` when it was named; the default keychain is
// searched through the search list.
void restrictTo(platform::Dictionary& query, const platform::SecKeychainRef& keychain, bool isExplicit);

// Unlocks a password-protected keychain for this process, asking `input` for
// the password. Returns kExitSuccess when the command may go on (also for a
// missing keychain, which the command itself reports), else the exit status of
// the failure already reported.
[[nodiscard]] int ensureUnlocked(const Command& command, const platform::SecKeychainRef& keychain, PasswordInput& input);

}  // namespace keychaintool
