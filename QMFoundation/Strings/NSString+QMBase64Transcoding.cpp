#include "QMFoundation/Strings/NSString+QMBase64Transcoding.h"

#include "QMFoundation/Strings/NSData+QMBase64Transcoding.h"

namespace {

constexpr std::size_t kLineLength = 72;

}  // namespace

std::string stringWithDataUsingBase64Encoding(const platform::Data& data)
{
    // Lines hold a whole number of 4-character groups (72 = 18 x 4), so a
    // break can only ever fall between groups.
    const std::size_t unwrapped = (data.size() + 2) / 3 * 4;
    std::string text;
    text.reserve(unwrapped % kLineLength + unwrapped / kLineLength * (kLineLength + 2));

    std::size_t lineLength = 0;
    const auto appendGroup = [&](std::uint32_t bits, std::size_t characters) {
        for (std::size_t index = 0; index < 4; ++index) {
            text += index < characters ? QMBase64Alphabet[(bits >> (18 - 6 * index)) & 0x3F] : '=';
        }
        lineLength += 4;
        if (lineLength == kLineLength) {
            text += "\r\n";
            lineLength = 0;
        }
    };

    std::size_t index = 0;
    for (; index + 3 <= data.size(); index += 3) {
        appendGroup(std::uint32_t{data[index]} << 16 | std::uint32_t{data[index + 1]} << 8 | data[index + 2], 4);
    }
    if (const auto remaining = data.size() - index; remaining == 1) {
        appendGroup(std::uint32_t{data[index]} << 16, 2);
    } else if (remaining == 2) {
        appendGroup(std::uint32_t{data[index]} << 16 | std::uint32_t{data[index + 1]} << 8, 3);
    }
    return text;
}

platform::Data dataUsingBase64Encoding(std::string_view string)
{
    return dataWithBase64EncodedString(string);
}
