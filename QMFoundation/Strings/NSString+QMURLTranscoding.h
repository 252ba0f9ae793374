// NSString(QMURLTranscoding): percent-encoding of text for use inside URLs.
//
// Characters illegal in a URL are those outside RFC 3986's unreserved and
// reserved sets: controls, space, DEL, '"', '%', '<', '>', '\', '^', '`', '{',
// '|', '}' and every non-ASCII character. Escapes are of the UTF-8 bytes, with
// upper-case hexadecimal digits ("%C3%A9").
#pragma once

#include <optional>
#include <string>
#include <string_view>

// Escapes every character illegal in a URL and every character of
// `legalCharactersToEscape`, except the characters of `charactersToLeave`,
// which are always copied as they are. (The selector's spelling is kept.)
std::string stringByURLEncodingStringLeavingCharactersInStringUntoched(std::string_view string,
                                                                      std::string_view charactersToLeave,
                                                                      std::string_view legalCharactersToEscape);

// Escapes the illegal characters and "~:/?#[]@!$&'()*+,;=", leaving only
// letters, digits, "-", "." and "_": safe for a query value or a user name.
std::string stringByURLEncodingIllegalAndCriticalLegalURLCharactersInString(std::string_view string);
std::string stringByURLEncodingString(std::string_view string);

// Replaces percent escapes read as UTF-8; nothing when an escape is malformed
// or the bytes are not UTF-8. "+" stays "+".
std::optional<std::string> stringByURLDecodingString(std::string_view string);
