// zarvo-askpass: prints the answer to the prompt given as its first argument,
// without a newline, and exits 0; exits 1 with no output only when no
// responder could be made.
#include "Platform/Foundation/Exception.h"
#include "Platform/Security/SecKeychain.h"
#include "ZarvoAskpass/ZarvoAskpass.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

ZarvoAskpass::Environment processEnvironment(char** environment)
{
    ZarvoAskpass::Environment variables;
    for (char** entry = environment; entry != nullptr && *entry != nullptr; ++entry) {
        const char* separator = std::strchr(*entry, '=');
        if (separator != nullptr) {
            // The first definition of a name wins, as getenv(3) sees it.
            variables.emplace(std::string(*entry, static_cast<std::size_t>(separator - *entry)), std::string(separator + 1));
        }
    }
    return variables;
}

}  // namespace

int main(int argc, char** argv, char** envp)
{
    platform::installUncaughtExceptionReporter();
    platform::SecKeychainPrepareForShortProcess();
    // git waits on this answer: a keychain another program keeps locked gets
    // no answer after a short wait, never a stall.
    platform::SecKeychainSetBusyWait(std::chrono::milliseconds(1500));

    const ZarvoAskpass::Arguments arguments(argv, argv + argc);
    const auto response = ZarvoAskpass::responseForArguments(arguments, processEnvironment(envp));

    // The answer goes out as a C string, in one write: up to its first NUL.
    const std::string answer = response.value_or("");
    const std::string_view output(answer.c_str());
    std::fwrite(output.data(), 1, output.size(), stdout);
    return response ? 0 : 1;
}
