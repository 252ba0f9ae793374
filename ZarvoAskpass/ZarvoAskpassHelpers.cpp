#include "ZarvoAskpass/ZarvoAskpassHelpers.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/RegularExpression.h"
#include "QMFoundation/Strings/NSString+QMRegularExpression.h"

#include <string>

using platform::RegularExpression;
using platform::RegularExpressionRef;
using platform::URL;

namespace {

constexpr const char* kAssertionSourceFile = "ZarvoAskpass/ZarvoAskpassHelpers";

constexpr std::string_view kHostAuthenticitySubstring = "(yes/no)";
constexpr std::string_view kUsernameSubstring = "username";
constexpr std::string_view kPasswordSubstring = "password";

constexpr std::string_view kSSHScheme = "ssh://";

RegularExpressionRef compilePattern(std::string_view pattern)
{
    platform::ErrorRef error;
    auto expression = RegularExpression::create(pattern, RegularExpression::CaseInsensitive, &error);
    PLATFORM_ASSERT(expression != nullptr, "Couldn't create regular expression with pattern '" + std::string(pattern)
                                               + "': " + (error ? error->description() : "(null)"));
    return expression;
}

// Function-local statics: compiled once, on first use, under the language's
// once-only initialisation.
const RegularExpressionRef& httpUsernamePattern()
{
    static const RegularExpressionRef pattern = compilePattern("Username for '(.+)':");
    return pattern;
}

const RegularExpressionRef& httpPasswordPattern()
{
    static const RegularExpressionRef pattern = compilePattern("Password for '(.+)':");
    return pattern;
}

const RegularExpressionRef& sshPasswordPattern()
{
    static const RegularExpressionRef pattern = compilePattern("^(.+)'s password:");
    return pattern;
}

// A caseless search for one of the fixed texts above, compiled once.
template <const std::string_view& Text>
bool containsCaselessly(std::string_view prompt)
{
    static const RegularExpressionRef literal = RegularExpression::literal(Text, RegularExpression::CaseInsensitive);
    return literal && literal->firstMatch(prompt).has_value();
}

// The text of the one capture group, when the pattern matches.
std::optional<std::string> capturedText(std::string_view prompt, const RegularExpressionRef& pattern)
{
    const auto components = componentsMatchedByRegularExpression(prompt, pattern);
    if (!components || components->size() != 2 || !(*components)[1].isString()) {
        return std::nullopt;
    }
    return *(*components)[1].string();
}

std::optional<URL> urlCapturedBy(std::string_view prompt, const RegularExpressionRef& pattern)
{
    const auto captured = capturedText(prompt, pattern);
    return captured ? URL::fromString(*captured) : std::nullopt;
}

}  // namespace

std::shared_ptr<ZarvoAskpassHelpers> ZarvoAskpassHelpers::sharedInstance()
{
    static const auto instance = platform::makeObject<ZarvoAskpassHelpers>();
    return instance;
}

bool ZarvoAskpassHelpers::isHostAuthenticityPrompt(std::string_view prompt)
{
    return containsCaselessly<kHostAuthenticitySubstring>(prompt);
}

bool ZarvoAskpassHelpers::isUsernamePrompt(std::string_view prompt)
{
    return containsCaselessly<kUsernameSubstring>(prompt);
}

bool ZarvoAskpassHelpers::isPasswordPrompt(std::string_view prompt)
{
    return containsCaselessly<kPasswordSubstring>(prompt);
}

std::optional<URL> ZarvoAskpassHelpers::urlFromHTTPUsernamePrompt(std::string_view prompt)
{
    return urlCapturedBy(prompt, httpUsernamePattern());
}

std::optional<URL> ZarvoAskpassHelpers::urlFromHTTPPasswordPrompt(std::string_view prompt)
{
    return urlCapturedBy(prompt, httpPasswordPattern());
}

std::optional<URL> ZarvoAskpassHelpers::urlFromSSHPasswordPrompt(std::string_view prompt)
{
    auto captured = capturedText(prompt, sshPasswordPattern());
    if (!captured) {
        return std::nullopt;
    }
    if (!captured->starts_with(kSSHScheme)) {
        captured->insert(0, kSSHScheme);
    }
    return URL::fromString(*captured);
}
