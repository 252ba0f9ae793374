#include "QMFoundation/Keychain/NSError+QMKeychain.h"
#include "QMFoundation/Keychain/QMGenericPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMKeychain.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Security/SecItem.h"
#include "tests/Platform/Security/KeychainSandbox.h"
#include "tests/Support/AssertionCapture.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace platform;

namespace {

URL url(std::string_view text)
{
    return *URL::fromString(text);
}

class QMKeychainTest : public testsupport::KeychainSandbox {};

TEST_F(QMKeychainTest, TheDefaultKeychainIsOneSharedObjectForTheSearchList)
{
    const auto keychain = QMKeychain::defaultKeychain();
    EXPECT_EQ(keychain, QMKeychain::defaultKeychain());
    EXPECT_TRUE(keychain->isDefaultKeychain());
    EXPECT_EQ(keychain->keychainRef(), nullptr);
    EXPECT_FALSE(keychain->path().has_value());
    EXPECT_NE(QMKeychain::create(), keychain);
    EXPECT_TRUE(QMKeychain::create()->isDefaultKeychain());
}

TEST(QMKeychainProtocolTest, OnlyTheFiveLowerCaseProtocolsAreSupported)
{
    for (const auto* protocol : {"ftp", "ftps", "http", "https", "ssh"}) {
        EXPECT_TRUE(QMKeychain::supportsProtocol(std::string(protocol))) << protocol;
    }
    for (const auto* protocol : {"HTTPS", "Ssh", "git", "file", "", "https "}) {
        EXPECT_FALSE(QMKeychain::supportsProtocol(std::string(protocol))) << protocol;
    }
    EXPECT_FALSE(QMKeychain::supportsProtocol(std::nullopt));
}

TEST(QMKeychainErrorTest, AStatusBecomesAnErrorWithTheKeychainsMessage)
{
    const auto notFound = keychainErrorFromOSStatus(errSecItemNotFound);
    EXPECT_EQ(notFound->domain(), "QMKeychainErrorDomain");
    EXPECT_EQ(notFound->code(), -25300);
    const auto message = SecCopyErrorMessageString(errSecItemNotFound);
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(notFound->userInfo().get(NSLocalizedDescriptionKey), Value(*message));
    EXPECT_EQ(notFound->userInfo().get(NSLocalizedFailureReasonErrorKey), Value(*message));

    const auto unknown = keychainErrorFromOSStatus(12345);
    EXPECT_EQ(unknown->code(), 12345);
    EXPECT_TRUE(unknown->userInfo().empty());
}

TEST_F(QMKeychainTest, CreateOrUpdateAddsOnceThenUpdatesTheSameItem)
{
    const auto keychain = QMKeychain::defaultKeychain();
    ErrorRef error = keychainErrorFromOSStatus(errSecParam);  // stale; must not survive
    const auto added = keychain->createOrUpdateInternetPasswordWithURL(url("https://jo@git.example.com"), "one", &error);
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(error, nullptr);

    const auto updated = keychain->createOrUpdateInternetPasswordWithURL(url("https://jo@git.example.com"), "two", &error);
    ASSERT_NE(updated, nullptr);
    EXPECT_EQ(updated->password(), "two");
    EXPECT_TRUE(updated->keychainItemRef()->isEqual(*added->keychainItemRef()));
    const auto all = keychain->findAllInternetPasswords(&error);
    ASSERT_TRUE(all.has_value());
    ASSERT_EQ(all->size(), 1u);
    EXPECT_EQ(keychain->findInternetPasswordForURL(url("https://jo@git.example.com"))->password(), "two");

    ASSERT_NE(keychain->createOrUpdateGenericPasswordWithAccount("jo", "svc", "g1", &error), nullptr);
    ASSERT_NE(keychain->createOrUpdateGenericPasswordWithAccount("jo", "svc", "g2", &error), nullptr);
    EXPECT_EQ(keychain->findAllGenericPasswords()->size(), 1u);
    EXPECT_EQ(keychain->findGenericPasswordItemForAccount("jo", "svc")->password(), "g2");
}

TEST_F(QMKeychainTest, AddingADuplicateFailsWithTheKeychainError)
{
    const auto keychain = QMKeychain::defaultKeychain();
    ASSERT_NE(keychain->addGenericPasswordWithAccount("jo", "svc", "first"), nullptr);
    ErrorRef error;
    EXPECT_EQ(keychain->addGenericPasswordWithAccount("jo", "svc", "second", &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), "QMKeychainErrorDomain");
    EXPECT_EQ(error->code(), errSecDuplicateItem);
}

TEST_F(QMKeychainTest, TheDefaultKeychainCannotBeDestroyed)
{
    try {
        static_cast<void>(QMKeychain::defaultKeychain()->destroy());
        FAIL() << "destroying the default keychain did not raise";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), NSInvalidArgumentException);
        EXPECT_EQ(exception.reason(), "The user's default keychain cannot be deleted.");
    }
}

