#include "QMFoundation/REST/NSString+QMCamelize.h"

#include "Platform/Foundation/Unicode.h"

#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <array>

namespace {

// The upper case of one code point, in UTF-8, without regard to the locale.
std::string upperCaseOf(char32_t codePoint)
{
    std::array<UChar, 2> source{};
    std::int32_t sourceLength = 0;
    U16_APPEND_UNSAFE(source.data(), sourceLength, static_cast<UChar32>(codePoint));
    // No character's upper case is longer than three characters.
    std::array<UChar, 8> upper{};
    UErrorCode status = U_ZERO_ERROR;
    const std::int32_t upperLength =
        u_strToUpper(upper.data(), static_cast<std::int32_t>(upper.size()), source.data(), sourceLength, "", &status);
    std::array<char, 32> utf8{};
    std::int32_t utf8Length = 0;
    if (U_SUCCESS(status)) {
        u_strToUTF8(utf8.data(), static_cast<std::int32_t>(utf8.size()), &utf8Length, upper.data(), upperLength,
                    &status);
    }
    return U_SUCCESS(status) ? std::string(utf8.data(), static_cast<std::size_t>(utf8Length)) : std::string();
}

}  // namespace

std::string camelizedString(std::string_view text)
{
    if (text.empty()) {
        return std::string(text);
    }
    const auto first = platform::decodeUTF8Character(text, 0);
    if (!first.valid) {
        return std::string(text);
    }
    const std::string upper = upperCaseOf(first.codePoint);
    if (upper.empty()) {
        return std::string(text);
    }
    return upper + std::string(text.substr(first.length));
}
