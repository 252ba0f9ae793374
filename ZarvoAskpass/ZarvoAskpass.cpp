#include "ZarvoAskpass/ZarvoAskpass.h"

#include "Platform/Foundation/Exception.h"
#include "QMFoundation/Keychain/QMGenericPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMKeychain.h"
#include "QMFoundation/Strings/NSURL+QMCommon.h"
#include "ZarvoAskpass/ZarvoAskpassHelpers.h"

#include <new>

using platform::URL;

namespace {
constexpr const char* kAssertionSourceFile = "ZarvoAskpass/ZarvoAskpass";
constexpr std::string_view kHostAuthenticityAnswer = "yes";
}  // namespace

std::optional<std::string> ZarvoAskpass::responseForArguments(const std::optional<Arguments>& arguments,
                                                              const std::optional<Environment>& environment)
{
    return responseForArguments(arguments, environment, nullptr);
}

std::optional<std::string> ZarvoAskpass::responseForArguments(const std::optional<Arguments>& arguments,
                                                              const std::optional<Environment>& environment,
                                                              const QMKeychainRef& keychain)
{
    std::shared_ptr<ZarvoAskpass> responder;
    try {
        responder = create(arguments, environment, keychain);
    } catch (const std::bad_alloc&) {
        return std::nullopt;  // no responder: the caller exits with status 1
    }
    return responder->response();
}

std::shared_ptr<ZarvoAskpass> ZarvoAskpass::create(const std::optional<Arguments>& arguments,
                                                   const std::optional<Environment>& environment,
                                                   QMKeychainRef keychain)
{
    PLATFORM_PARAMETER_ASSERT(arguments.has_value(), "arguments");
    PLATFORM_PARAMETER_ASSERT(environment.has_value(), "environment");
    return platform::makeObject<ZarvoAskpass>(*arguments, *environment, std::move(keychain));
}

ZarvoAskpass::ZarvoAskpass(Arguments arguments, Environment environment, QMKeychainRef keychain)
    : arguments_(std::move(arguments)), environment_(std::move(environment)), keychain_(std::move(keychain))
{
}

const QMKeychainRef& ZarvoAskpass::keychain()
{
    if (!keychain_) {
        keychain_ = QMKeychain::defaultKeychain();
    }
    return keychain_;
}

std::string ZarvoAskpass::prompt() const
{
    return arguments_.size() > 1 ? arguments_[1] : std::string();
}

// git and ssh read an answer up to its first line break; an answer holding
// one would reach them cut short, or carry a second line they would take for
// something else. Such an answer is no answer.
std::string ZarvoAskpass::response()
{
    auto answer = responseForPrompt(prompt()).value_or("");
    return answer.find_first_of("\r\n") == std::string::npos ? answer : std::string();
}

// Host-key questions first, in both modes; then, when the launching
// application set credentials in the environment, the prompt only tells a
// password from a user name; otherwise the prompt's own URL is used. In both
// modes the password test comes first.
std::optional<std::string> ZarvoAskpass::responseForPrompt(std::string_view prompt)
{
    if (isHostAuthenticityPrompt(prompt)) {
        return responseForHostAuthenticityPrompt(prompt);
    }
    if (hasEnvironmentCredentials()) {
        if (isPasswordPrompt(prompt)) {
            return responseForPasswordPrompt(prompt);
        }
        if (isUsernamePrompt(prompt)) {
            return responseForUsernamePrompt(prompt);
        }
        return std::nullopt;
    }
    if (isHTTPPasswordPrompt(prompt)) {
        return responseForHTTPPasswordPrompt(prompt);
    }
    if (isHTTPUsernamePrompt(prompt)) {
        return responseForHTTPUsernamePrompt(prompt);
    }
    if (isSSHPasswordPrompt(prompt)) {
        return responseForSSHPasswordPrompt(prompt);
    }
    return std::nullopt;
}

std::optional<std::string> ZarvoAskpass::environmentValue(std::string_view name) const
{
    const auto found = environment_.find(name);
    if (found == environment_.end()) {
        return std::nullopt;
    }
    return found->second;
}

bool ZarvoAskpass::hasEnvironmentCredentials() const
{
    if (keychainRemoteURLFromEnvironment()) {
        return true;
    }
    return serviceNameFromEnvironment() && serviceAccountFromEnvironment();
}

