#include "QMFoundation/Strings/NSData+QMBinaryDetection.h"
#include "QMFoundation/Strings/NSData+QMSeparator.h"
#include "QMFoundation/Strings/NSData+QMStringDecoding.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <iconv.h>

using platform::Data;

namespace {

TEST(StringDecoding, UTF8IsStrict)
{
    EXPECT_EQ(stringUsingUTF8Encoding({}), "");
    EXPECT_EQ(stringUsingUTF8Encoding({'o', 'k', 0xC3, 0xA9, 0x00}), std::string("ok\xC3\xA9\0", 5));
    for (const Data& invalid : {Data{0xFF}, Data{0xC3}, Data{0xC0, 0x80}, Data{0xED, 0xA0, 0x80}}) {
        EXPECT_FALSE(stringUsingUTF8Encoding(invalid));
    }
}

TEST(StringDecoding, BestEncodingPrefersUTF8AndFallsBackToMacOSRoman)
{
    EXPECT_EQ(stringUsingBestEncoding({0xC3, 0xA9}), "\xC3\xA9");  // é as UTF-8 stays é
    // Not UTF-8: 0x8E is é, 0xDB the euro sign, 0xF0 the Apple logo, 0xA5 a
    // bullet, 0xC6 the increment sign.
    EXPECT_EQ(stringUsingBestEncoding({'c', 'a', 'f', 0x8E, ' ', 0xDB, 0xF0, 0xA5, 0xC6}),
              "caf\xC3\xA9 \xE2\x82\xAC\xEF\xA3\xBF\xE2\x80\xA2\xE2\x88\x86");
}

// The system's converter knows the same mapping, except for two bytes: it puts
// the Apple logo (0xF0), which has no standard code point, elsewhere in the
// private use area, and reads 0xC6 as the Greek capital delta rather than the
// increment sign.
TEST(StringDecoding, MacOSRomanHighHalfMatchesTheSystemConverter)
{
    const iconv_t converter = iconv_open("UTF-8", "MACINTOSH");
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        GTEST_SKIP() << "the C library has no MACINTOSH converter";
    }
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        if (byte == 0xF0 || byte == 0xC6) {
            continue;
        }
        char input[] = {static_cast<char>(byte), static_cast<char>(0xFF)};  // 0xFF alone is not UTF-8
        char output[16];
        char* in = input;
        char* out = output;
        std::size_t inLeft = sizeof input;
        std::size_t outLeft = sizeof output;
        ASSERT_NE(iconv(converter, &in, &inLeft, &out, &outLeft), static_cast<std::size_t>(-1)) << byte;
        const auto decoded = stringUsingBestEncoding({static_cast<std::uint8_t>(byte), 0xFF});
        ASSERT_TRUE(decoded);
        EXPECT_EQ(*decoded, std::string(output, out)) << std::hex << byte;
    }
    iconv_close(converter);
}

TEST(BinaryDetection, NeedsThreeZerosInARowWithinTheFirst2048Bytes)
{
    const auto withZerosAt = [](std::size_t length, std::size_t start, std::size_t count) {
        Data data(length, 'x');
        for (std::size_t index = start; index < start + count; ++index) {
            data[index] = 0;
        }
        return data;
    };
    EXPECT_FALSE(isBinaryData({}));
    EXPECT_FALSE(isBinaryData({0, 0}));
    EXPECT_TRUE(isBinaryData({0, 0, 0}));
    EXPECT_FALSE(isBinaryData({0, 0, 'a', 0, 0, 'b', 0, 0}));
    EXPECT_TRUE(isBinaryData(withZerosAt(4096, 2045, 3)));   // ends on byte 2047, the last inspected
    EXPECT_FALSE(isBinaryData(withZerosAt(4096, 2046, 3)));  // its third zero is byte 2048
    EXPECT_FALSE(isBinaryData(withZerosAt(4096, 3000, 50)));
    EXPECT_TRUE(isBinaryData(withZerosAt(2048, 2045, 3)));
}

TEST(Separator, SkipsEmptyChunks)
{
    struct Case {
        Data data;
        std::vector<Data> expected;
    };
    const Case cases[] = {
        {{}, {}},
        {{0}, {}},
        {{0, 0, 0}, {}},
        {{65}, {{65}}},
        {{0, 65, 0, 0, 66}, {{65}, {66}}},
        {{65, 66, 0, 67, 0}, {{65, 66}, {67}}},
    };
    for (const auto& [data, expected] : cases) {
        SCOPED_TRACE(testing::PrintToString(data));
        EXPECT_EQ(componentsSeparatedByNULByte(data), expected);
    }
    EXPECT_EQ(componentsSeparatedByChar({'a', '\n', 0, '\n', '\n', 'b'}, '\n'), (std::vector<Data>{{'a'}, {0}, {'b'}}));
}

}  // namespace