TEST_F(QMKeychainTest, AKeychainMadeAtAPathHoldsItsOwnItemsUntilDestroyed)
{
    const std::string path = sandboxPath("work.keychain");
    ErrorRef error;
    const auto keychain = QMKeychain::keychainWithPath(path, std::nullopt, &error);
    ASSERT_NE(keychain, nullptr) << (error ? error->description() : "");
    EXPECT_FALSE(keychain->isDefaultKeychain());
    EXPECT_EQ(keychain->path(), path);

    ASSERT_NE(keychain->addInternetPasswordWithURL(url("https://jo@host"), "private"), nullptr);
    EXPECT_EQ(keychain->findInternetPasswordForURL(url("https://jo@host"))->password(), "private");
    // Kept apart from the default search list.
    EXPECT_EQ(QMKeychain::defaultKeychain()->findInternetPasswordForURL(url("https://jo@host")), nullptr);
    EXPECT_EQ(QMKeychain::findInternetPasswordForURLInSearchList(url("https://jo@host")), nullptr);

    EXPECT_EQ(QMKeychain::keychainWithPath(path, std::nullopt, &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), errSecDuplicateKeychain);

    EXPECT_TRUE(keychain->destroy(&error));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_FALSE(keychain->destroy(&error));
    EXPECT_EQ(error->code(), errSecNoSuchKeychain);
}

TEST_F(QMKeychainTest, APasswordProtectedKeychainIsUsableByItsCreator)
{
    const auto keychain = QMKeychain::keychainWithPath(sandboxPath("locked.keychain"), std::string("pw"));
    ASSERT_NE(keychain, nullptr);
    ASSERT_NE(keychain->addGenericPasswordWithAccount("jo", "svc", "inside"), nullptr);
    EXPECT_EQ(keychain->findGenericPasswordItemForAccount("jo", "svc")->password(), "inside");

    ASSERT_EQ(SecKeychainLock(keychain->keychainRef()), errSecSuccess);
    ErrorRef error;
    EXPECT_EQ(keychain->findGenericPasswordItemForAccount("jo", "svc", &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), errSecInteractionNotAllowed);
}

TEST_F(QMKeychainTest, AMissingPathIsAProgrammingError)
{
    const auto failure = testsupport::captureAssertion([] { static_cast<void>(QMKeychain::keychainWithPath(std::nullopt, std::nullopt)); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: path != nil");
    EXPECT_EQ(failure.file, "QMFoundation/QMKeychain");
}

TEST_F(QMKeychainTest, AKeychainWhosePathCannotBeReadRaises)
{
    SecKeychainRef longPath;
    ASSERT_EQ(SecKeychainOpen(("/" + std::string(1100, 'k')).c_str(), &longPath), errSecSuccess);
    try {
        QMKeychain::keychainWithKeychainRef(longPath);
        FAIL() << "no exception";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), NSInternalInconsistencyException);
        EXPECT_EQ(exception.reason(), *SecCopyErrorMessageString(errSecParam));
        EXPECT_TRUE(exception.userInfo().empty());
    }
}

TEST_F(QMKeychainTest, DescriptionNamesThePathAndWhetherItIsTheDefault)
{
    const auto keychain = QMKeychain::keychainWithPath(sandboxPath("d.keychain"), std::nullopt);
    ASSERT_NE(keychain, nullptr);
    const std::string description = keychain->description();
    EXPECT_EQ(description.rfind("QMKeychain <", 0), 0u) << description;
    EXPECT_NE(description.find("{ path: " + sandboxPath("d.keychain") + ", isDefaultKeychain: 0 }"),
              std::string::npos)
        << description;
}

}  // namespace