std::optional<URL> ZarvoAskpass::keychainRemoteURLFromEnvironment() const
{
    const auto text = environmentValue(RemoteURLVariable);
    if (!text) {
        return std::nullopt;
    }
    const auto url = URL::fromString(*text);
    return url ? URLByDeletingPath(*url) : std::nullopt;
}

std::optional<std::string> ZarvoAskpass::serviceNameFromEnvironment() const
{
    return environmentValue(ServiceNameVariable);
}

std::optional<std::string> ZarvoAskpass::serviceAccountFromEnvironment() const
{
    return environmentValue(ServiceAccountVariable);
}

bool ZarvoAskpass::isHostAuthenticityPrompt(std::string_view prompt) const
{
    return ZarvoAskpassHelpers::isHostAuthenticityPrompt(prompt);
}

bool ZarvoAskpass::isHTTPUsernamePrompt(std::string_view prompt) const
{
    return ZarvoAskpassHelpers::isHTTPUsernamePrompt(prompt);
}

bool ZarvoAskpass::isHTTPPasswordPrompt(std::string_view prompt) const
{
    return ZarvoAskpassHelpers::isHTTPPasswordPrompt(prompt);
}

bool ZarvoAskpass::isSSHPasswordPrompt(std::string_view prompt) const
{
    return ZarvoAskpassHelpers::isSSHPasswordPrompt(prompt);
}

bool ZarvoAskpass::isUsernamePrompt(std::string_view prompt) const
{
    return ZarvoAskpassHelpers::isUsernamePrompt(prompt);
}

bool ZarvoAskpass::isPasswordPrompt(std::string_view prompt) const
{
    return ZarvoAskpassHelpers::isPasswordPrompt(prompt);
}

std::optional<URL> ZarvoAskpass::urlFromHTTPPasswordPrompt(std::string_view prompt) const
{
    return ZarvoAskpassHelpers::urlFromHTTPPasswordPrompt(prompt);
}

std::optional<URL> ZarvoAskpass::urlFromSSHPasswordPrompt(std::string_view prompt) const
{
    return ZarvoAskpassHelpers::urlFromSSHPasswordPrompt(prompt);
}

// Every unknown host key is accepted: the launching application has already
// decided to talk to that host.
std::optional<std::string> ZarvoAskpass::responseForHostAuthenticityPrompt(std::string_view) const
{
    return std::string(kHostAuthenticityAnswer);
}

std::optional<std::string> ZarvoAskpass::responseForPasswordPrompt(std::string_view)
{
    if (const auto url = keychainRemoteURLFromEnvironment()) {
        return internetPasswordForRemoteURL(*url);
    }
    const auto service = serviceNameFromEnvironment();
    const auto account = serviceAccountFromEnvironment();
    if (service && account) {
        return genericPasswordForAccount(*account, *service);
    }
    return std::nullopt;
}

// Only the remote URL names a user; a service account is deliberately not
// offered as a user name.
std::optional<std::string> ZarvoAskpass::responseForUsernamePrompt(std::string_view) const
{
    const auto url = keychainRemoteURLFromEnvironment();
    return url ? url->user() : std::nullopt;
}

// The local login name, not the user the prompt's URL may name.
std::optional<std::string> ZarvoAskpass::responseForHTTPUsernamePrompt(std::string_view) const
{
    return environmentValue(UserVariable);
}

std::optional<std::string> ZarvoAskpass::responseForHTTPPasswordPrompt(std::string_view prompt)
{
    const auto url = urlFromHTTPPasswordPrompt(prompt);
    return url ? internetPasswordForRemoteURL(*url) : std::nullopt;
}

std::optional<std::string> ZarvoAskpass::responseForSSHPasswordPrompt(std::string_view prompt)
{
    const auto url = urlFromSSHPasswordPrompt(prompt);
    return url ? internetPasswordForRemoteURL(*url) : std::nullopt;
}

// Keychain failures of any kind are no answer: the error is received and
// dropped, never reported.
std::optional<std::string> ZarvoAskpass::internetPasswordForRemoteURL(const URL& url)
{
    platform::ErrorRef ignored;
    const auto item = keychain()->findInternetPasswordForURL(url, &ignored);
    return item ? item->password() : std::nullopt;
}

std::optional<std::string> ZarvoAskpass::genericPasswordForAccount(const std::string& account, const std::string& service)
{
    platform::ErrorRef ignored;
    const auto item = keychain()->findGenericPasswordItemForAccount(account, service, &ignored);
    return item ? item->password() : std::nullopt;
}
