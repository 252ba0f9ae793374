#include "GitCredentialZarvo/CredentialRequest.h"

#include "Platform/Foundation/Unicode.h"
#include "Platform/Security/Wipe.h"

CredentialRequest::~CredentialRequest()
{
    for (auto& [key, value] : attributes) {
        platform::security::wipe(value);
    }
}

std::optional<std::string_view> CredentialRequest::value(std::string_view key) const
{
    const auto found = attributes.find(key);
    return found == attributes.end() ? std::nullopt : std::optional<std::string_view>(found->second);
}

std::optional<CredentialRequest> readCredentialRequest(std::string_view input, std::string* problem)
{
    if (input.size() > kMaximumRequestLength) {
        *problem = "the request is longer than " + std::to_string(kMaximumRequestLength) + " bytes";
        return std::nullopt;
    }
    CredentialRequest request;
    std::size_t number = 0;
    while (!input.empty()) {
        ++number;
        const auto end = input.find('\n');
        std::string_view line = input.substr(0, end);
        input = end == std::string_view::npos ? std::string_view() : input.substr(end + 1);
        // git's own reader takes CR LF for a line end too, so no value it
        // hands on ends in CR.
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        if (line.empty()) {
            break;
        }
        const std::string where = "line " + std::to_string(number);
        if (line.size() > kMaximumLineLength) {
            *problem = where + " is longer than " + std::to_string(kMaximumLineLength) + " bytes";
            return std::nullopt;
        }
        if (line.find('\0') != std::string_view::npos) {
            *problem = where + " holds a NUL byte";
            return std::nullopt;
        }
        if (!platform::isValidUTF8(line)) {
            *problem = where + " is not valid UTF-8";
            return std::nullopt;
        }
        const auto separator = line.find('=');
        if (separator == std::string_view::npos) {
            *problem = where + " has no '=' (expected key=value)";
            return std::nullopt;
        }
        // Written in place: a temporary would leave a copy of a password
        // behind, and so would the value a repeated key replaces.
        auto& value = request.attributes[std::string(line.substr(0, separator))];
        platform::security::wipe(value);
        value.append(line.substr(separator + 1));
    }
    return request;
}
