#include "ZarvoKeychain/PasswordInput.h"

#include "Platform/Security/Wipe.h"
#include "ZarvoKeychain/EchoOff.h"

#include <sodium.h>

#include <cstdio>
#include <unistd.h>

PasswordInput::PasswordInput() : interactive_(::isatty(STDIN_FILENO) == 1) {}

PasswordInput::~PasswordInput()
{
    platform::security::wipe(pending_);
}

std::optional<std::string> PasswordInput::prompt(const std::string& text)
{
    // Echo goes off before the prompt shows: whatever is typed once it is
    // there stays unseen (and is not thrown away by the switch).
    EchoOff quiet(STDIN_FILENO);
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
    std::string line;
    char character;
    ssize_t count;
    while ((count = ::read(STDIN_FILENO, &character, 1)) == 1 && character != '\n') {
        platform::security::appendToSecret(line, {&character, 1});
    }
    if (count != 1 && line.empty()) {
        return std::nullopt;  // end of input: nothing was typed
    }
    return line;
}

void PasswordInput::readStandardInput()
{
    if (standardInputRead_) {
        return;
    }
    standardInputRead_ = true;
    char buffer[4096];
    ssize_t count;
    while ((count = ::read(STDIN_FILENO, buffer, sizeof buffer)) > 0) {
        platform::security::appendToSecret(pending_, {buffer, static_cast<std::size_t>(count)});
    }
    sodium_memzero(buffer, sizeof buffer);
}

std::optional<std::string> PasswordInput::takeFirstLine()
{
    readStandardInput();
    if (pending_.empty()) {
        return std::nullopt;
    }
    const auto lineEnd = pending_.find('\n');
    std::string line = pending_.substr(0, lineEnd);
    pending_.erase(0, lineEnd == std::string::npos ? pending_.size() : lineEnd + 1);
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    return line;
}

std::optional<std::string> PasswordInput::takeTheRest()
{
    readStandardInput();
    if (pending_.empty()) {
        return std::nullopt;
    }
    std::string secret = pending_;
    platform::security::wipe(pending_);
    if (!secret.empty() && secret.back() == '\n') {
        secret.pop_back();
        if (!secret.empty() && secret.back() == '\r') {
            secret.pop_back();
        }
    }
    return secret;
}

std::optional<std::string> PasswordInput::promptTwice(const std::string& text, bool* mismatch)
{
    auto first = prompt(text + ": ");
    if (!first) {
        return std::nullopt;
    }
    auto second = prompt("retype " + text + ": ");
    platform::security::WipedWhenDone secondWiped(second);
    if (second && *second == *first) {
        return first;
    }
    *mismatch = second.has_value();
    platform::security::wipe(*first);
    return std::nullopt;
}

std::optional<std::string> PasswordInput::keychainPassword(const std::string& keychainPath)
{
    return interactive_ ? prompt("password to unlock " + keychainPath + ": ") : takeFirstLine();
}

std::optional<std::string> PasswordInput::newKeychainPassword(const std::string& promptText, bool* mismatch)
{
    *mismatch = false;
    return interactive_ ? promptTwice(promptText, mismatch) : takeFirstLine();
}

std::optional<std::string> PasswordInput::newPassword(const std::string& promptText, bool* mismatch)
{
    *mismatch = false;
    return interactive_ ? promptTwice(promptText, mismatch) : takeTheRest();
}
