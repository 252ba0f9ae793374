// git's credential helper: the request it reads, what each operation does to
// the keychain, and agreement with the responder's look-up. Most cases run
// the helper in-process on a sandboxed default keychain; the ones about bytes
// on a real standard input run the built program.
#include "GitCredentialZarvo/CredentialHelper.h"
#include "GitCredentialZarvo/CredentialRequest.h"

#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMKeychain.h"

#include "Platform/Security/SecItem.h"
#include "Platform/Security/SecKeychain.h"

#include "tests/Platform/Security/KeychainSandbox.h"
#include "tests/Support/RunProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace platform;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

struct HelperRun {
    int status = -1;
    std::string output;
    std::string errors;
};

HelperRun helper(const std::vector<std::string>& arguments, const std::string& input)
{
    HelperRun run;
    run.status = runCredentialHelper(arguments, [&input] { return input; }, &run.output, &run.errors);
    return run;
}

HelperRun helper(const std::string& operation, const std::string& input)
{
    return helper(std::vector<std::string>{operation}, input);
}

// The password the responder would answer for `url`, or nothing.
std::optional<std::string> responderPassword(const std::string& url)
{
    const auto item = QMInternetPasswordKeychainItem::findInternetPasswordForURL(URL::fromString(url));
    return item ? item->password() : std::nullopt;
}

std::size_t internetPasswordCount()
{
    Value result;
    const OSStatus status = SecItemCopyMatching(
        {{kSecClass, kSecClassInternetPassword}, {kSecMatchLimit, kSecMatchLimitAll}, {kSecReturnAttributes, true}},
        &result);
    return status == errSecSuccess ? result.array()->size() : 0;
}

// ---- Reading the request ----------------------------------------------------

TEST(CredentialRequestTest, ReadsKeyValueLinesUpToTheFirstEmptyLine)
{
    std::string problem;
    const auto request = readCredentialRequest("protocol=https\nhost=a=b\npassword=\nhost=example.com\n\nuser=late\n",
                                               &problem);
    ASSERT_TRUE(request) << problem;
    EXPECT_EQ(request->value("protocol"), "https");
    EXPECT_EQ(request->value("host"), "example.com");  // the last of two wins
    EXPECT_EQ(request->value("password"), "");         // present but empty
    EXPECT_EQ(request->value("user"), std::nullopt);   // after the end of the request
}

TEST(CredentialRequestTest, TheEndOfInputEndsTheLastLine)
{
    std::string problem;
    const auto request = readCredentialRequest("host=example.com", &problem);
    ASSERT_TRUE(request);
    EXPECT_EQ(request->value("host"), "example.com");
    EXPECT_TRUE(readCredentialRequest("", &problem));
}

TEST(CredentialRequestTest, TakesCarriageReturnLineFeedAsALineEndAsGitDoes)
{
    std::string problem;
    const auto request = readCredentialRequest("protocol=https\r\nhost=example.com\r\n\r\nuser=late\r\n", &problem);
    ASSERT_TRUE(request) << problem;
    EXPECT_EQ(request->value("protocol"), "https");
    EXPECT_EQ(request->value("host"), "example.com");
    EXPECT_EQ(request->value("user"), std::nullopt);
}

TEST(CredentialRequestTest, RefusesMalformedLinesNamingOnlyTheLine)
{
    const struct {
        std::string input;
        std::string complaint;
    } rows[] = {
        {"protocol=https\nsecret-without-equals\n", "line 2 has no '='"},
        {"password=se" + std::string(1, '\0') + "cret\n", "line 1 holds a NUL byte"},
        {"password=secret\xff\xfe\n", "line 1 is not valid UTF-8"},
        {"password=" + std::string(kMaximumLineLength, 'x') + "\n", "line 1 is longer than"},
        {std::string(kMaximumRequestLength + 1, '\n'), "the request is longer than"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.complaint);
        std::string problem;
        EXPECT_FALSE(readCredentialRequest(row.input, &problem));
        EXPECT_THAT(problem, HasSubstr(row.complaint));
        EXPECT_THAT(problem, ::testing::Not(HasSubstr("secret")));
    }
}

// ---- Operations on the keychain ----------------------------------------------

class CredentialHelperTest : public testsupport::KeychainSandbox {
protected:
    static constexpr std::string_view kKeychainPassword = "keychain password";

