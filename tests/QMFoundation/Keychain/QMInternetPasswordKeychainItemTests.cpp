#include "QMFoundation/Keychain/QMGenericPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMKeychain.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Security/SecItem.h"
#include "tests/Platform/Security/KeychainSandbox.h"
#include "tests/Support/AssertionCapture.h"

#include <gtest/gtest.h>

using namespace platform;

namespace {

URL url(std::string_view text)
{
    return *URL::fromString(text);
}

std::optional<std::string> passwordFor(std::string_view text)
{
    const auto item = QMKeychain::defaultKeychain()->findInternetPasswordForURL(url(text));
    return item ? item->password() : std::nullopt;
}

class QMInternetPasswordKeychainItemTest : public testsupport::KeychainSandbox {};

TEST(QMInternetPasswordURLMappingTest, AURLMapsToAccountServerProtocolPortAndPath)
{
    EXPECT_EQ(QMInternetPasswordKeychainItem::attributesForURL(url("https://jo@H")),
              (Dictionary{{kSecAttrAccount, "jo"},
                          {kSecAttrServer, "H"},
                          {kSecAttrProtocol, kSecAttrProtocolHTTPS},
                          {kSecAttrPort, 0}}));
    EXPECT_EQ(QMInternetPasswordKeychainItem::attributesForURL(url("ssh://git@host:2222/team/repo.git")),
              (Dictionary{{kSecAttrAccount, "git"},
                          {kSecAttrServer, "host"},
                          {kSecAttrProtocol, kSecAttrProtocolSSH},
                          {kSecAttrPort, 2222},
                          {kSecAttrPath, "/team/repo.git"}}));
}

TEST(QMInternetPasswordURLMappingTest, SchemeCasePortAndPathFollowTheURLAsWritten)
{
    const auto upper = QMInternetPasswordKeychainItem::attributesForURL(url("HTTPS://host"));
    EXPECT_FALSE(upper.contains(kSecAttrProtocol));
    EXPECT_FALSE(QMInternetPasswordKeychainItem::attributesForURL(url("gopher://host")).contains(kSecAttrProtocol));

    EXPECT_EQ(QMInternetPasswordKeychainItem::attributesForURL(url("https://host:8443")).get(kSecAttrPort), Value(8443));
    // The scheme's default port is not filled in.
    EXPECT_EQ(QMInternetPasswordKeychainItem::attributesForURL(url("https://host")).get(kSecAttrPort), Value(0));

    EXPECT_EQ(QMInternetPasswordKeychainItem::attributesForURL(url("https://host/")).get(kSecAttrPath), Value("/"));
    EXPECT_FALSE(QMInternetPasswordKeychainItem::attributesForURL(url("https://host")).contains(kSecAttrPath));

    // No URL at all still asks for port 0.
    EXPECT_EQ(QMInternetPasswordKeychainItem::attributesForURL(std::nullopt), (Dictionary{{kSecAttrPort, 0}}));
}

TEST(QMInternetPasswordURLMappingTest, ProtocolNamesAndValuesMapBothWays)
{
    EXPECT_EQ(QMInternetPasswordKeychainItem::secProtocolTypeForProtocol("ftps"), kSecAttrProtocolFTPS);
    EXPECT_FALSE(QMInternetPasswordKeychainItem::secProtocolTypeForProtocol("Http").has_value());
    EXPECT_FALSE(QMInternetPasswordKeychainItem::secProtocolTypeForProtocol(std::nullopt).has_value());
    EXPECT_EQ(QMInternetPasswordKeychainItem::protocolForSecProtocolType(kSecAttrProtocolFTP), "ftp");
    EXPECT_FALSE(QMInternetPasswordKeychainItem::protocolForSecProtocolType(fourCharCode("smtp")).has_value());
    EXPECT_FALSE(QMInternetPasswordKeychainItem::protocolForSecProtocolType(std::nullopt).has_value());
}

TEST_F(QMInternetPasswordKeychainItemTest, TheResponderLookupFindsWhatWasStoredForTheSameURL)
{
    ASSERT_NE(QMKeychain::defaultKeychain()->addInternetPasswordWithURL(url("https://jo@git.example.com"), "web"),
              nullptr);
    ASSERT_NE(QMKeychain::defaultKeychain()->addInternetPasswordWithURL(url("ssh://jo@git.example.com"), "shell"),
              nullptr);
    EXPECT_EQ(passwordFor("https://jo@git.example.com"), "web");
    EXPECT_EQ(passwordFor("ssh://jo@git.example.com"), "shell");
    // A query without a path matches stored entries with any path; one with
    // a path needs it stored.
    EXPECT_EQ(passwordFor("https://jo@git.example.com/team/repo.git"), std::nullopt);
    EXPECT_EQ(passwordFor("https://jo@git.example.com:443"), std::nullopt);
    EXPECT_EQ(passwordFor("https://ann@git.example.com"), std::nullopt);
    // An unknown scheme leaves the protocol open: the first entry for the
    // account and host answers.
    EXPECT_EQ(passwordFor("gopher://jo@git.example.com"), "web");

    const auto found = QMInternetPasswordKeychainItem::findInternetPasswordForURL(url("ssh://jo@git.example.com"));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->protocol(), "ssh");
    EXPECT_EQ(found->itemAttributes().get(kSecAttrProtocol), Value(kSecAttrProtocolSSH));
    EXPECT_EQ(found->host(), "git.example.com");
    EXPECT_FALSE(found->port().has_value());
}

