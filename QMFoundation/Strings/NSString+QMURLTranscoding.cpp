#include "QMFoundation/Strings/NSString+QMURLTranscoding.h"

#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Unicode.h"

namespace {

constexpr std::string_view kCriticalLegalCharacters = "~:/?#[]@!$&'()*+,;=";

bool isLegalURLCharacter(unsigned char byte)
{
    constexpr std::string_view punctuation = "-._~:/?#[]@!$&'()*+,;=";
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9')
        || punctuation.find(static_cast<char>(byte)) != std::string_view::npos;
}

// The whole UTF-8 character that starts at `index`, or its one byte when the
// bytes there are not valid UTF-8. Characters, not bytes, are what the two
// character sets name.
std::string_view characterAt(std::string_view string, std::size_t index)
{
    return string.substr(index, platform::decodeUTF8Character(string, index).length);
}

bool setContains(std::string_view set, std::string_view character)
{
    // A valid UTF-8 sequence can only match a whole character of valid UTF-8
    // text, so a plain substring search finds set members.
    return !set.empty() && set.find(character) != std::string_view::npos;
}

}  // namespace

std::string stringByURLEncodingStringLeavingCharactersInStringUntoched(std::string_view string,
                                                                      std::string_view charactersToLeave,
                                                                      std::string_view legalCharactersToEscape)
{
    std::string encoded;
    encoded.reserve(string.size());
    for (std::size_t index = 0; index < string.size();) {
        const auto character = characterAt(string, index);
        index += character.size();
        const bool escape = !setContains(charactersToLeave, character)
            && (setContains(legalCharactersToEscape, character)
                || character.size() > 1 || !isLegalURLCharacter(static_cast<unsigned char>(character[0])));
        if (!escape) {
            encoded += character;
            continue;
        }
        for (const char byte : character) {
            encoded += platform::percentEscape(static_cast<unsigned char>(byte));
        }
    }
    return encoded;
}

std::string stringByURLEncodingIllegalAndCriticalLegalURLCharactersInString(std::string_view string)
{
    return stringByURLEncodingStringLeavingCharactersInStringUntoched(string, {}, kCriticalLegalCharacters);
}

std::string stringByURLEncodingString(std::string_view string)
{
    return stringByURLEncodingIllegalAndCriticalLegalURLCharactersInString(string);
}

std::optional<std::string> stringByURLDecodingString(std::string_view string)
{
    return platform::percentDecode(string);
}