    // A keychain in the sandbox with kKeychainPassword, unlocked in this
    // process as a new keychain is.
    SecKeychainRef keychainWithPassword(const std::string& path) const
    {
        SecKeychainRef keychain;
        EXPECT_EQ(SecKeychainCreate(path.c_str(), static_cast<std::uint32_t>(kKeychainPassword.size()),
                                    kKeychainPassword.data(), false, nullptr, &keychain),
                  errSecSuccess);
        return keychain;
    }

    static OSStatus unlock(const SecKeychainRef& keychain)
    {
        return SecKeychainUnlock(keychain, static_cast<std::uint32_t>(kKeychainPassword.size()), kKeychainPassword.data(),
                                 true);
    }
};

TEST_F(CredentialHelperTest, StoresWhatTheResponderFindsAndGetsWhatItStores)
{
    auto stored = helper("store", "protocol=https\nhost=git.example.com\nusername=jo\npassword=s3cret\n");
    EXPECT_EQ(stored.status, 0) << stored.errors;
    EXPECT_EQ(responderPassword("https://jo@git.example.com"), "s3cret");

    auto got = helper("get", "protocol=https\nhost=git.example.com\nusername=jo\n");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.output, "username=jo\npassword=s3cret\n");

    // And an item stored as the keychain tool stores it, by URL.
    ASSERT_TRUE(QMKeychain::defaultKeychain()->addInternetPasswordWithURL(*URL::fromString("http://al@host:8080"),
                                                                         "by-url"));
    got = helper("get", "protocol=http\nhost=host:8080\nusername=al\n");
    EXPECT_EQ(got.output, "username=al\npassword=by-url\n");
}

TEST_F(CredentialHelperTest, GetWithoutUserNameAnswersWithTheFirstItemsUser)
{
    helper("store", "protocol=https\nhost=h\nusername=first\npassword=one\n");
    helper("store", "protocol=https\nhost=h\nusername=second\npassword=two\n");
    EXPECT_EQ(helper("get", "protocol=https\nhost=h\n").output, "username=first\npassword=one\n");
    EXPECT_EQ(helper("get", "protocol=https\nhost=h\nusername=second\n").output, "username=second\npassword=two\n");
    EXPECT_EQ(helper("get", "protocol=https\nhost=other\n").output, "");
    EXPECT_EQ(helper("get", "protocol=http\nhost=h\n").output, "");
}

TEST_F(CredentialHelperTest, PortsAndUserNamesWithAtSignsMapAsTheResponderMapsThem)
{
    EXPECT_EQ(helper("store", "protocol=https\nhost=h:8443\nusername=jo@corp\npassword=p\n").status, 0);
    EXPECT_EQ(responderPassword("https://jo%40corp@h:8443"), "p");
    EXPECT_EQ(responderPassword("https://jo%40corp@h"), std::nullopt);  // port 0 is another item
    EXPECT_EQ(helper("get", "protocol=https\nhost=h:8443\nusername=jo@corp\n").output, "username=jo@corp\npassword=p\n");
    EXPECT_EQ(helper("get", "protocol=https\nhost=h\nusername=jo@corp\n").output, "");
}

TEST_F(CredentialHelperTest, APathMakesAnItemOfItsOwn)
{
    // The repository's item first: a store for the host alone must not take
    // it for its own, although a look-up without a path would find it.
    helper("store", "protocol=https\nhost=h\nusername=jo\npath=team/repo.git\npassword=one-repo\n");
    helper("store", "protocol=https\nhost=h\nusername=jo\npassword=whole-host\n");
    EXPECT_EQ(internetPasswordCount(), 2u);
    EXPECT_EQ(responderPassword("https://jo@h/team/repo.git"), "one-repo");
    EXPECT_EQ(helper("get", "protocol=https\nhost=h\nusername=jo\npath=team/repo.git\n").output,
              "username=jo\npassword=one-repo\n");
    EXPECT_EQ(helper("get", "protocol=https\nhost=h\nusername=jo\npath=team/other.git\n").output, "");

    helper("store", "protocol=https\nhost=h\nusername=jo\npassword=whole-host-2\n");
    EXPECT_EQ(responderPassword("https://jo@h/team/repo.git"), "one-repo");
    EXPECT_EQ(internetPasswordCount(), 2u);
}

TEST_F(CredentialHelperTest, StoreReplacesThePasswordOfTheSameItem)
{
    helper("store", "protocol=https\nhost=h\nusername=jo\npassword=old\n");
    helper("store", "protocol=https\nhost=h\nusername=jo\npassword=new\n");
    EXPECT_EQ(internetPasswordCount(), 1u);
    EXPECT_EQ(responderPassword("https://jo@h"), "new");
}

