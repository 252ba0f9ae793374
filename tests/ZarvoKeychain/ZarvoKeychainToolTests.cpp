// Runs the built zarvo-keychain (and, where the two must agree, the built
// zarvo-askpass) as child processes, each in a fresh data directory.
#include "tests/Support/RunOnTerminal.h"
#include "tests/Support/RunProgram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

using testsupport::ProgramResult;

class ZarvoKeychainToolTest : public ::testing::Test {
protected:
    ProgramResult tool(const std::vector<std::string>& arguments, const std::string& input = {}) const
    {
        return testsupport::runProgram(testsupport::builtProgram("zarvo-keychain"), arguments, environment(), input);
    }

    // The tool at a terminal, typing `answers` at its prompts.
    testsupport::TerminalResult toolOnTerminal(const std::vector<std::string>& arguments,
                                               const std::vector<std::string>& answers = {},
                                               int signalAfterAnswers = 0) const
    {
        return testsupport::runOnTerminal(testsupport::builtProgram("zarvo-keychain"), arguments, environment(), answers,
                                          signalAfterAnswers);
    }

    ProgramResult askpass(const std::string& prompt) const
    {
        return testsupport::runProgram(testsupport::builtProgram("zarvo-askpass"), {prompt}, environment());
    }

    std::map<std::string, std::string> environment() const
    {
        return {{"XDG_DATA_HOME", directory_.path() + "/data"}, {"HOME", directory_.path()}};
    }

    std::string path(const std::string& name) const { return directory_.path() + "/" + name; }
    std::string defaultKeychain() const { return directory_.path() + "/data/keychains/login.keychain-db"; }

private:
    testsupport::TemporaryDirectory directory_;
};

