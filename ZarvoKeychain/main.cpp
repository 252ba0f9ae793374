// zarvo-keychain: manages the passwords that zarvo-askpass answers with.
#include "ZarvoKeychain/KeychainTool.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Security/SecKeychain.h"

int main(int argc, char** argv)
{
    platform::installUncaughtExceptionReporter();
    platform::SecKeychainPrepareForShortProcess();
    return runKeychainTool(std::vector<std::string>(argv + 1, argv + argc));
}