TEST_F(QMInternetPasswordKeychainItemTest, PortAndPathAreStoredOnlyWhenTheURLHasThem)
{
    ASSERT_NE(QMKeychain::defaultKeychain()->addInternetPasswordWithURL(url("https://jo@host:8443/repo.git"), "pw"),
              nullptr);
    const auto found = QMKeychain::defaultKeychain()->findInternetPasswordForURL(url("https://jo@host:8443/repo.git"));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->port(), 8443);
    EXPECT_EQ(found->path(), "/repo.git");
    // The responder asks without the path and finds it too.
    EXPECT_EQ(passwordFor("https://jo@host:8443"), "pw");
    EXPECT_EQ(passwordFor("https://jo@host"), std::nullopt);
}

TEST_F(QMInternetPasswordKeychainItemTest, StoredValuesOutsideTheTablesReadAsNothing)
{
    const auto item = QMInternetPasswordKeychainItem::create(
        nullptr, Dictionary{{kSecAttrProtocol, fourCharCode("smtp")}, {kSecAttrPort, 0}});
    EXPECT_FALSE(item->protocol().has_value());
    EXPECT_FALSE(item->port().has_value());
}

TEST_F(QMInternetPasswordKeychainItemTest, FindAllWithoutAURLFindsOnlyEntriesWithoutAPort)
{
    const auto keychain = QMKeychain::defaultKeychain();
    ASSERT_NE(keychain->addInternetPasswordWithURL(url("https://jo@a"), "a"), nullptr);
    ASSERT_NE(keychain->addInternetPasswordWithURL(url("https://jo@b:8443"), "b"), nullptr);
    ASSERT_NE(keychain->addInternetPasswordWithURL(url("ftp://ann@c"), "c"), nullptr);

    const auto all = keychain->findAllInternetPasswords();
    ASSERT_TRUE(all.has_value());
    ASSERT_EQ(all->size(), 2u);
    EXPECT_EQ((*all)[0]->host(), "a");
    EXPECT_EQ((*all)[1]->host(), "c");
    EXPECT_EQ(QMInternetPasswordKeychainItem::findAllInternetPasswords()->size(), 2u);

    const auto forURL = keychain->findAllInternetPasswordsForURL(url("https://b:8443"));
    ASSERT_TRUE(forURL.has_value());
    ASSERT_EQ(forURL->size(), 1u);
    EXPECT_EQ(forURL->front()->account(), "jo");
    EXPECT_EQ(QMKeychain::findAllInternetPasswordsForURLInSearchList(url("https://b:8443"))->size(), 1u);
}

// Without a host the query would leave the server open and the first stored
// site would answer: a look-up by such a URL finds nothing at all.
TEST_F(QMInternetPasswordKeychainItemTest, AURLWithoutAHostFindsNothing)
{
    const auto keychain = QMKeychain::defaultKeychain();
    ASSERT_NE(keychain->addInternetPasswordWithURL(url("https://jo@bank.example"), "bank"), nullptr);
    for (const auto* text : {"myserver:repo.git", "mailto:jo@evil.com", "https://", "https://jo@", "ssh://jo@:22", "x:"}) {
        SCOPED_TRACE(text);
        ErrorRef error = Error::create("stale", 1);
        EXPECT_EQ(keychain->findInternetPasswordForURL(url(text), &error), nullptr);
        EXPECT_EQ(error, nullptr);  // not finding is no error
        EXPECT_EQ(QMKeychain::findInternetPasswordForURLInSearchList(url(text)), nullptr);
        const auto all = keychain->findAllInternetPasswordsForURL(url(text));
        ASSERT_TRUE(all.has_value());
        EXPECT_TRUE(all->empty());
    }
}