TEST_F(CredentialHelperTest, StoreNeedsAUserNameAndAPassword)
{
    EXPECT_EQ(helper("store", "protocol=https\nhost=h\npassword=p\n").status, 0);
    EXPECT_EQ(helper("store", "protocol=https\nhost=h\nusername=jo\n").status, 0);
    EXPECT_EQ(internetPasswordCount(), 0u);
}

TEST_F(CredentialHelperTest, EraseRemovesOnlyTheItemWithThePasswordGitSent)
{
    helper("store", "protocol=https\nhost=h\nusername=jo\npassword=current\n");
    helper("store", "protocol=https\nhost=h\nusername=al\npassword=als\n");

    EXPECT_EQ(helper("erase", "protocol=https\nhost=h\nusername=jo\npassword=stale\n").status, 0);
    EXPECT_EQ(responderPassword("https://jo@h"), "current");

    EXPECT_EQ(helper("erase", "protocol=https\nhost=h\nusername=jo\npassword=current\n").status, 0);
    EXPECT_EQ(responderPassword("https://jo@h"), std::nullopt);
    EXPECT_EQ(responderPassword("https://al@h"), "als");

    // Without a password the first matching item goes.
    EXPECT_EQ(helper("erase", "protocol=https\nhost=h\nusername=al\n").status, 0);
    EXPECT_EQ(internetPasswordCount(), 0u);
}

TEST_F(CredentialHelperTest, KeepsNewerAttributesWithTheItemAndForgetsThemWithIt)
{
    helper("store", "protocol=https\nhost=h\nusername=jo\npassword=p\npassword_expiry_utc=1700000000\n"
                    "oauth_refresh_token=refresh\nwwwauth[]=Basic\n");
    EXPECT_EQ(helper("get", "protocol=https\nhost=h\n").output,
              "username=jo\npassword=p\npassword_expiry_utc=1700000000\noauth_refresh_token=refresh\n");
    // The internet password holds the password alone, for the responder.
    EXPECT_EQ(responderPassword("https://jo@h"), "p");

    // A store without them drops them.
    helper("store", "protocol=https\nhost=h\nusername=jo\npassword=p\n");
    EXPECT_EQ(helper("get", "protocol=https\nhost=h\n").output, "username=jo\npassword=p\n");

    helper("store", "protocol=https\nhost=h\nusername=jo\npassword=p\noauth_refresh_token=again\n");
    helper("erase", "protocol=https\nhost=h\nusername=jo\npassword=p\n");
    EXPECT_THAT(QMKeychain::defaultKeychain()->findAllGenericPasswords().value(), IsEmpty());
}

TEST_F(CredentialHelperTest, AnswersNothingThatWouldBreakTheProtocol)
{
    ASSERT_TRUE(QMKeychain::defaultKeychain()->addInternetPasswordWithURL(*URL::fromString("https://jo@h"),
                                                                         "two\nlines"));
    const auto got = helper("get", "protocol=https\nhost=h\nusername=jo\n");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.output, "");
}

TEST_F(CredentialHelperTest, BadInputChangesNothing)
{
    helper("store", "protocol=https\nhost=h\nusername=jo\npassword=kept\n");
    const std::string inputs[] = {
        "protocol=https\nhost=h\nusername=jo\npassword=new\nno-equals-sign\n",
        "protocol=https\nhost=h\nusername=jo\npassword=new\xc3\n",
        "protocol=https\nhost=h/evil\nusername=jo\npassword=new\n",
        "protocol=https\nhost=h:99999\nusername=jo\npassword=new\n",
    };
    for (const auto& input : inputs) {
        SCOPED_TRACE(input);
        for (const auto* operation : {"store", "erase"}) {
            const auto run = helper(operation, input);
            EXPECT_EQ(run.status, 1);
            EXPECT_EQ(std::count(run.errors.begin(), run.errors.end(), '\n'), 1) << run.errors;
            EXPECT_THAT(run.errors, ::testing::Not(HasSubstr("new")));
        }
    }
    EXPECT_EQ(responderPassword("https://jo@h"), "kept");
    EXPECT_EQ(internetPasswordCount(), 1u);
}

TEST_F(CredentialHelperTest, RequestsForOtherProtocolsOrNoHostAreNotItsBusiness)
{
    for (const auto* input : {"protocol=cert\npath=/home/jo/cert.p12\npassword=p\n", "protocol=https\nusername=jo\n",
                              "protocol=HTTPS\nhost=h\nusername=jo\npassword=p\n"}) {
        SCOPED_TRACE(input);
        const auto run = helper("store", input);
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.errors, "");
    }
    EXPECT_EQ(internetPasswordCount(), 0u);
}

