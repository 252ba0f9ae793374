// PasswordInput: where zarvo-keychain gets secrets from. Never the command
// line, where other users can read them.
//
// On a terminal each secret is asked for with echo turned off; a new one is
// asked for twice. Otherwise standard input is read once, and a keychain's
// password, whether to unlock the keychain or to create it, is always its
// first line: piped twice, as the prompt asks for it, it is still the one
// password. An item's new password is what follows (all of the rest, less
// one trailing line break).
#pragma once

#include <optional>
#include <string>

class PasswordInput {
public:
    PasswordInput();
    ~PasswordInput();
    PasswordInput(const PasswordInput&) = delete;
    PasswordInput& operator=(const PasswordInput&) = delete;

    bool isInteractive() const { return interactive_; }

    // The password of a keychain to unlock; nothing when none was given.
    std::optional<std::string> keychainPassword(const std::string& keychainPath);
    // The password of a keychain to create, and a new item password. On a
    // terminal each is asked for twice and must match; nothing when none was
    // given or the two differ (`mismatch` tells).
    std::optional<std::string> newKeychainPassword(const std::string& prompt, bool* mismatch);
    std::optional<std::string> newPassword(const std::string& prompt, bool* mismatch);

private:
    std::optional<std::string> prompt(const std::string& text);
    std::optional<std::string> promptTwice(const std::string& text, bool* mismatch);
    void readStandardInput();
    std::optional<std::string> takeFirstLine();
    std::optional<std::string> takeTheRest();

    bool interactive_;
    bool standardInputRead_ = false;
    std::string pending_;
};