std::string fileContents(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

TEST_F(ZarvoKeychainToolTest, APasswordStoredForAURLIsWhatTheResponderAnswers)
{
    const auto added = tool({"add-internet-password", "--url", "https://jo@git.example.com"}, "s3cret\n");
    ASSERT_EQ(added.exitStatus, 0) << added.standardError;
    EXPECT_EQ(added.standardOutput, "");

    const auto answer = askpass("Password for 'https://jo@git.example.com': ");
    EXPECT_EQ(answer.exitStatus, 0);
    EXPECT_EQ(answer.standardOutput, "s3cret");  // one trailing line break of the input is dropped

    // An SSH password is stored under protocol ssh; so the responder finds it.
    ASSERT_EQ(tool({"add-internet-password", "-a", "git", "-s", "127.0.0.1", "-r", "ssh"}, "shell").exitStatus, 0);
    EXPECT_EQ(askpass("git@127.0.0.1's password: ").standardOutput, "shell");
}

TEST_F(ZarvoKeychainToolTest, FindPrintsAttributesButThePasswordOnlyWhenAsked)
{
    ASSERT_EQ(tool({"add-internet-password", "--url", "https://jo@host:8443/repo.git", "-l", "work"}, "hunter2")
                  .exitStatus,
              0);
    const auto shown = tool({"find-internet-password", "--url", "https://jo@host:8443/repo.git"});
    ASSERT_EQ(shown.exitStatus, 0) << shown.standardError;
    EXPECT_NE(shown.standardOutput.find("account: \"jo\""), std::string::npos) << shown.standardOutput;
    EXPECT_NE(shown.standardOutput.find("port: 8443"), std::string::npos);
    EXPECT_NE(shown.standardOutput.find("label: \"work\""), std::string::npos);
    EXPECT_EQ(shown.standardOutput.find("hunter2"), std::string::npos);

    // Not a terminal: the password alone, with no newline.
    const auto secret = tool({"find-internet-password", "-s", "host", "-P", "8443", "-w"});
    EXPECT_EQ(secret.exitStatus, 0);
    EXPECT_EQ(secret.standardOutput, "hunter2");

    const auto dump = tool({"dump-keychain"});
    EXPECT_EQ(dump.exitStatus, 0);
    EXPECT_NE(dump.standardOutput.find("server: \"host\""), std::string::npos);
    EXPECT_EQ(dump.standardOutput.find("hunter2"), std::string::npos);
    const auto dumpWithSecrets = tool({"dump-keychain", "-d"});
    EXPECT_NE(dumpWithSecrets.standardOutput.find("password: \"hunter2\""), std::string::npos);
}

TEST_F(ZarvoKeychainToolTest, OutcomesHaveDistinctExitStatuses)
{
    EXPECT_EQ(tool({"find-generic-password", "-s", "none"}).exitStatus, 3);
    ASSERT_EQ(tool({"add-generic-password", "-a", "jo", "-s", "svc"}, "one").exitStatus, 0);
    const auto duplicate = tool({"add-generic-password", "-a", "jo", "-s", "svc"}, "two");
    EXPECT_EQ(duplicate.exitStatus, 4);
    EXPECT_NE(duplicate.standardError.find("-U"), std::string::npos);
    EXPECT_EQ(tool({"find-generic-password", "-s", "svc", "-w"}).standardOutput, "one");

    ASSERT_EQ(tool({"add-generic-password", "-a", "jo", "-s", "svc", "-U"}, "two").exitStatus, 0);
    EXPECT_EQ(tool({"find-generic-password", "-s", "svc", "-w"}).standardOutput, "two");

    EXPECT_EQ(tool({"find-generic-password", "-s", "svc", "-k", path("missing.keychain")}).exitStatus, 7);
    EXPECT_EQ(tool({"delete-generic-password", "-s", "svc"}).exitStatus, 0);
    EXPECT_EQ(tool({"delete-generic-password", "-s", "svc"}).exitStatus, 3);
}

TEST_F(ZarvoKeychainToolTest, DeletingAnInternetPasswordDeletesWhatGitsHelperKeptWithIt)
{
    const auto stored = testsupport::runProgram(testsupport::builtProgram("git-credential-zarvo"), {"store"}, environment(),
                                                "protocol=https\nhost=h\nusername=jo\npassword=p\n"
                                                "oauth_refresh_token=refresh-secret\n");
    ASSERT_EQ(stored.exitStatus, 0) << stored.standardError;
    ASSERT_EQ(tool({"find-generic-password", "-s", "git-credential-zarvo"}).exitStatus, 0);

    const auto deleted = tool({"delete-internet-password", "-s", "h", "-a", "jo"});
    EXPECT_EQ(deleted.exitStatus, 0) << deleted.standardError;
    EXPECT_NE(deleted.standardOutput.find("and the attributes git-credential-zarvo kept with it"), std::string::npos);
    EXPECT_EQ(deleted.standardOutput.find("refresh-secret"), std::string::npos);
    EXPECT_EQ(tool({"find-generic-password", "-s", "git-credential-zarvo"}).exitStatus, 3);

    // A password the helper kept nothing for is deleted alone, and says so.
    ASSERT_EQ(tool({"add-internet-password", "--url", "https://al@h"}, "q").exitStatus, 0);
    const auto plain = tool({"delete-internet-password", "-s", "h", "-a", "al"});
    EXPECT_EQ(plain.exitStatus, 0);
    EXPECT_EQ(plain.standardOutput.find("kept"), std::string::npos);
}

TEST_F(ZarvoKeychainToolTest, BadUsageIsRefusedBeforeAnythingIsWritten)
{
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {},
             {"no-such-command"},
             {"add-generic-password", "-a", "jo"},                           // no service
             {"add-internet-password", "-a", "jo"},                          // no server
             {"add-internet-password", "--url", "gopher://jo@host"},         // cannot be stored
             {"add-internet-password", "--url", "not a url"},
             {"add-internet-password", "-s", "host", "-P", "70000"},
             {"add-internet-password", "-s", "host", "-r", "carrier-pigeon"},
             {"add-internet-password", "-s", "host", "-w"},                   // -w is find's
             {"find-internet-password", "-s"},                                // value missing
             {"delete-internet-password"},                                    // would match anything
             {"create-keychain"},
         }) {
        const auto result = tool(arguments, "pw");
        EXPECT_EQ(result.exitStatus, 2) << ::testing::PrintToString(arguments) << result.standardError;
        EXPECT_FALSE(result.standardError.empty());
    }
    // A password must come from somewhere.
    EXPECT_EQ(tool({"add-generic-password", "-s", "svc"}, "").exitStatus, 2);
    EXPECT_FALSE(std::filesystem::exists(defaultKeychain()));
}

