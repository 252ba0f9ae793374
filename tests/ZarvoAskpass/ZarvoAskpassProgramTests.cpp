// The responder as git and OpenSSH see it: the built program, run with an
// argument vector and an environment, judged by its output and exit status.
#include "QMFoundation/Keychain/QMKeychain.h"
#include "tests/Support/RunProgram.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using testsupport::ProgramResult;

namespace {

class ZarvoAskpassProgram : public ::testing::Test {
protected:
    // Every run gets an empty data directory, so the default keychain is the
    // test's own (and missing), never the user's.
    std::map<std::string, std::string> environment(std::map<std::string, std::string> extra = {}) const
    {
        extra.emplace("XDG_DATA_HOME", data_.path());
        extra.emplace("HOME", data_.path());
        return extra;
    }

    ProgramResult run(std::vector<std::string> arguments, std::map<std::string, std::string> extra = {}) const
    {
        return testsupport::runProgram(testsupport::builtProgram("zarvo-askpass"), arguments, environment(std::move(extra)));
    }

    // Stores a password in the default keychain the program will read.
    void store(const std::string& url, const std::string& password) const
    {
        std::filesystem::create_directories(data_.path() + "/keychains");
        platform::ErrorRef error;
        const auto keychain = QMKeychain::keychainWithPath(data_.path() + "/keychains/login.keychain-db", std::nullopt, &error);
        ASSERT_TRUE(keychain) << (error ? error->description() : "");
        ASSERT_TRUE(keychain->addInternetPasswordWithURL(*platform::URL::fromString(url), password, &error))
            << (error ? error->description() : "");
    }

    testsupport::TemporaryDirectory data_;
};

void expectAnswer(const ProgramResult& result, const std::string& answer)
{
    EXPECT_EQ(result.standardOutput, answer);
    EXPECT_EQ(result.standardError, "");
    EXPECT_EQ(result.exitStatus, 0);
}

TEST_F(ZarvoAskpassProgram, AnswersHostKeyQuestionsInBothModes)
{
    const std::string question = "Are you sure you want to continue connecting (yes/no)? ";
    expectAnswer(run({question}), "yes");
    expectAnswer(run({"CONTINUE (YES/NO)?"}), "yes");
    expectAnswer(run({question}, {{"ZARVO_ASKPASS_REMOTE_URL", "https://jo@example.com/r.git"}}), "yes");
}

TEST_F(ZarvoAskpassProgram, AnswersUserNamePromptsFromTheRightSource)
{
    expectAnswer(run({"Username for 'https://example.com': "}, {{"USER", "localjo"}}), "localjo");
    expectAnswer(run({"Username for 'https://example.com': "}), "");
    expectAnswer(run({"Username: "}, {{"ZARVO_ASKPASS_REMOTE_URL", "https://jo@example.com/team/repo.git"}, {"USER", "localjo"}}),
                 "jo");
    expectAnswer(run({"Username: "}, {{"ZARVO_ASKPASS_REMOTE_URL", "https://example.com/team/repo.git"}}), "");
    // A service account is never offered as a user name.
    expectAnswer(run({"Username: "}, {{"ZARVO_ASKPASS_SERVICE_NAME", "svc"}, {"ZARVO_ASKPASS_SERVICE_ACCOUNT", "acct"}}), "");
}

TEST_F(ZarvoAskpassProgram, PrintsNothingForPasswordsItDoesNotHave)
{
    expectAnswer(run({"Password for 'https://jo@example.com': "}), "");
    expectAnswer(run({"jo@example.com's password: "}), "");
    expectAnswer(run({"Password: "}, {{"ZARVO_ASKPASS_REMOTE_URL", "https://jo@example.com/r.git"}}), "");
    expectAnswer(run({"Password: "}), "");
}

// Whatever arrives from outside, the answer is printed or nothing is, never
// a newline, never a diagnostic, and the status is 0.
TEST_F(ZarvoAskpassProgram, SurvivesAnyArgumentAndEnvironment)
{
    const std::vector<std::vector<std::string>> argumentVectors = {
        {},
        {""},
        {std::string(120 * 1024, 'x')},
        {"Password for '" + std::string(100 * 1024, 'a') + "':"},
        {"Username for '" + std::string(60 * 1024, '\'') + "':"},
        {std::string(40 * 1024, '@') + "'s password:"},
        {"Password for '\xff\xfe\x80':"},
        {"\xc3\x28's password: \xe2\x82"},
        {"Password for 'https://host/\x01\x02\x7f':\r\n\t"},
        {"Password for 'https://[::1:bad':"},
        {"Password for 'http://h:99999999999999999999/':"},
        {"Username for 'https://example.com':", "extra", "arguments"},
    };
    const std::vector<std::map<std::string, std::string>> environments = {
        {},
        {{"ZARVO_ASKPASS_REMOTE_URL", ""}},
        {{"ZARVO_ASKPASS_REMOTE_URL", "not a url"}},
        {{"ZARVO_ASKPASS_REMOTE_URL", "https://jo@[::1"}},
        {{"ZARVO_ASKPASS_REMOTE_URL", "\xff://\xfe"}},
        {{"ZARVO_ASKPASS_SERVICE_NAME", ""}, {"ZARVO_ASKPASS_SERVICE_ACCOUNT", ""}},
        {{"XDG_DATA_HOME", "/nonexistent/\x01"}},
    };
    for (const auto& arguments : argumentVectors) {
        for (const auto& extra : environments) {
            const auto result = run(arguments, extra);
            SCOPED_TRACE(arguments.empty() ? std::string("(no argument)") : arguments[0].substr(0, 40));
            EXPECT_EQ(result.exitStatus, 0);
            EXPECT_EQ(result.standardError, "");
            EXPECT_TRUE(result.standardOutput.empty() || result.standardOutput.back() != '\n');
        }
    }
}

// The answer is printed as a C string: a stored NUL ends it.
TEST_F(ZarvoAskpassProgram, PrintsAnAnswerUpToItsFirstNul)
{
    store("https://jo@example.com", std::string("before\0after", 12));
    expectAnswer(run({"Password for 'https://jo@example.com': "}), "before");
}

TEST_F(ZarvoAskpassProgram, MalformedRemoteURLFallsBackToPromptParsing)
{
    // Without a usable URL the environment holds no credentials, so the
    // prompt's own URL is used and the user name comes from USER.
    expectAnswer(run({"Username for 'https://example.com':"}, {{"ZARVO_ASKPASS_REMOTE_URL", "not a url"}, {"USER", "me"}}), "me");
    // A service name alone is not enough for environment-credential mode.
    expectAnswer(run({"Username for 'https://example.com':"}, {{"ZARVO_ASKPASS_SERVICE_NAME", "svc"}, {"USER", "me"}}), "me");
}

}  // namespace
