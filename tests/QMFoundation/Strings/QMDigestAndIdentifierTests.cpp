#include "QMFoundation/Strings/NSData+QMMD5.h"
#include "QMFoundation/Strings/NSString+QMMD5.h"
#include "QMFoundation/Strings/NSString+QMSHA1.h"
#include "QMFoundation/Strings/NSString+QMUniqueIdentifier.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

namespace {

TEST(Digests, MatchKnownVectors)
{
    struct Case {
        std::string_view input;
        const char* md5;
        const char* sha1;
        const char* sha256;
    };
    const Case cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e", "da39a3ee5e6b4b0d3255bfef95601890afd80709",
         "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72", "a9993e364706816aba3e25717850c26c9cd0d89d",
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"The quick brown fox jumps over the lazy dog", "9e107d9d372bb6826bd81d3542a419d6",
         "2fd4e1c67a2d28fced849ee1bb76e7391b93eb12", "d7a8fbb307d7809469ca9abcb0082e4f8d5651e46d3cdb762d02d0bf37c9e592"},
    };
    for (const auto& [input, md5Digest, sha1Digest, sha256Digest] : cases) {
        EXPECT_EQ(MD5String(input), md5Digest) << input;
        EXPECT_EQ(md5(input), md5Digest) << input;
        EXPECT_EQ(MD5String(platform::Data(input.begin(), input.end())), md5Digest) << input;
        EXPECT_EQ(SHA1String(input), sha1Digest) << input;
        EXPECT_EQ(SHA256String(input), sha256Digest) << input;
    }
}

TEST(Digests, CoverEveryByteIncludingZeros)
{
    const std::string_view withZero("a\0b", 3);
    EXPECT_NE(MD5String(withZero), MD5String("a"));
    EXPECT_EQ(MD5String(withZero), MD5String(platform::Data{'a', 0, 'b'}));
}

TEST(UniqueIdentifier, IsAFreshUpperCaseVersion4UUID)
{
    const std::regex canonical("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> seen;
    for (int index = 0; index < 100; ++index) {
        const auto identifier = index % 2 == 0 ? uniqueIdentifier() : stringWithUUID();
        EXPECT_TRUE(std::regex_match(identifier, canonical)) << identifier;
        seen.insert(identifier);
    }
    EXPECT_EQ(seen.size(), 100u);
}

}  // namespace
