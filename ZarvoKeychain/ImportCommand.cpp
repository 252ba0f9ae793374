#include "ZarvoKeychain/ImportCommand.h"

#include "ZarvoKeychain/CommandOptions.h"
#include "ZarvoKeychain/KeychainAccess.h"
#include "ZarvoKeychain/KeychainTool.h"
#include "ZarvoKeychain/PasswordInput.h"
#include "ZarvoKeychain/ToolOutput.h"

#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMKeychain.h"

#include "Platform/Foundation/URL.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using namespace platform;

namespace keychaintool {

namespace {

// The files git's credential store reads when none is named, in its order.
std::vector<std::string> defaultCredentialFiles()
{
    std::vector<std::string> files;
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') {
        files.push_back(std::string(home) + "/.git-credentials");
    }
    const char* configHome = std::getenv("XDG_CONFIG_HOME");
    if (configHome != nullptr && *configHome != '\0') {
        files.push_back(std::string(configHome) + "/git/credentials");
    } else if (home != nullptr && *home != '\0') {
        files.push_back(std::string(home) + "/.config/git/credentials");
    }
    return files;
}

struct Tally {
    int added = 0;
    int present = 0;
    int rejected = 0;
};

// Whether a line of a credentials file can be stored; when it cannot, the
// error says why. The reasons never quote the line: it holds a password.
[[nodiscard]] bool isStorable(const std::optional<URL>& url, ErrorRef* error)
{
    if (!url) {
        return refuseValue("not a URL", error);
    }
    if (!QMKeychain::supportsProtocol(url->scheme())) {
        return refuseValue("the scheme is not one of ftp, ftps, http, https, ssh", error);
    }
    if (!url->host() || url->host()->empty()) {
        return refuseValue("no host", error);
    }
    if (!url->user() || url->user()->empty()) {
        return refuseValue("no user name", error);
    }
    if (!url->password()) {
        return refuseValue("no password", error);
    }
    return true;
}

// Stores the credentials of one file. False when the keychain failed, which
// ends the import (the failure is reported).
bool importFile(const Command& command, const std::string& path, const std::string& text,
                const QMKeychainRef& keychain, Tally* tally)
{
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    while (std::getline(lines, line)) {
        ++number;
        if (line.empty()) {
            continue;
        }
        auto url = URL::fromString(line);
        std::fill(line.begin(), line.end(), '\0');
        ErrorRef error;
        if (!isStorable(url, &error)) {
            fail(command, path + ", line " + std::to_string(number) + ": " + error->localizedDescription() +
                              "; not imported");
            ++tally->rejected;
            continue;
        }
        // Keyed as the responder looks the URL up; the password in the URL
        // is not an attribute.
        const auto item = QMInternetPasswordKeychainItem::addInternetPasswordToKeychain(keychain, *url,
                                                                                         url->password(), &error);
        if (item) {
            ++tally->added;
        } else if (error && error->code() == errSecDuplicateItem) {
            ++tally->present;
        } else {
            const int status = report(command, error ? static_cast<OSStatus>(error->code()) : errSecParam);
            return status == kExitSuccess;
        }
    }
    return true;
}

std::optional<std::string> readWhole(const std::string& path, int* error)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        *error = errno;
        return std::nullopt;
    }
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace

int importGitCredentials(const Command& command, const Options& options)
{
    const bool named = !options.operands.empty();
    const auto files = named ? std::vector<std::string>{options.operands.front()} : defaultCredentialFiles();

    Options keychainOptions = options;
    keychainOptions.operands.clear();  // the operand is the credentials file, not a keychain
    bool isExplicit = false;
    const auto keychainRef = targetKeychain(keychainOptions, &isExplicit);
    PasswordInput input;
    if (const int unlocked = ensureUnlocked(command, keychainRef, input); unlocked != kExitSuccess) {
        return unlocked;
    }
    const auto keychain = isExplicit ? QMKeychain::keychainWithKeychainRef(keychainRef) : QMKeychain::defaultKeychain();

    Tally tally;
    bool foundAny = false;
    std::vector<std::string> imported;
    for (const auto& path : files) {
        int error = 0;
        auto text = readWhole(path, &error);
        if (!text) {
            if (named || error != ENOENT) {
                fail(command, "cannot read " + path + ": " + std::strerror(error));
                return kExitFailure;
            }
            continue;
        }
        foundAny = true;
        const int rejectedBefore = tally.rejected;
        const bool stored = importFile(command, path, *text, keychain, &tally);
        std::fill(text->begin(), text->end(), '\0');
        if (!stored) {
            return kExitFailure;
        }
        if (tally.rejected == rejectedBefore) {
            imported.push_back(path);
        }
    }
    if (!named && !foundAny) {
        fail(command, "no git credentials file found (~/.git-credentials, $XDG_CONFIG_HOME/git/credentials)");
        return kExitNotFound;
    }
    print(stdout, "added " + std::to_string(tally.added) + ", skipped " + std::to_string(tally.present) +
                      " already present, rejected " + std::to_string(tally.rejected) + "\n");
    if (options.removeFile) {
        // Only a file whose every line is in the keychain now goes.
        for (const auto& path : imported) {
            if (std::remove(path.c_str()) == 0) {
                print(stdout, "removed " + path + "\n");
            } else {
                fail(command, "cannot remove " + path + ": " + std::strerror(errno));
                return kExitFailure;
            }
        }
    }
    return tally.rejected == 0 ? kExitSuccess : kExitFailure;
}

}  // namespace keychaintool
