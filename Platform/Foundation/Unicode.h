// Unicode helpers for UTF-8 strings: validity, and counting in UTF-16 code
// units, the unit in which the design measures string lengths.
#pragma once

#include <cstddef>
#include <string_view>

namespace platform {

bool isValidUTF8(std::string_view text);

// The number of UTF-16 code units the text would take. Bytes that are not
// valid UTF-8 count one unit each, as the replacement character would.
std::size_t utf16Length(std::string_view text);

// The longest prefix of `text` that takes at most `units` UTF-16 code units;
// a character is never split.
std::string_view utf16Prefix(std::string_view text, std::size_t units);

// One character of UTF-8 text. A byte that does not begin a valid sequence is
// a character of its own: length 1, `valid` false, the byte's value as code
// point. So walking text by these lengths always advances and never reads
// past its end.
struct UTF8Character {
    char32_t codePoint;
    std::size_t length;
    bool valid;
};
UTF8Character decodeUTF8Character(std::string_view text, std::size_t index);

}  // namespace platform
