// ZarvoAskpassHelpers: recognises the prompts that git and OpenSSH pass to an
// askpass program and pulls the remote URL out of them.
//
// Stateless apart from the compiled patterns, each built once per process on
// first use and shared by every thread after that.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"

#include <memory>
#include <optional>
#include <string_view>

class ZarvoAskpassHelpers final : public platform::Object {
public:
    static std::shared_ptr<ZarvoAskpassHelpers> sharedInstance();

    // Substring tests, in any letter case, anywhere in the prompt.
    static bool isHostAuthenticityPrompt(std::string_view prompt);  // "(yes/no)"
    static bool isUsernamePrompt(std::string_view prompt);          // "username"
    static bool isPasswordPrompt(std::string_view prompt);          // "password"

    // "Username for '<url>':" and "Password for '<url>':", unanchored; the
    // capture is greedy, from the first "for '" to the last "':".
    static std::optional<platform::URL> urlFromHTTPUsernamePrompt(std::string_view prompt);
    static std::optional<platform::URL> urlFromHTTPPasswordPrompt(std::string_view prompt);
    // "<user>@<host>'s password:" at the very start of the prompt, as
    // "ssh://<user>@<host>".
    static std::optional<platform::URL> urlFromSSHPasswordPrompt(std::string_view prompt);

    static bool isHTTPUsernamePrompt(std::string_view prompt) { return urlFromHTTPUsernamePrompt(prompt).has_value(); }
    static bool isHTTPPasswordPrompt(std::string_view prompt) { return urlFromHTTPPasswordPrompt(prompt).has_value(); }
    static bool isSSHPasswordPrompt(std::string_view prompt) { return urlFromSSHPasswordPrompt(prompt).has_value(); }

    std::string className() const override { return "ZarvoAskpassHelpers"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    ZarvoAskpassHelpers() = default;
};
