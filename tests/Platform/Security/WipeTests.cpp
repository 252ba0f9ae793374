#include "Platform/Security/Wipe.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>

using platform::security::appendToSecret;
using platform::security::wipe;
using platform::security::WipedWhenDone;

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

// A secret cut short in place (a line taken off the front, a newline popped)
// keeps its old bytes past its end until the wipe reaches them too.
TEST(Wipe, ReachesWhatAShortenedSecretLeftBehindItsEnd)
{
    std::string text(100, 'x');
    const auto* buffer = text.data();
    text.erase(0, 60);
    wipe(text);
    EXPECT_EQ(std::string(buffer, 100), std::string(100, '\0'));

    platform::Data data(64, 0x5a);
    const auto* bytes = data.data();
    data.resize(8);
    wipe(data);
    EXPECT_EQ(platform::Data(bytes, bytes + 64), platform::Data(64, 0));
}

// The guard wipes in place whichever way its scope is left, an exception
// included, and leaves an absent secret absent.
TEST(WipedWhenDone, WipesTheHeldSecretHoweverTheScopeEnds)
{
    std::optional<std::string> password(std::in_place, 100, 'p');
    const auto* buffer = password->data();
    EXPECT_THROW(
        {
            WipedWhenDone passwordWiped(password);
            throw std::runtime_error("early exit");
        },
        std::runtime_error);
    ASSERT_TRUE(password.has_value());
    EXPECT_TRUE(password->empty());
    EXPECT_EQ(std::string(buffer, 100), std::string(100, '\0'));

    std::optional<std::string> absent;
    { WipedWhenDone absentWiped(absent); }
    EXPECT_FALSE(absent.has_value());

    platform::Data key(32, 0x77);
    const auto* bytes = key.data();
    { WipedWhenDone keyWiped(key); }
    EXPECT_TRUE(key.empty());
    EXPECT_EQ(platform::Data(bytes, bytes + 32), platform::Data(32, 0));
}
