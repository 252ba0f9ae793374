#include "Platform/Foundation/URL.h"

#include "Platform/Foundation/RegularExpression.h"
#include "Platform/Foundation/URIReferenceGrammar.h"
#include "Platform/Foundation/Unicode.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <unistd.h>

namespace platform {
namespace {

// The components' groups in the grammar, in its order.
enum URIGroup : std::size_t { kScheme = 1, kUserInformation, kHost, kPort, kQuery, kFragment };

// Decoded from the code the build made of it on first use, then shared by
// every thread: a program that parses one URL (the credential helper, the
// responder) would otherwise spend more time compiling the grammar than on
// anything else it does. It turns itself into machine code only in a process
// that parses many URLs (a client parses one per load).
const RegularExpression& uriReferenceGrammar()
{
    static const auto grammar = RegularExpression::createFromCode(
        internal::kURIReferenceGrammar, internal::kURIReferenceGrammarOptions,
        {internal::kURIReferenceGrammarCode, internal::kURIReferenceGrammarCodeSize});
    return *grammar;
}

// The rules the platform adds to the RFC's grammar are a non-empty text and a
// port that fits in sixteen bits.
bool validPort(const std::optional<std::string>& portText, std::optional<int>& port)
{
    if (!portText || portText->empty()) {
        return true;
    }
    int value = 0;
    const auto* end = portText->data() + portText->size();
    const auto [stop, failure] = std::from_chars(portText->data(), end, value);
    if (failure != std::errc() || stop != end || value > 65535) {
        return false;
    }
    port = value;
    return true;
}

// The encoded path: what follows the scheme and authority, up to the query or
// fragment. The text is already known to be a valid URL reference, so the
// delimiters cannot appear anywhere else.
std::string encodedPathOf(std::string_view text, const std::optional<std::string>& scheme)
{
    std::size_t start = scheme ? scheme->size() + 1 : 0;
    if (text.substr(start, 2) == "//") {
        start = std::min(text.find_first_of("/?#", start + 2), text.size());
    }
    const auto end = std::min(text.find_first_of("?#", start), text.size());
    return std::string(text.substr(start, end - start));
}

bool isUnreservedPathByte(unsigned char byte)
{
    return std::isalnum(byte) != 0 || std::string_view("-._~!$&'()*+,;=:@/").find(static_cast<char>(byte)) != std::string_view::npos;
}

}  // namespace

std::string percentEscape(unsigned char byte)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    return {'%', digits[byte >> 4], digits[byte & 0xF]};
}

std::optional<std::string> percentDecode(std::string_view text)
{
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (text[index] != '%') {
            decoded += text[index];
            continue;
        }
        unsigned byte = 0;  // unsigned: from_chars then refuses a sign, so "%-0" is no escape
        if (index + 2 >= text.size()) {
            return std::nullopt;
        }
        const auto [stop, failure] = std::from_chars(text.data() + index + 1, text.data() + index + 3, byte, 16);
        if (failure != std::errc() || stop != text.data() + index + 3) {
            return std::nullopt;
        }
        decoded += static_cast<char>(byte);
        index += 2;
    }
    if (!isValidUTF8(decoded)) {
        return std::nullopt;
    }
    return decoded;
}

std::optional<URL> URL::fromString(std::string_view text)
{
    // The grammar is ASCII. Other bytes are turned away here, because the
    // expression would take an invalid UTF-8 sequence for the end of the text.
    const auto isASCII = [](unsigned char byte) { return byte < 0x80; };
    if (text.empty() || !std::all_of(text.begin(), text.end(), isASCII)) {
        return std::nullopt;
    }
    const auto match = uriReferenceGrammar().firstMatch(text);
    if (!match) {
        return std::nullopt;
    }

    URL url;
    url.text_ = std::string(text);
    url.scheme_ = match->substring(text, kScheme);
    url.host_ = match->substring(text, kHost);
    url.query_ = match->substring(text, kQuery);
    url.fragment_ = match->substring(text, kFragment);
    const auto userInformation = match->substring(text, kUserInformation);
    const auto portText = match->substring(text, kPort);

    if (!validPort(portText, url.port_)) {
        return std::nullopt;
    }
    if (userInformation) {
        const auto colon = userInformation->find(':');
        url.user_ = percentDecode(userInformation->substr(0, colon));
        if (colon != std::string::npos) {
            url.password_ = percentDecode(userInformation->substr(colon + 1));
        }
    }
    if (url.host_) {
        url.host_ = percentDecode(*url.host_);
    }
    url.encodedPath_ = encodedPathOf(text, url.scheme_);
    return url;
}

URL URL::fileURLWithPath(std::string_view path, bool isDirectory)
{
    std::string absolute;
    if (path.empty() || path.front() != '/') {
        char* workingDirectory = getcwd(nullptr, 0);
        absolute = workingDirectory != nullptr ? workingDirectory : "";
        free(workingDirectory);
        absolute += '/';
    }
    absolute += path;
    if (isDirectory && absolute.back() != '/') {
        absolute += '/';
    }

    std::string text = "file://";
    for (const unsigned char byte : absolute) {
        if (isUnreservedPathByte(byte)) {
            text += static_cast<char>(byte);
        } else {
            text += percentEscape(byte);
        }
    }
    return *fromString(text);
}

std::string URL::path() const
{
    auto decoded = percentDecode(encodedPath_).value_or("");
    if (decoded.size() > 1 && decoded.back() == '/') {
        decoded.pop_back();
    }
    return decoded;
}

std::vector<std::string> URL::pathComponents() const
{
    std::vector<std::string> components;
    const auto full = path();
    if (full.empty()) {
        return components;
    }
    std::size_t start = 0;
    if (full.front() == '/') {
        components.emplace_back("/");
        start = 1;
    }
    while (start < full.size()) {
        const auto slash = std::min(full.find('/', start), full.size());
        if (slash > start) {
            components.emplace_back(full.substr(start, slash - start));
        }
        start = slash + 1;
    }
    return components;
}

std::string URL::lastPathComponent() const
{
    const auto components = pathComponents();
    return components.empty() ? std::string() : components.back();
}

URL URL::URLByAppendingPathComponent(std::string_view component) const
{
    std::string text = text_.substr(0, text_.size() - (query_ ? query_->size() + 1 : 0) - (fragment_ ? fragment_->size() + 1 : 0));
    if (encodedPath_.empty() || encodedPath_.back() != '/') {
        text += '/';  // also after an empty authority: "ssh://" + "x" would name a host
    }
    for (const unsigned char byte : component) {
        text += isUnreservedPathByte(byte) && byte != '/' ? std::string(1, static_cast<char>(byte)) : percentEscape(byte);
    }
    if (query_) {
        text += '?' + *query_;
    }
    if (fragment_) {
        text += '#' + *fragment_;
    }
    return fromString(text).value_or(*this);
}

}  // namespace platform