TEST_F(CredentialHelperTest, UsageAndUnknownOperations)
{
    auto run = helper(std::vector<std::string>{}, "");
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.errors, HasSubstr("no operation"));

    run = helper("frobnicate", "protocol=https\nhost=h\nusername=jo\npassword=p\n");
    EXPECT_EQ(run.status, 0);  // ignored, as git asks of helpers
    EXPECT_THAT(run.errors, HasSubstr("unknown operation frobnicate"));
    EXPECT_EQ(internetPasswordCount(), 0u);

    run = helper(std::vector<std::string>{"--bogus", "get"}, "");
    EXPECT_EQ(run.status, 1);
    run = helper(std::vector<std::string>{"get", "store"}, "");
    EXPECT_EQ(run.status, 1);
    run = helper(std::vector<std::string>{"-k"}, "");
    EXPECT_EQ(run.status, 1);
    run = helper(std::vector<std::string>{"--help"}, "");
    EXPECT_EQ(run.status, 0);
    // The form README.md and the man page recommend, and the short one.
    EXPECT_THAT(run.output, HasSubstr("credential.helper \"$(command -v git-credential-zarvo)\""));
    EXPECT_THAT(run.output, HasSubstr("credential.helper zarvo"));
}

TEST_F(CredentialHelperTest, WorksOnAKeychainNamedByAnOption)
{
    const auto path = sandboxPath("other.keychain-db");
    ASSERT_EQ(SecKeychainCreate(path.c_str(), 0, nullptr, true, nullptr, nullptr), errSecSuccess);
    EXPECT_EQ(helper(std::vector<std::string>{"--keychain", path, "store"},
                     "protocol=https\nhost=h\nusername=jo\npassword=p\n")
                  .status,
              0);
    EXPECT_EQ(internetPasswordCount(), 0u);  // not in the default keychain
    EXPECT_EQ(helper(std::vector<std::string>{"-k", path, "get"}, "protocol=https\nhost=h\n").output,
              "username=jo\npassword=p\n");

    const auto missing = helper(std::vector<std::string>{"-k", sandboxPath("missing"), "store"},
                                "protocol=https\nhost=h\nusername=jo\npassword=p\n");
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.errors, HasSubstr("git-credential-zarvo: "));
    EXPECT_THAT(missing.errors, HasSubstr(sandboxPath("missing")));  // which of the user's keychains

    const auto empty = helper(std::vector<std::string>{"--keychain=", "get"}, "protocol=https\nhost=h\n");
    EXPECT_EQ(empty.status, 1);
    EXPECT_THAT(empty.errors, HasSubstr("needs the path of a keychain"));
}

TEST_F(CredentialHelperTest, NamesTheKeychainItRefusesAndWhy)
{
    ASSERT_EQ(helper("store", "protocol=https\nhost=h\nusername=jo\npassword=p\n").status, 0);
    ASSERT_EQ(::chmod(defaultKeychainPath().c_str(), 0644), 0);
    for (const auto* operation : {"get", "store", "erase"}) {
        SCOPED_TRACE(operation);
        const auto run = helper(operation, "protocol=https\nhost=h\nusername=jo\npassword=p\n");
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.output, "");
        // git shows this line at every fetch: the user must be able to act on it.
        EXPECT_THAT(run.errors, HasSubstr(defaultKeychainPath()));
        EXPECT_THAT(run.errors, HasSubstr("0644"));
        EXPECT_EQ(std::count(run.errors.begin(), run.errors.end(), '\n'), 1);
    }
}

TEST_F(CredentialHelperTest, ALockedKeychainIsLeftLockedAndAnswersNothing)
{
    const auto path = sandboxPath("locked.keychain-db");
    const auto keychain = keychainWithPassword(path);
    const std::vector<std::string> store{"-k", path, "store"};
    ASSERT_EQ(helper(store, "protocol=https\nhost=h\nusername=jo\npassword=before\n").status, 0);
    ASSERT_EQ(SecKeychainLock(keychain), errSecSuccess);

    for (const auto* operation : {"get", "store", "erase"}) {
        SCOPED_TRACE(operation);
        const auto run = helper(std::vector<std::string>{"-k", path, operation},
                                "protocol=https\nhost=h\nusername=jo\npassword=after\n");
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.output, "");
        EXPECT_EQ(run.errors, "");
    }
    // Not even an erase without a password, which needs no secret to find
    // its item: the unlocked look-up below still finds it.
    const auto erase = helper(std::vector<std::string>{"-k", path, "erase"}, "protocol=https\nhost=h\nusername=jo\n");
    EXPECT_EQ(erase.status, 0);
    EXPECT_EQ(erase.errors, "");
    SecKeychainStatus state;
    ASSERT_EQ(SecKeychainGetStatus(keychain, &state), errSecSuccess);
    EXPECT_FALSE(state.isUnlocked);

    ASSERT_EQ(unlock(keychain), errSecSuccess);
    EXPECT_EQ(helper(std::vector<std::string>{"-k", path, "get"}, "protocol=https\nhost=h\n").output,
              "username=jo\npassword=before\n");
}