TEST_F(QMInternetPasswordKeychainItemTest, OnlyStorableURLsMakeItems)
{
    for (const auto* text : {"gopher://jo@host", "HTTPS://jo@host", "file:///tmp/x"}) {
        EXPECT_THROW(QMInternetPasswordKeychainItem::internetPasswordWithKeychain(nullptr, url(text), "pw"), Exception)
            << text;
    }
    EXPECT_THROW(QMInternetPasswordKeychainItem::internetPasswordWithKeychain(nullptr, url("https://jo@host"),
                                                                               std::nullopt),
                 Exception);
    const auto item = QMInternetPasswordKeychainItem::internetPasswordWithKeychain(nullptr, url("https://host"), "pw");
    EXPECT_FALSE(item->account().has_value());
    EXPECT_TRUE(item->isNew());
    EXPECT_EQ(QMInternetPasswordKeychainItem::findAllInternetPasswords()->size(), 0u);  // not saved
}

TEST_F(QMInternetPasswordKeychainItemTest, AMissingURLIsAProgrammingError)
{
    const auto failure =
        testsupport::captureAssertion([] { static_cast<void>(QMInternetPasswordKeychainItem::findInternetPasswordForURL(std::nullopt)); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: URL != nil");
    EXPECT_EQ(failure.file, "QMFoundation/QMInternetPasswordKeychainItem");
}

TEST_F(QMInternetPasswordKeychainItemTest, GenericLookupWithNeitherAccountNorServiceTakesTheFirst)
{
    const auto keychain = QMKeychain::defaultKeychain();
    ASSERT_NE(keychain->addGenericPasswordWithAccount("jo", "first", "1"), nullptr);
    ASSERT_NE(keychain->addGenericPasswordWithAccount(std::nullopt, "second", "2"), nullptr);
    EXPECT_EQ(keychain->findGenericPasswordItemForAccount(std::nullopt, std::nullopt)->password(), "1");
    EXPECT_EQ(keychain->findGenericPasswordItemForAccount(std::nullopt, "second")->password(), "2");
    EXPECT_EQ(QMKeychain::findGenericPasswordItemForAccountInSearchList("jo", std::nullopt)->service(), "first");
}

TEST_F(QMInternetPasswordKeychainItemTest, DescriptionsListThePropertiesInTheirOrder)
{
    const auto item = QMInternetPasswordKeychainItem::internetPasswordWithKeychain(
        nullptr, url("https://jo@host:8443/repo.git"), "hunter2");
    item->setLabel("work");
    const std::string description = item->description();
    EXPECT_EQ(description.rfind("QMInternetPasswordKeychainItem <", 0), 0u) << description;
    const std::string expectedPairs =
        "{ label: work, creationDate: (null), modificationDate: (null), userDescription: (null), comment: (null), "
        "isInvisible: 0, isNegative: 0, account: jo, password: hunter2, securityDomain: (null), host: host, "
        "protocol: https, port: 8443, path: /repo.git }";
    EXPECT_NE(description.find(expectedPairs), std::string::npos) << description;

    const auto representation = item->dictionaryRepresentation();
    EXPECT_EQ(representation.keys(), (std::vector<std::string>{"label", "creationDate", "modificationDate", "account",
                                                                "protocol", "host", "path", "port"}));
    EXPECT_EQ(representation.get("port"), Value("8443"));
    EXPECT_EQ(representation.get("creationDate"), Value("<null>"));

    const auto generic = QMGenericPasswordKeychainItem::genericPasswordItemWithKeychain(nullptr, "jo", "svc", "pw");
    EXPECT_EQ(generic->dictionaryRepresentation().keys(),
              (std::vector<std::string>{"label", "creationDate", "modificationDate", "account", "service"}));
    EXPECT_NE(generic->description().find("account: jo, password: pw, service: svc }"), std::string::npos)
        << generic->description();
}

}  // namespace
