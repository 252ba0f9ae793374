#include "Platform/Security/Wipe.h"

#include <gtest/gtest.h>

#include <string>

using platform::security::appendToSecret;
using platform::security::wipe;

// Growing from the inline buffer through several reallocations keeps every
// byte, in order, however the pieces fall across the moves.
TEST(AppendToSecret, KeepsTheTextAcrossEveryReallocation)
{
    std::string secret;
    std::string expected;
    for (int piece = 0; piece < 200; ++piece) {
        const std::string more(static_cast<std::size_t>(piece % 7), static_cast<char>('a' + piece % 26));
        appendToSecret(secret, more);
        expected += more;
        ASSERT_EQ(secret, expected) << "after piece " << piece;
    }
    const auto capacity = secret.capacity();
    appendToSecret(secret, "");
    EXPECT_EQ(secret.capacity(), capacity);
}

TEST(Wipe, EmptiesButKeepsTheBufferForReuse)
{
    std::string text(100, 'x');
    const auto* buffer = text.data();
    wipe(text);
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(text.data(), buffer);
    EXPECT_EQ(std::string(buffer, 100), std::string(100, '\0'));

    platform::Data data(64, 0x5a);
    const auto* bytes = data.data();
    wipe(data);
    EXPECT_TRUE(data.empty());
    EXPECT_EQ(data.data(), bytes);
    EXPECT_EQ(platform::Data(bytes, bytes + 64), platform::Data(64, 0));
}
