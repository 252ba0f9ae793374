// CredentialRequest: the attributes git hands a credential helper on standard
// input, one "key=value" a line (ended by LF or CR LF), up to an empty line
// or the end of input.
//
// Reading is strict about the shape of the input and lenient about its
// content: a line without "=", with a NUL byte, with bytes that are not UTF-8
// or longer than kMaximumLineLength makes the whole request unreadable (the
// helper then changes nothing), while keys it does not know are kept aside
// and otherwise ignored, so newer versions of git can add attributes.
// Messages name the line, never its value: a value may be a password.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

// A request may carry a password (and newer versions of git a refresh
// token): its values are wiped when it goes, and it moves but never copies.
struct CredentialRequest {
    CredentialRequest() = default;
    CredentialRequest(CredentialRequest&&) = default;
    CredentialRequest& operator=(CredentialRequest&&) = default;
    CredentialRequest(const CredentialRequest&) = delete;
    CredentialRequest& operator=(const CredentialRequest&) = delete;
    ~CredentialRequest();

    // A key given twice keeps its last value, as git itself reads them.
    std::map<std::string, std::string, std::less<>> attributes;

    // A view into the request, valid while it lives; no copy of a secret.
    std::optional<std::string_view> value(std::string_view key) const;
};

inline constexpr std::size_t kMaximumLineLength = 65536;
// More input than this is not a credential; reading stops there.
inline constexpr std::size_t kMaximumRequestLength = 1 << 20;

// The request in `input`, or nothing with `*problem` set to a one-line
// description such as "line 3 has no '='".
std::optional<CredentialRequest> readCredentialRequest(std::string_view input, std::string* problem);

// Whether `text` holds a line break or NUL: git reads a user name or password
// as one line, from the helper and the responder alike, so such a value could
// be stored but never given back.
inline bool holdsLineBreakOrNul(std::string_view text)
{
    return text.find_first_of(std::string_view("\n\r\0", 3)) != std::string_view::npos;
}
