#include "Platform/Foundation/Unicode.h"

#include <cstdint>

namespace platform {
namespace {

// Length in bytes of the UTF-8 sequence starting at `index`, or 0 when the
// bytes there are not a valid (shortest-form, non-surrogate) sequence.
std::size_t sequenceLength(std::string_view text, std::size_t index)
{
    const auto byte = [&](std::size_t offset) { return static_cast<std::uint8_t>(text[index + offset]); };
    const auto continuation = [&](std::size_t offset) {
        return index + offset < text.size() && (byte(offset) & 0xC0) == 0x80;
    };
    const auto lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return continuation(1) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        if (!continuation(1) || !continuation(2)) {
            return 0;
        }
        const auto second = byte(1);
        if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F)) {
            return 0;
        }
        return 3;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        if (!continuation(1) || !continuation(2) || !continuation(3)) {
            return 0;
        }
        const auto second = byte(1);
        if ((lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F)) {
            return 0;
        }
        return 4;
    }
    return 0;
}

}  // namespace

bool isValidUTF8(std::string_view text)
{
    for (std::size_t index = 0; index < text.size();) {
        const auto length = sequenceLength(text, index);
        if (length == 0) {
            return false;
        }
        index += length;
    }
    return true;
}

std::size_t utf16Length(std::string_view text)
{
    std::size_t units = 0;
    for (std::size_t index = 0; index < text.size();) {
        const auto length = sequenceLength(text, index);
        units += length == 4 ? 2 : 1;
        index += length == 0 ? 1 : length;
    }
    return units;
}

std::string_view utf16Prefix(std::string_view text, std::size_t units)
{
    std::size_t index = 0;
    std::size_t taken = 0;
    while (index < text.size()) {
        const auto length = sequenceLength(text, index);
        const std::size_t cost = length == 4 ? 2 : 1;
        if (taken + cost > units) {
            break;
        }
        taken += cost;
        index += length == 0 ? 1 : length;
    }
    return text.substr(0, index);
}

UTF8Character decodeUTF8Character(std::string_view text, std::size_t index)
{
    const auto length = sequenceLength(text, index);
    const auto lead = static_cast<std::uint8_t>(text[index]);
    if (length == 0) {
        return {lead, 1, false};
    }
    static constexpr std::uint8_t leadMask[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    char32_t codePoint = lead & leadMask[length];
    for (std::size_t offset = 1; offset < length; ++offset) {
        codePoint = (codePoint << 6) | (static_cast<std::uint8_t>(text[index + offset]) & 0x3F);
    }
    return {codePoint, length, true};
}

}  // namespace platform
