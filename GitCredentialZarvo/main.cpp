// git-credential-zarvo: git's credential helper on the keychain zarvo-askpass
// answers from. git runs it as "git credential-zarvo OPERATION".
#include "GitCredentialZarvo/CredentialHelper.h"
#include "GitCredentialZarvo/CredentialRequest.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Security/SecKeychain.h"
#include "Platform/Security/Wipe.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

// Standard input up to one byte more than a request may hold, so that a
// longer one is seen as such without reading an endless stream. It may hold
// a password: the buffers it outgrows are wiped.
std::string readRequest()
{
    std::string input;
    char buffer[8192];
    while (input.size() <= kMaximumRequestLength) {
        const ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        platform::security::appendToSecret(input, std::string_view(buffer, static_cast<std::size_t>(count)));
    }
    explicit_bzero(buffer, sizeof buffer);
    return input;
}

void writeAll(int descriptor, const std::string& text)
{
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(descriptor, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return;
        }
        written += static_cast<std::size_t>(count);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    platform::installUncaughtExceptionReporter();
    platform::SecKeychainPrepareForShortProcess();

    std::string output;
    std::string errors;
    const int status =
        runCredentialHelper(std::vector<std::string>(argv + 1, argv + argc), readRequest, &output, &errors);
    writeAll(STDOUT_FILENO, output);
    writeAll(STDERR_FILENO, errors);
    // The answer may hold a password.
    platform::security::wipe(output);
    return status;
}