TEST_F(ZarvoKeychainToolTest, AURLWithoutAHostIsRefusedInOneLine)
{
    ASSERT_EQ(tool({"add-internet-password", "--url", "https://jo@git.example.com"}, "kept").exitStatus, 0);
    for (const char* url :
         {"https://", "https://jo@", "https://:8443/", "https:///team/repo.git", "ssh://", "myserver:repo.git",
          "mailto:jo@evil.com"}) {
        // Without a host, a find or delete would match items of any server.
        for (const char* command : {"add-internet-password", "find-internet-password", "delete-internet-password"}) {
            SCOPED_TRACE(std::string(command) + " --url " + url);
            const auto result = tool({command, "--url", url}, "leaked\n");
            EXPECT_EQ(result.exitStatus, 2);
            EXPECT_EQ(std::count(result.standardError.begin(), result.standardError.end(), '\n'), 1)
                << result.standardError;
            EXPECT_NE(result.standardError.find("no host"), std::string::npos) << result.standardError;
            EXPECT_EQ(result.standardOutput, "");
        }
    }
    // An empty server, given by itself or over a URL's host, is no host either:
    // no look-up would ever find the item.
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"add-internet-password", "-a", "jo", "-s", ""},
          std::vector<std::string>{"add-internet-password", "--url", "https://jo@other.example.com", "-s", ""}}) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const auto result = tool(arguments, "leaked\n");
        EXPECT_EQ(result.exitStatus, 2);
        EXPECT_NE(result.standardError.find("no host"), std::string::npos) << result.standardError;
    }
    const auto dump = tool({"dump-keychain", "-d"});
    EXPECT_EQ(dump.exitStatus, 0);
    EXPECT_NE(dump.standardOutput.find("password: \"kept\""), std::string::npos) << dump.standardOutput;
    EXPECT_EQ(dump.standardOutput.find("class:"), dump.standardOutput.rfind("class:")) << dump.standardOutput;
}

// A URL that does not parse may still carry a password in its user part.
TEST_F(ZarvoKeychainToolTest, AnInvalidURLIsRefusedWithoutRepeatingIt)
{
    const auto result = tool({"find-internet-password", "--url", "https://jo:s3cret word@git.example.com"});
    EXPECT_EQ(result.exitStatus, 2);
    EXPECT_NE(result.standardError.find("not a URL"), std::string::npos) << result.standardError;
    EXPECT_EQ(result.standardError.find("s3cret"), std::string::npos) << result.standardError;
}

TEST_F(ZarvoKeychainToolTest, EveryCommandExplainsItself)
{
    const auto overall = tool({"--help"});
    EXPECT_EQ(overall.exitStatus, 0);
    EXPECT_NE(overall.standardOutput.find(defaultKeychain()), std::string::npos);
    EXPECT_NE(overall.standardOutput.find("file permissions"), std::string::npos);
    for (const auto* command : {"add-internet-password", "find-internet-password", "delete-internet-password",
                                "add-generic-password", "find-generic-password", "delete-generic-password",
                                "create-keychain", "delete-keychain", "unlock-keychain", "dump-keychain"}) {
        EXPECT_NE(overall.standardOutput.find(command), std::string::npos) << command;
        const auto help = tool({command, "--help"});
        EXPECT_EQ(help.exitStatus, 0) << command;
        EXPECT_EQ(help.standardOutput.rfind(std::string("usage: zarvo-keychain ") + command, 0), 0u) << command;
    }
}

TEST_F(ZarvoKeychainToolTest, APasswordProtectedKeychainIsLockedInEveryNewProcess)
{
    const std::string keychain = path("protected.keychain");
    ASSERT_EQ(tool({"create-keychain", keychain}, "open sesame\n").exitStatus, 0);
    // The keychain password first, then the item's.
    ASSERT_EQ(tool({"add-generic-password", "-s", "svc", "-k", keychain}, "open sesame\nthe secret\n").exitStatus, 0);
    EXPECT_EQ(fileContents(keychain).find("the secret"), std::string::npos);

    const auto locked = tool({"find-generic-password", "-s", "svc", "-k", keychain, "-w"});
    EXPECT_EQ(locked.exitStatus, 5);
    EXPECT_EQ(locked.standardOutput, "");
    EXPECT_EQ(tool({"find-generic-password", "-s", "svc", "-k", keychain, "-w"}, "wrong\n").exitStatus, 6);
    const auto found = tool({"find-generic-password", "-s", "svc", "-k", keychain, "-w"}, "open sesame\n");
    EXPECT_EQ(found.exitStatus, 0) << found.standardError;
    EXPECT_EQ(found.standardOutput, "the secret");
    // Attributes need no password.
    EXPECT_EQ(tool({"find-generic-password", "-s", "svc", "-k", keychain}).exitStatus, 0);

    EXPECT_EQ(tool({"unlock-keychain", keychain}, "wrong\n").exitStatus, 6);
    EXPECT_EQ(tool({"unlock-keychain", "-k", keychain}, "open sesame\n").exitStatus, 0);
    EXPECT_EQ(tool({"create-keychain", keychain}, "again\n").exitStatus, 4);
    EXPECT_EQ(tool({"delete-keychain", keychain}).exitStatus, 0);
    EXPECT_FALSE(std::filesystem::exists(keychain));
    EXPECT_EQ(tool({"delete-keychain", keychain}).exitStatus, 7);
}

