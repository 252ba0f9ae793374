#include "QMFoundation/Strings/NSData+QMBase64Transcoding.h"

#include "QMFoundation/Strings/NSString+QMBase64Transcoding.h"

#include <array>

namespace {

constexpr std::int8_t kSkip = -1;  // whitespace and characters outside the alphabet
constexpr std::int8_t kEnd = -2;   // "="

// Indexed by ASCII code: a character's 6-bit value, or kSkip, or kEnd.
constexpr std::array<std::int8_t, 128> kDecodingTable = [] {
    std::array<std::int8_t, 128> table{};
    table.fill(kSkip);
    for (std::size_t value = 0; value < QMBase64Alphabet.size(); ++value) {
        table[static_cast<unsigned char>(QMBase64Alphabet[value])] = static_cast<std::int8_t>(value);
    }
    table['='] = kEnd;
    return table;
}();

}  // namespace

platform::Data dataWithBase64EncodedString(std::string_view string)
{
    // Text that does not convert to ASCII is decoded as no input at all.
    for (const char character : string) {
        if (static_cast<unsigned char>(character) >= 0x80) {
            return {};
        }
    }

    platform::Data data;
    data.reserve((string.size() + 3) / 4 * 3);
    std::uint8_t previous = 0;
    std::size_t position = 0;  // of the character within its group of four
    for (const char character : string) {
        const auto value = kDecodingTable[static_cast<unsigned char>(character)];
        if (value == kEnd) {
            break;
        }
        if (value == kSkip) {
            continue;
        }
        const auto bits = static_cast<std::uint8_t>(value);
        switch (position) {
        case 1:
            data.push_back(static_cast<std::uint8_t>(previous << 2 | bits >> 4));
            break;
        case 2:
            data.push_back(static_cast<std::uint8_t>((previous & 0x0F) << 4 | bits >> 2));
            break;
        case 3:
            data.push_back(static_cast<std::uint8_t>((previous & 0x03) << 6 | bits));
            break;
        default:
            break;
        }
        previous = bits;
        position = (position + 1) % 4;
    }
    return data;
}

std::string stringUsingBase64Encoding(const platform::Data& data)
{
    return stringWithDataUsingBase64Encoding(data);
}

std::string encodeBase64(const platform::Data& data)
{
    return stringWithDataUsingBase64Encoding(data);
}
