// The responder's decisions, with a keychain of the test's own injected.
#include "ZarvoAskpass/ZarvoAskpass.h"

#include "Platform/Foundation/Exception.h"
#include "QMFoundation/Keychain/QMKeychain.h"
#include "tests/Support/RunProgram.h"

#include <gtest/gtest.h>

using platform::URL;

namespace {

class ZarvoAskpassResponses : public ::testing::Test {
protected:
    void SetUp() override
    {
        platform::ErrorRef error;
        keychain_ = QMKeychain::keychainWithPath(directory_.path() + "/test.keychain-db", std::nullopt, &error);
        ASSERT_TRUE(keychain_) << (error ? error->description() : "");
        store("https://jo@example.com", "http-secret");
        store("https://jo@example.com:8443", "port-secret");
        store("ssh://jo@example.com", "ssh-secret");
        ASSERT_TRUE(keychain_->addGenericPasswordWithAccount("acct", "svc", "generic-secret", &error));
    }

    void store(const char* url, const char* password)
    {
        platform::ErrorRef error;
        ASSERT_TRUE(keychain_->addInternetPasswordWithURL(*URL::fromString(url), password, &error))
            << url << ": " << (error ? error->description() : "");
    }

    std::string answer(const std::string& prompt, ZarvoAskpass::Environment environment = {})
    {
        const auto response = ZarvoAskpass::responseForArguments(ZarvoAskpass::Arguments{"zarvo-askpass", prompt},
                                                                 environment, keychain_);
        EXPECT_TRUE(response);
        return response.value_or("(nothing)");
    }

    testsupport::TemporaryDirectory directory_;
    QMKeychainRef keychain_;
};

TEST_F(ZarvoAskpassResponses, ParsesTheURLGitAndSSHQuote)
{
    EXPECT_EQ(answer("Password for 'https://jo@example.com': "), "http-secret");
    EXPECT_EQ(answer("Password for 'https://jo@example.com:8443': "), "port-secret");
    EXPECT_EQ(answer("jo@example.com's password: "), "ssh-secret");
    // The port is part of the look-up: no default port is filled in.
    EXPECT_EQ(answer("Password for 'https://jo@example.com:443': "), "");
    EXPECT_EQ(answer("Password for 'https://someone@example.com': "), "");
    EXPECT_EQ(answer("Password: "), "");
}

TEST_F(ZarvoAskpassResponses, UsesTheRemoteURLWithoutItsPath)
{
    const ZarvoAskpass::Environment environment{{"ZARVO_ASKPASS_REMOTE_URL", "https://jo@example.com/team/repo.git"}};
    EXPECT_EQ(answer("Enter your PASSWORD", environment), "http-secret");
    EXPECT_EQ(answer("Username for 'https://other.example': ", environment), "jo");
    EXPECT_EQ(answer("Token:", environment), "");
    // A prompt naming both words is a password prompt.
    EXPECT_EQ(answer("username and password", environment), "http-secret");
    // The URL of the prompt is ignored in this mode.
    EXPECT_EQ(answer("Password for 'https://jo@example.com:8443': ", environment), "http-secret");
}

TEST_F(ZarvoAskpassResponses, AnswersServiceAccountsWithTheGenericPassword)
{
    const ZarvoAskpass::Environment environment{{"ZARVO_ASKPASS_SERVICE_NAME", "svc"}, {"ZARVO_ASKPASS_SERVICE_ACCOUNT", "acct"}};
    EXPECT_EQ(answer("Password:", environment), "generic-secret");
    EXPECT_EQ(answer("Username:", environment), "");
    // The remote URL takes precedence over the service variables.
    auto both = environment;
    both.emplace("ZARVO_ASKPASS_REMOTE_URL", "ssh://jo@example.com");
    EXPECT_EQ(answer("Password:", both), "ssh-secret");
}

TEST_F(ZarvoAskpassResponses, AnswersHostKeyQuestionsBeforeAnythingElse)
{
    EXPECT_EQ(answer("Password for 'https://jo@example.com' (yes/no)?"), "yes");
    EXPECT_EQ(answer("(Yes/No)", {{"ZARVO_ASKPASS_SERVICE_NAME", "svc"}, {"ZARVO_ASKPASS_SERVICE_ACCOUNT", "acct"}}), "yes");
}

// A URL that names no host cannot say whose password is wanted; answering it
// from the keychain would hand some other site's password to whoever asked.
TEST_F(ZarvoAskpassResponses, AnswersNothingForAURLWithoutAHost)
{
    for (const char* prompt : {"Password for 'x:':", "Password for 'foo:bar':", "Password for 'mailto:jo@evil.com':",
                               "Password for 'https://':", "Password for 'https://jo@':", "jo@'s password:",
                               "mailto:jo@evil.com's password:"}) {
        SCOPED_TRACE(prompt);
        EXPECT_EQ(answer(prompt), "");
    }
    for (const char* remote : {"myserver:repo.git", "github.com:org/repo.git", "https://", "mailto:jo@evil.com"}) {
        SCOPED_TRACE(remote);
        EXPECT_EQ(answer("Password:", {{"ZARVO_ASKPASS_REMOTE_URL", remote}}), "");
    }
}

// git reads an answer up to its first line break: a value with one in it
// would be cut to something nobody stored or typed.
TEST_F(ZarvoAskpassResponses, AnswersNothingThatHoldsALineBreak)
{
    store("https://cr@example.com", "before\rafter");
    store("https://lf@example.com", "before\nafter");
    EXPECT_EQ(answer("Password for 'https://cr@example.com':"), "");
    EXPECT_EQ(answer("Password for 'https://lf@example.com':"), "");
    EXPECT_EQ(answer("Username for 'https://example.com':", {{"USER", "jo\n"}}), "");
    EXPECT_EQ(answer("Username:", {{"ZARVO_ASKPASS_REMOTE_URL", "https://j%0Ao@example.com/repo.git"}}), "");
    EXPECT_EQ(answer("Username:", {{"ZARVO_ASKPASS_REMOTE_URL", "https://j%0Do@example.com/repo.git"}}), "");
    EXPECT_EQ(answer("Username for 'https://example.com':", {{"USER", "jo\tx"}}), "jo\tx");
}

TEST_F(ZarvoAskpassResponses, FillsTheDefaultKeychainLazilyAndOnce)
{
    auto responder = ZarvoAskpass::create(ZarvoAskpass::Arguments{"zarvo-askpass"}, ZarvoAskpass::Environment{});
    EXPECT_EQ(responder->prompt(), "");
    EXPECT_EQ(responder->response(), "");
    EXPECT_EQ(responder->keychain(), QMKeychain::defaultKeychain());
    EXPECT_EQ(responder->keychain(), responder->keychain());
}

TEST(ZarvoAskpassCreation, AssertsOnMissingArgumentsOrEnvironment)
{
    platform::AssertionFailure seen;
    auto previous = platform::AssertionHandler::setObserver([&](const platform::AssertionFailure& failure) { seen = failure; });
    try {
        ZarvoAskpass::create(std::nullopt, ZarvoAskpass::Environment{});
        ADD_FAILURE() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "NSInternalInconsistencyException");
        EXPECT_EQ(exception.reason(), "Invalid parameter not satisfying: arguments");
    }
    EXPECT_EQ(seen.file, "ZarvoAskpass/ZarvoAskpass");
    try {
        ZarvoAskpass::responseForArguments(ZarvoAskpass::Arguments{}, std::nullopt);
        ADD_FAILURE() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.reason(), "Invalid parameter not satisfying: environment");
    }
    platform::AssertionHandler::setObserver(previous);
}

}  // namespace