TEST_F(CredentialHelperTest, ZarvoKeychainDeletesWhatItKeptEvenFromALockedKeychain)
{
    const auto path = sandboxPath("kept.keychain-db");
    const auto keychain = keychainWithPassword(path);
    ASSERT_EQ(helper(std::vector<std::string>{"-k", path, "store"},
                     "protocol=https\nhost=h\nusername=jo\npassword=p\noauth_refresh_token=refresh\n")
                  .status,
              0);
    ASSERT_EQ(SecKeychainLock(keychain), errSecSuccess);

    // The tool runs in a process of its own, where the keychain is locked,
    // and is given no password: deleting needs none.
    const auto deleted = testsupport::runProgram(testsupport::builtProgram("zarvo-keychain"),
                                                 {"delete-internet-password", "-k", path, "-s", "h", "-a", "jo"},
                                                 {{"XDG_DATA_HOME", dataHome()}, {"HOME", dataHome()}}, "");
    EXPECT_EQ(deleted.exitStatus, 0) << deleted.standardError;
    EXPECT_THAT(deleted.standardOutput, HasSubstr("kept with it"));

    ASSERT_EQ(unlock(keychain), errSecSuccess);
    Value result;
    EXPECT_EQ(SecItemCopyMatching({{kSecClass, kSecClassGenericPassword}, {kSecMatchSearchList, Array{Value(keychain)}}},
                                  &result),
              errSecItemNotFound);
}

// ---- The program ---------------------------------------------------------------

class CredentialHelperProgramTest : public testsupport::KeychainSandbox {
protected:
    testsupport::ProgramResult run(const std::vector<std::string>& arguments, const std::string& input) const
    {
        return testsupport::runProgram(testsupport::builtProgram("git-credential-zarvo"), arguments,
                                       {{"XDG_DATA_HOME", dataHome()}, {"HOME", dataHome()}}, input);
    }
};

TEST_F(CredentialHelperProgramTest, RoundTripsThroughStandardInputAndOutput)
{
    EXPECT_EQ(run({"store"}, "protocol=https\nhost=h\nusername=jo\npassword=p\n").exitStatus, 0);
    const auto got = run({"get"}, "protocol=https\nhost=h\nusername=jo\n\n");
    EXPECT_EQ(got.exitStatus, 0);
    EXPECT_EQ(got.standardOutput, "username=jo\npassword=p\n");
    EXPECT_EQ(got.standardError, "");
}

TEST(CredentialHelperUsageTest, HelpAndUnknownOperationsDoNotWaitForInput)
{
    bool read = false;
    std::string output;
    std::string errors;
    EXPECT_EQ(runCredentialHelper({"--help"}, [&read] { read = true; return std::string(); }, &output, &errors), 0);
    EXPECT_FALSE(read);
    EXPECT_EQ(runCredentialHelper({"frobnicate"}, [&read] { read = true; return std::string(); }, &output, &errors), 0);
    EXPECT_FALSE(read);
}

TEST_F(CredentialHelperProgramTest, RefusesNulBytesAndEndlessLinesWithOneLine)
{
    run({"store"}, "protocol=https\nhost=h\nusername=jo\npassword=kept\n");
    const std::string inputs[] = {
        "protocol=https\nhost=h\nusername=jo\npassword=ne" + std::string(1, '\0') + "w\n",
        "protocol=https\nhost=h\nusername=jo\npassword=" + std::string(1 << 20, 'n') + "\n",
    };
    for (const auto& input : inputs) {
        const auto result = run({"store"}, input);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(std::count(result.standardError.begin(), result.standardError.end(), '\n'), 1);
        EXPECT_THAT(result.standardError, HasSubstr("nothing done"));
    }
    EXPECT_EQ(run({"get"}, "protocol=https\nhost=h\n").standardOutput, "username=jo\npassword=kept\n");
}

}  // namespace