TEST_F(ZarvoKeychainToolTest, AKeychainPasswordFromStandardInputIsItsFirstLine)
{
    const std::string keychain = path("piped.keychain");
    // Piped twice, as the terminal prompt asks for it: the first line is the
    // password, for creating as for unlocking.
    ASSERT_EQ(tool({"create-keychain", keychain}, "open sesame\nopen sesame\n").exitStatus, 0);
    EXPECT_EQ(tool({"unlock-keychain", keychain}, "open sesame\n").exitStatus, 0);
    EXPECT_EQ(tool({"unlock-keychain", keychain}, "open sesame\r\n").exitStatus, 0);
    EXPECT_EQ(tool({"unlock-keychain", keychain}, "open sesame\nopen sesame\n").exitStatus, 0);
    ASSERT_EQ(tool({"add-generic-password", "-s", "svc", "-k", keychain}, "open sesame\nthe secret\n").exitStatus, 0);
    EXPECT_EQ(tool({"find-generic-password", "-s", "svc", "-k", keychain, "-w"}, "open sesame\n").standardOutput,
              "the secret");

    // A line break ending the only line, as from echo, is not part of it.
    const std::string windows = path("crlf.keychain");
    ASSERT_EQ(tool({"create-keychain", windows}, "open sesame\r\n").exitStatus, 0);
    EXPECT_EQ(tool({"unlock-keychain", windows}, "open sesame").exitStatus, 0);

    // An empty first line is no password, whatever follows it.
    const std::string empty = path("empty.keychain");
    EXPECT_EQ(tool({"create-keychain", empty}, "\nopen sesame\n").exitStatus, 2);
    EXPECT_FALSE(std::filesystem::exists(empty));
}

TEST_F(ZarvoKeychainToolTest, AKeychainWithoutAPasswordNeedsNoUnlocking)
{
    const std::string keychain = path("plain.keychain");
    EXPECT_EQ(tool({"create-keychain", keychain}, "").exitStatus, 2);  // a password or --no-password
    ASSERT_EQ(tool({"create-keychain", "--no-password", keychain}).exitStatus, 0);
    ASSERT_EQ(tool({"add-generic-password", "-s", "svc", "-k", keychain}, "plain secret").exitStatus, 0);
    EXPECT_EQ(tool({"find-generic-password", "-s", "svc", "-k", keychain, "-w"}).standardOutput, "plain secret");
    const auto unlock = tool({"unlock-keychain", keychain});
    EXPECT_EQ(unlock.exitStatus, 0);
    EXPECT_NE(unlock.standardError.find("no password"), std::string::npos);
    // Kept apart from the default keychain.
    EXPECT_EQ(tool({"find-generic-password", "-s", "svc"}).exitStatus, 3);
}

TEST_F(ZarvoKeychainToolTest, AtATerminalPasswordsAreAskedForWithoutEcho)
{
    const auto added = toolOnTerminal({"add-generic-password", "-a", "jo", "-s", "notes"}, {"typed s3cret", "typed s3cret"});
    ASSERT_EQ(added.exitStatus, 0) << added.screen;
    EXPECT_NE(added.screen.find("password to store: "), std::string::npos) << added.screen;
    EXPECT_NE(added.screen.find("retype password to store: "), std::string::npos) << added.screen;
    EXPECT_EQ(added.screen.find("s3cret"), std::string::npos) << added.screen;
    EXPECT_EQ(tool({"find-generic-password", "-a", "jo", "-s", "notes", "-w"}).standardOutput, "typed s3cret");
    // At a terminal the password gets a line of its own.
    EXPECT_EQ(toolOnTerminal({"find-generic-password", "-a", "jo", "-s", "notes", "-w"}).screen, "typed s3cret\r\n");

    const auto differing = toolOnTerminal({"add-generic-password", "-a", "jo", "-s", "other"}, {"one", "two"});
    EXPECT_EQ(differing.exitStatus, 2);
    EXPECT_NE(differing.screen.find("do not match"), std::string::npos) << differing.screen;
    EXPECT_EQ(tool({"find-generic-password", "-a", "jo", "-s", "other"}).exitStatus, 3);
}

