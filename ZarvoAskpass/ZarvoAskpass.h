// ZarvoAskpass: answers one askpass prompt.
//
// git and OpenSSH run the program with a prompt as its argument; the answer
// comes from a fixed "yes" for host-key questions, from the environment that
// the launching application set, or from the user's keychain. The decision
// order is fixed (see `responseForPrompt`). The responder never asks, never
// logs, and keeps nothing between runs; it is used from one thread.
//
//   auto answer = ZarvoAskpass::responseForArguments(arguments, environment);
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class QMKeychain;
using QMKeychainRef = std::shared_ptr<QMKeychain>;

class ZarvoAskpass : public platform::Object {
public:
    using Arguments = std::vector<std::string>;
    using Environment = std::map<std::string, std::string, std::less<>>;

    // The environment variables the responder reads.
    static constexpr std::string_view RemoteURLVariable = "ZARVO_ASKPASS_REMOTE_URL";
    static constexpr std::string_view ServiceNameVariable = "ZARVO_ASKPASS_SERVICE_NAME";
    static constexpr std::string_view ServiceAccountVariable = "ZARVO_ASKPASS_SERVICE_ACCOUNT";
    static constexpr std::string_view UserVariable = "USER";

    // The answer for the process's arguments (element 1 is the prompt) and
    // environment, searching the default keychain. Nothing only when no
    // responder could be made; an unanswerable prompt gives "".
    static std::optional<std::string> responseForArguments(const std::optional<Arguments>& arguments,
                                                           const std::optional<Environment>& environment);
    static std::optional<std::string> responseForArguments(const std::optional<Arguments>& arguments,
                                                           const std::optional<Environment>& environment,
                                                           const QMKeychainRef& keychain);

    // Missing arguments or environment are programming errors.
    static std::shared_ptr<ZarvoAskpass> create(const std::optional<Arguments>& arguments,
                                                const std::optional<Environment>& environment,
                                                QMKeychainRef keychain = nullptr);

    const Arguments& arguments() const { return arguments_; }
    void setArguments(Arguments arguments) { arguments_ = std::move(arguments); }
    const Environment& environment() const { return environment_; }
    void setEnvironment(Environment environment) { environment_ = std::move(environment); }
    // The shared default keychain unless one was given.
    const QMKeychainRef& keychain();
    void setKeychain(QMKeychainRef keychain) { keychain_ = std::move(keychain); }

    std::string prompt() const;
    std::string response();
    std::optional<std::string> responseForPrompt(std::string_view prompt);

    bool hasEnvironmentCredentials() const;
    // The remote URL from the environment, without its path.
    std::optional<platform::URL> keychainRemoteURLFromEnvironment() const;
    std::optional<std::string> serviceNameFromEnvironment() const;
    std::optional<std::string> serviceAccountFromEnvironment() const;

    bool isHostAuthenticityPrompt(std::string_view prompt) const;
    bool isHTTPUsernamePrompt(std::string_view prompt) const;
    bool isHTTPPasswordPrompt(std::string_view prompt) const;
    bool isSSHPasswordPrompt(std::string_view prompt) const;
    bool isUsernamePrompt(std::string_view prompt) const;
    bool isPasswordPrompt(std::string_view prompt) const;
    std::optional<platform::URL> urlFromHTTPPasswordPrompt(std::string_view prompt) const;
    std::optional<platform::URL> urlFromSSHPasswordPrompt(std::string_view prompt) const;

    std::optional<std::string> responseForHostAuthenticityPrompt(std::string_view prompt) const;
    std::optional<std::string> responseForUsernamePrompt(std::string_view prompt) const;
    std::optional<std::string> responseForPasswordPrompt(std::string_view prompt);
    std::optional<std::string> responseForHTTPUsernamePrompt(std::string_view prompt) const;
    std::optional<std::string> responseForHTTPPasswordPrompt(std::string_view prompt);
    std::optional<std::string> responseForSSHPasswordPrompt(std::string_view prompt);

    std::optional<std::string> internetPasswordForRemoteURL(const platform::URL& url);
    std::optional<std::string> genericPasswordForAccount(const std::string& account, const std::string& service);

    std::string className() const override { return "ZarvoAskpass"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    ZarvoAskpass(Arguments arguments, Environment environment, QMKeychainRef keychain);

    std::optional<std::string> environmentValue(std::string_view name) const;

    Arguments arguments_;
    Environment environment_;
    QMKeychainRef keychain_;
};
