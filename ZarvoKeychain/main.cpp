// zarvo-keychain: manages the passwords that zarvo-askpass answers with.
#include "ZarvoKeychain/KeychainTool.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Security/SecKeychain.h"

#include <cstdio>
#include <string>

namespace {

// The keychain layer's notes (a long wait, a mode made private) go to
// standard error, which keeps standard output for what was asked for.
void printNotice(const std::string& line)
{
    const std::string text = "zarvo-keychain: " + line + "\n";
    std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace

int main(int argc, char** argv)
{
    platform::installUncaughtExceptionReporter();
    platform::SecKeychainPrepareForShortProcess();
    platform::SecKeychainSetNoticeHandler(printNotice);
    return runKeychainTool(std::vector<std::string>(argv + 1, argv + argc));
}
