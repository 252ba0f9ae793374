#include "QMFoundation/Strings/NSURL+QMCommon.h"

#include "Platform/Foundation/Unicode.h"
#include "QMFoundation/Strings/NSDictionary+QMURLEncoding.h"
#include "QMFoundation/Strings/NSString+QMURLTranscoding.h"

#include <string_view>

namespace {

std::string replacingOccurrences(std::string text, std::string_view target, std::string_view replacement)
{
    for (auto position = text.find(target); position != std::string::npos;
         position = text.find(target, position + replacement.size())) {
        text.replace(position, target.size(), replacement);
    }
    return text;
}

}  // namespace

std::optional<std::string> rawUser(const platform::URL& url)
{
    const auto& text = url.absoluteString();
    const auto at = text.find('@');
    if (at == std::string::npos) {
        return std::nullopt;
    }
    const auto separator = text.find("://");
    const auto start = separator == std::string::npos ? 0 : separator + 3;
    if (start > at) {
        return std::nullopt;  // "://" after the first "@": there is no user part before it
    }
    return text.substr(start, at - start);
}

std::optional<platform::URL> URLByRemovingUser(const platform::URL& url)
{
    const auto user = rawUser(url);
    if (!user) {
        return url;
    }
    return platform::URL::fromString(replacingOccurrences(url.absoluteString(), *user + "@", ""));
}

std::optional<platform::URL> URLByDeletingPath(const platform::URL& url)
{
    const auto& text = url.absoluteString();
    const auto textLength = platform::utf16Length(text);
    const auto pathLength = platform::utf16Length(url.path());
    if (pathLength > textLength) {
        return std::nullopt;
    }
    return platform::URL::fromString(platform::utf16Prefix(text, textLength - pathLength));
}

std::optional<platform::URL> URLBySettingUser(const platform::URL& url, std::optional<std::string_view> user)
{
    if (!user || user->empty()) {
        return URLByRemovingUser(url);
    }
    const auto encodedUser = stringByURLEncodingIllegalAndCriticalLegalURLCharactersInString(*user) + "@";
    const auto& text = url.absoluteString();
    std::string edited;
    if (const auto existing = rawUser(url)) {
        edited = replacingOccurrences(text, *existing + "@", encodedUser);
    } else if (text.find("://") != std::string::npos) {
        edited = replacingOccurrences(text, "://", "://" + encodedUser);
    } else {
        edited = encodedUser + text;
    }
    return platform::URL::fromString(edited);
}

std::optional<platform::URL> URLByAppendingQueryParams(const platform::URL& url,
                                                       const std::optional<platform::Dictionary>& params)
{
    if (!params) {
        return url;
    }
    const auto query = URLEncodedQueryString(*params);
    if (query.empty()) {
        return url;
    }
    return platform::URL::fromString(url.absoluteString() + (url.query() ? "&" : "?") + query);
}