TEST_F(ZarvoKeychainToolTest, AtATerminalALockedKeychainAsksForItsPassword)
{
    const std::string keychain = path("protected.keychain");
    ASSERT_EQ(toolOnTerminal({"create-keychain", keychain}, {"open sesame", "open sesame"}).exitStatus, 0);
    const auto added =
        toolOnTerminal({"add-generic-password", "-s", "svc", "-k", keychain}, {"open sesame", "item secret", "item secret"});
    ASSERT_EQ(added.exitStatus, 0) << added.screen;
    EXPECT_NE(added.screen.find("password to unlock " + keychain + ": "), std::string::npos) << added.screen;
    EXPECT_EQ(added.screen.find("sesame"), std::string::npos) << added.screen;

    EXPECT_EQ(toolOnTerminal({"find-generic-password", "-s", "svc", "-k", keychain, "-w"}, {"wrong"}).exitStatus, 6);
    const auto found = toolOnTerminal({"find-generic-password", "-s", "svc", "-k", keychain, "-w"}, {"open sesame"});
    EXPECT_EQ(found.exitStatus, 0) << found.screen;
    EXPECT_TRUE(found.screen.ends_with("item secret\r\n")) << found.screen;
}

TEST_F(ZarvoKeychainToolTest, AtATerminalASignalAtAPromptPutsEchoBackAndEndsTheProgramByThatSignal)
{
    const std::string keychain = path("protected.keychain");
    ASSERT_EQ(tool({"create-keychain", keychain}, "open sesame\n").exitStatus, 0);
    struct Interruption {
        const char* what;
        std::vector<std::string> arguments;
        std::vector<std::string> answers;
        int sent;    // sent to the program after the answers; 0 when typed
        int ending;  // the signal that should end the program
    };
    const Interruption interruptions[] = {
        {"Ctrl-C typed at the password prompt", {"add-generic-password", "-s", "svc"}, {"\x03"}, 0, SIGINT},
        {"SIGTERM at the password prompt", {"add-generic-password", "-s", "svc"}, {}, SIGTERM, SIGTERM},
        {"SIGTERM at the second prompt", {"add-generic-password", "-s", "svc"}, {"typed"}, SIGTERM, SIGTERM},
        {"SIGINT at the unlock prompt", {"add-generic-password", "-s", "svc", "-k", keychain}, {}, SIGINT, SIGINT},
        {"SIGHUP at the new keychain's prompt", {"create-keychain", path("new.keychain")}, {}, SIGHUP, SIGHUP},
    };
    for (const auto& interruption : interruptions) {
        SCOPED_TRACE(interruption.what);
        const auto result = toolOnTerminal(interruption.arguments, interruption.answers, interruption.sent);
        EXPECT_EQ(result.exitStatus, 128 + interruption.ending) << result.screen;
        EXPECT_TRUE(result.echoing) << result.screen;
    }
    EXPECT_EQ(tool({"find-generic-password", "-s", "svc"}).exitStatus, 3);
    EXPECT_EQ(tool({"find-generic-password", "-s", "svc", "-k", keychain}).exitStatus, 3);
    EXPECT_FALSE(std::filesystem::exists(path("new.keychain")));

    // A prompt answered in full leaves echo on as well.
    const auto answered = toolOnTerminal({"add-generic-password", "-s", "svc"}, {"typed", "typed"});
    EXPECT_EQ(answered.exitStatus, 0) << answered.screen;
    EXPECT_TRUE(answered.echoing);
}

TEST_F(ZarvoKeychainToolTest, DeleteKeychainRefusesAFileThatIsNotOne)
{
    const std::string notes = path("notes.txt");
    std::ofstream(notes) << "not a keychain";
    const auto result = tool({"delete-keychain", notes});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(fileContents(notes), "not a keychain");
}

}  // namespace
