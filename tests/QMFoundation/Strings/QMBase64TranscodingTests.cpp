#include "QMFoundation/Strings/NSData+QMBase64Transcoding.h"
#include "QMFoundation/Strings/NSString+QMBase64Transcoding.h"

#include <gtest/gtest.h>

#include <numeric>

using platform::Data;

namespace {

Data bytes(std::string_view text)
{
    return Data(text.begin(), text.end());
}

Data counting(std::size_t length)
{
    Data data(length);
    std::iota(data.begin(), data.end(), std::uint8_t{0});
    return data;
}

TEST(Base64Encoding, PadsTheFinalGroup)
{
    struct Case {
        Data data;
        const char* expected;
    };
    const Case cases[] = {
        {{}, ""},
        {{0x00}, "AA=="},
        {{0x00, 0x00}, "AAA="},
        {{0xFF, 0xFF, 0xFF}, "////"},
        {bytes("foobar"), "Zm9vYmFy"},
        {bytes("fooba"), "Zm9vYmE="},
        {{0xFB, 0xEF}, "++8="},
    };
    for (const auto& [data, expected] : cases) {
        EXPECT_EQ(stringWithDataUsingBase64Encoding(data), expected) << expected;
    }
}

TEST(Base64Encoding, BreaksLinesAfterExactly72Characters)
{
    const auto full = stringWithDataUsingBase64Encoding(counting(54));
    ASSERT_EQ(full.size(), 74u);
    EXPECT_EQ(full.substr(72), "\r\n");
    EXPECT_EQ(full.find('\r'), 72u);

    const auto longer = stringWithDataUsingBase64Encoding(counting(57));
    ASSERT_EQ(longer.size(), 78u);
    EXPECT_EQ(longer.substr(72, 2), "\r\n");
    EXPECT_EQ(longer.substr(74), "Njc4");  // bytes 54, 55, 56

    // 200 bytes: 268 characters, so three full lines and 52 characters.
    const auto many = stringWithDataUsingBase64Encoding(counting(200));
    EXPECT_EQ(many.size(), 268u % 72 + 268u / 72 * 74);
    for (std::size_t line = 1; line <= 3; ++line) {
        EXPECT_EQ(many.substr(line * 74 - 2, 2), "\r\n") << line;
    }
    EXPECT_EQ(many.find_last_of('\n'), 3 * 74 - 1);
}

TEST(Base64Decoding, RoundTripsEveryLengthAcrossLineBreaks)
{
    for (std::size_t length = 0; length <= 160; ++length) {
        const auto data = counting(length);
        EXPECT_EQ(dataWithBase64EncodedString(stringWithDataUsingBase64Encoding(data)), data) << length;
    }
}

TEST(Base64Decoding, PassesOverWhitespaceAndForeignCharacters)
{
    EXPECT_EQ(dataWithBase64EncodedString("Zm9v\r\nYmFy"), bytes("foobar"));
    EXPECT_EQ(dataWithBase64EncodedString(" Z m\t9v YmF y \n"), bytes("foobar"));
    EXPECT_EQ(dataWithBase64EncodedString("Zm-9v.Ym*Fy"), bytes("foobar"));
    EXPECT_EQ(dataWithBase64EncodedString(std::string_view("Zm9v\0YmFy", 9)), bytes("foobar"));
}

TEST(Base64Decoding, StopsAtTheFirstEqualsSign)
{
    EXPECT_EQ(dataWithBase64EncodedString("Zm9v=YmFy"), bytes("foo"));
    EXPECT_EQ(dataWithBase64EncodedString("Zm9vYmE=Zm9v"), bytes("fooba"));
    EXPECT_TRUE(dataWithBase64EncodedString("=Zm9v").empty());
}

TEST(Base64Decoding, TrailingPartialGroupYieldsWhatItCompletes)
{
    EXPECT_EQ(dataWithBase64EncodedString("Zm9vYg"), bytes("foob"));
    EXPECT_EQ(dataWithBase64EncodedString("Zm9vYmE"), bytes("fooba"));
    EXPECT_EQ(dataWithBase64EncodedString("Zm9vY"), bytes("foo"));  // one character completes nothing
}

TEST(Base64Decoding, NonASCIITextGivesEmptyData)
{
    EXPECT_TRUE(dataWithBase64EncodedString("Zm9v\xC3\xA9YmFy").empty());
    EXPECT_TRUE(dataWithBase64EncodedString("\xFF").empty());
}

}  // namespace
