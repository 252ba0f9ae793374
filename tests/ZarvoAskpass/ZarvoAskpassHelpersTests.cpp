#include "ZarvoAskpass/ZarvoAskpassHelpers.h"

#include <gtest/gtest.h>

namespace {

std::string text(const std::optional<platform::URL>& url)
{
    return url ? url->absoluteString() : "(nothing)";
}

TEST(PromptRecognition, FindsTheKeyWordsInAnyCase)
{
    EXPECT_TRUE(ZarvoAskpassHelpers::isHostAuthenticityPrompt("continue connecting (YES/NO)?"));
    EXPECT_FALSE(ZarvoAskpassHelpers::isHostAuthenticityPrompt("continue connecting (yes/no/[fingerprint])?"));
    EXPECT_TRUE(ZarvoAskpassHelpers::isPasswordPrompt("Enter PASSWORD:"));
    EXPECT_TRUE(ZarvoAskpassHelpers::isUsernamePrompt("UserName"));
    EXPECT_FALSE(ZarvoAskpassHelpers::isUsernamePrompt("user name"));
    EXPECT_FALSE(ZarvoAskpassHelpers::isPasswordPrompt(""));
}

TEST(PromptRecognition, TakesTheQuotedURLOfHTTPPrompts)
{
    EXPECT_EQ(text(ZarvoAskpassHelpers::urlFromHTTPUsernamePrompt("Username for 'https://HOST': ")), "https://HOST");
    EXPECT_EQ(text(ZarvoAskpassHelpers::urlFromHTTPPasswordPrompt("password FOR 'https://jo@HOST:8443/r.git': ")),
              "https://jo@HOST:8443/r.git");
    // The capture is greedy: from the first "for '" to the last "':".
    EXPECT_EQ(text(ZarvoAskpassHelpers::urlFromHTTPPasswordPrompt("Password for 'https://a':x':")), "(nothing)");
    EXPECT_EQ(text(ZarvoAskpassHelpers::urlFromHTTPPasswordPrompt("Password for 'https://a/b':c':")), "https://a/b':c");
    EXPECT_FALSE(ZarvoAskpassHelpers::isHTTPPasswordPrompt("Password for 'not a url':"));
    EXPECT_FALSE(ZarvoAskpassHelpers::isHTTPUsernamePrompt("Password for 'https://HOST':"));
}

TEST(PromptRecognition, BuildsSSHURLsFromTheStartOfThePrompt)
{
    EXPECT_EQ(text(ZarvoAskpassHelpers::urlFromSSHPasswordPrompt("jo@HOST's password: ")), "ssh://jo@HOST");
    EXPECT_EQ(text(ZarvoAskpassHelpers::urlFromSSHPasswordPrompt("ssh://jo@HOST's password:")), "ssh://jo@HOST");
    EXPECT_EQ(text(ZarvoAskpassHelpers::urlFromSSHPasswordPrompt(" jo@HOST's password:")), "(nothing)");
    EXPECT_EQ(text(ZarvoAskpassHelpers::urlFromSSHPasswordPrompt("line\njo@HOST's password:")), "(nothing)");
    EXPECT_TRUE(ZarvoAskpassHelpers::isSSHPasswordPrompt("JO@HOST'S PASSWORD:"));
}

TEST(PromptRecognition, SharesOneInstance)
{
    EXPECT_EQ(ZarvoAskpassHelpers::sharedInstance(), ZarvoAskpassHelpers::sharedInstance());
}

}  // namespace
