// URL: an RFC 3986 URL reference, parsed once and kept with the text it came
// from.
//
// `fromString` is strict as the platform's URL-from-string parser is: text
// with spaces, characters that may not appear in a URL, bad percent escapes or
// a non-numeric port is not a URL and gives nothing. The absolute string is
// always the text exactly as given; the components are read from it.
//
//   auto url = URL::fromString("https://jo@example.com:8443/team/repo.git");
//   url->user();  // "jo"
//   url->port();  // 8443
//   url->path();  // "/team/repo.git"
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class URL {
public:
    static std::optional<URL> fromString(std::string_view text);
    // A file URL for an absolute or relative file-system path.
    static URL fileURLWithPath(std::string_view path, bool isDirectory = false);

    const std::string& absoluteString() const { return text_; }

    const std::optional<std::string>& scheme() const { return scheme_; }
    // User and password are percent-decoded; `user` is the text before the
    // first ":" of the user information.
    const std::optional<std::string>& user() const { return user_; }
    const std::optional<std::string>& password() const { return password_; }
    const std::optional<std::string>& host() const { return host_; }
    // Whether the URL names a host that is not empty.
    bool hasHost() const { return host_ && !host_->empty(); }
    // Absent when the URL names no port (an empty port counts as none).
    std::optional<int> port() const { return port_; }
    // The percent-decoded path; a trailing slash is dropped unless the path is
    // the root alone.
    std::string path() const;
    const std::optional<std::string>& query() const { return query_; }
    const std::optional<std::string>& fragment() const { return fragment_; }

    bool isFileURL() const { return scheme_ == "file"; }
    // "/", then each decoded segment; empty for a URL without a path.
    std::vector<std::string> pathComponents() const;
    std::string lastPathComponent() const;
    URL URLByAppendingPathComponent(std::string_view component) const;

    friend bool operator==(const URL& left, const URL& right) { return left.text_ == right.text_; }

private:
    URL() = default;

    std::string text_;
    std::optional<std::string> scheme_;
    std::optional<std::string> user_;
    std::optional<std::string> password_;
    std::optional<std::string> host_;
    std::optional<int> port_;
    std::string encodedPath_;
    std::optional<std::string> query_;
    std::optional<std::string> fragment_;
};

// "%2F" for '/': the escape of one byte, with upper-case hexadecimal digits.
std::string percentEscape(unsigned char byte);

// Percent-decodes `text`; nothing when an escape is malformed or the result is
// not valid UTF-8.
std::optional<std::string> percentDecode(std::string_view text);

}  // namespace platform
