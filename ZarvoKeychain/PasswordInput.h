// PasswordInput: where zarvo-keychain gets secrets from. Never the command
// line, where other users can read them.
//
// On a terminal each secret is asked for with echo turned off. Otherwise
// standard input is read once: when a locked keychain has to be opened, its
// password is the first line; the item password is the rest, less one
// trailing line break.
#pragma once

#include <optional>
#include <string>

// Overwrites a secret's bytes before emptying it, so that no copy of it is
// left in freed memory.
void wipeSecret(std::string& secret);

class PasswordInput {
public:
    PasswordInput();
    ~PasswordInput();
    PasswordInput(const PasswordInput&) = delete;
    PasswordInput& operator=(const PasswordInput&) = delete;

    bool isInteractive() const { return interactive_; }

    // The password of a keychain to unlock; nothing when none was given.
    std::optional<std::string> keychainPassword(const std::string& keychainPath);
    // A new secret. On a terminal it is asked for twice and must match;
    // nothing when none was given or the two differ (`mismatch` tells).
    std::optional<std::string> newPassword(const std::string& prompt, bool* mismatch);

private:
    std::optional<std::string> prompt(const std::string& text);
    void readStandardInput();

    bool interactive_;
    bool standardInputRead_ = false;
    std::string pending_;
};
