#include "ZarvoKeychain/ImportCommand.h"

#include "GitCredentialZarvo/CredentialRequest.h"

#include "ZarvoKeychain/CommandOptions.h"
#include "ZarvoKeychain/KeychainAccess.h"
#include "ZarvoKeychain/KeychainTool.h"
#include "ZarvoKeychain/PasswordInput.h"
#include "ZarvoKeychain/ToolOutput.h"

#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMKeychain.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Security/SecItem.h"
#include "Platform/Security/Wipe.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

using namespace platform;

namespace keychaintool {

namespace {

// git's store writes a line of a few hundred bytes per credential; a file
// far beyond that is not one, and reading must stop somewhere (/dev/zero).
constexpr std::size_t kMaximumCredentialsFileSize = 16 << 20;

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
    // A "%0A" in the URL decodes to a line break: see holdsLineBreakOrNul.
    if (holdsLineBreakOrNul(*url->user()) || holdsLineBreakOrNul(*url->password())) {
        return refuseValue("the user name or password holds a line break or NUL, which git cannot be given", error);
    }
    return true;
}

// Whether the item a duplicate add ran into holds `password`: only then is the
// line's password in the keychain.
[[nodiscard]] bool holdsPassword(const QMKeychainRef& keychain, const URL& url, const std::string& password,
                                 OSStatus* status)
{
    Dictionary attributes = QMInternetPasswordKeychainItem::attributesForURL(url);
    attributes.set(kSecClass, kSecClassInternetPassword);
    Dictionary query = primaryKeyQuery(attributes);
    restrictTo(query, keychain->keychainRef(), !keychain->isDefaultKeychain());
    query.set(kSecReturnData, true);
    Value result;
    *status = SecItemCopyMatching(query, &result);
    const auto* stored = result.data();
    return *status == errSecSuccess && stored != nullptr &&
           std::string_view(reinterpret_cast<const char*>(stored->data()), stored->size()) == password;
}

// Stores the credentials of one file. Anything but kExitSuccess is the exit
// status of a keychain failure, already reported, which ends the import.
int importFile(const Command& command, const std::string& path, std::string_view text,
                const QMKeychainRef& keychain, Tally* tally)
{
    int number = 0;
    while (!text.empty()) {
        ++number;
        const auto end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        if (line.empty()) {
            continue;
        }
        // A view into the file's bytes, which are wiped once read.
        const auto url = URL::fromString(line);
        const std::string where = path + ", line " + std::to_string(number) + ": ";
        ErrorRef error;
        if (!isStorable(url, &error)) {
            fail(command, where + error->localizedDescription() + "; not imported");
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
            // The line may hold a newer password than the keychain: it is not
            // stored then, and its file must stay.
            OSStatus status = errSecSuccess;
            if (holdsPassword(keychain, *url, *url->password(), &status)) {
                ++tally->present;
            } else if (status == errSecSuccess || status == errSecItemNotFound) {
                fail(command, where + "the keychain holds another password for it; not imported "
                                      "(add-internet-password -U replaces the keychain's)");
                ++tally->rejected;
            } else {
                return report(command, status);
            }
        } else {
            return report(command, error ? static_cast<OSStatus>(error->code()) : errSecParam);
        }
    }
    return kExitSuccess;
}

// A credentials file others can read has shown them its passwords; moving
// them into the keychain does not take that back, so the user is told.
void warnIfReadableByOthers(const Command& command, const std::string& path)
{
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
        fail(command, "warning: " + path + " could be read by other users (mode " + mode +
                          "): they may know its passwords; consider changing them");
    }
}

// Removes a file whose every line is in the keychain. Only a regular file
// goes: removing a symbolic link would leave the passwords in the file it
// names, and a pipe or device holds no passwords to remove.
[[nodiscard]] bool removeImported(const Command& command, const std::string& path)
{
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        fail(command, "not removed " + path + ": not a regular file" +
                          (S_ISLNK(status.st_mode) ? " but a symbolic link; remove the file it names yourself" : ""));
        return false;
    }
    if (std::remove(path.c_str()) != 0) {
        fail(command, "cannot remove " + path + ": " + std::strerror(errno));
        return false;
    }
    print(stdout, "removed " + path + "\n");
    return true;
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
        ErrorRef error;
        auto contents = FileManager::contentsAtPath(path, kMaximumCredentialsFileSize, &error);
        if (!contents) {
            if (named || error->code() != ENOENT) {
                fail(command, "cannot read " + path + ": " + std::strerror(static_cast<int>(error->code())));
                return kExitFailure;
            }
            continue;
        }
        security::WipedWhenDone contentsWiped(contents);
        foundAny = true;
        warnIfReadableByOthers(command, path);
        const int rejectedBefore = tally.rejected;
        const int stored = importFile(
            command, path, std::string_view(reinterpret_cast<const char*>(contents->data()), contents->size()),
            keychain, &tally);
        if (stored != kExitSuccess) {
            return stored;
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
    bool removedAll = true;
    if (options.removeFile) {
        // Only a file whose every line is in the keychain now goes.
        for (const auto& path : imported) {
            removedAll = removeImported(command, path) && removedAll;
        }
    }
    return tally.rejected == 0 && removedAll ? kExitSuccess : kExitFailure;
}

}  // namespace keychaintool
