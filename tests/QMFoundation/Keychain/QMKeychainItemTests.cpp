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
#include <fstream>

using namespace platform;

namespace {

template <typename Body>
std::string invalidArgumentReason(Body&& body)
{
    return testsupport::raisedReason(NSInvalidArgumentException, std::forward<Body>(body));
}

class QMKeychainItemTest : public testsupport::KeychainSandbox {};

TEST_F(QMKeychainItemTest, SavingAnUnchangedItemFailsWithoutAnError)
{
    const auto item = QMGenericPasswordKeychainItem::create();
    ErrorRef error = keychainErrorFromOSStatus(errSecParam);
    EXPECT_FALSE(item->save(&error));
    EXPECT_EQ(error, nullptr);
    EXPECT_TRUE(item->isNew());
}

TEST_F(QMKeychainItemTest, ANewItemIsAddedAndThenStored)
{
    const auto item = QMGenericPasswordKeychainItem::genericPasswordItemWithKeychain(nullptr, "jo", "svc", "pw");
    EXPECT_TRUE(item->isNew());
    EXPECT_TRUE(item->isModified());
    EXPECT_EQ(item->keychain(), QMKeychain::defaultKeychain());

    ErrorRef error;
    ASSERT_TRUE(item->save(&error)) << error->description();
    EXPECT_FALSE(item->isNew());
    EXPECT_FALSE(item->isModified());
    EXPECT_EQ(item->password(), "pw");
    EXPECT_NE(item->keychainItemRef(), nullptr);
    EXPECT_TRUE(item->creationDate().has_value());

    const auto found = QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount("jo", "svc");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->password(), "pw");
    EXPECT_EQ(found->service(), "svc");
}

TEST_F(QMKeychainItemTest, AFoundItemIsUpdatedInPlace)
{
    ASSERT_NE(QMGenericPasswordKeychainItem::addGenericPasswordToKeychain(nullptr, "jo", "svc", "old"), nullptr);
    const auto found = QMKeychain::defaultKeychain()->findGenericPasswordItemForAccount("jo", "svc");
    ASSERT_NE(found, nullptr);
    found->setPassword("new");
    found->setLabel("work");
    EXPECT_EQ(found->password(), "new");  // visible before the save
    ASSERT_TRUE(found->save());
    EXPECT_EQ(found->label(), "work");

    const auto all = QMGenericPasswordKeychainItem::findAllGenericPasswordItemsInKeychain(nullptr);
    ASSERT_TRUE(all.has_value());
    ASSERT_EQ(all->size(), 1u);
    EXPECT_TRUE(all->front()->keychainItemRef()->isEqual(*found->keychainItemRef()));
    EXPECT_EQ(QMKeychain::defaultKeychain()->findGenericPasswordItemForAccount("jo", "svc")->password(), "new");
    // A second save of the same item, now with nothing pending, is refused.
    EXPECT_FALSE(found->save());
}

TEST_F(QMKeychainItemTest, AFailedSaveKeepsThePendingChanges)
{
    ASSERT_NE(QMGenericPasswordKeychainItem::addGenericPasswordToKeychain(nullptr, "jo", "svc", "taken"), nullptr);
    const auto item = QMGenericPasswordKeychainItem::genericPasswordItemWithKeychain(nullptr, "jo", "svc", "mine");
    ErrorRef error;
    EXPECT_FALSE(item->save(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), errSecDuplicateItem);
    EXPECT_TRUE(item->isNew());
    EXPECT_EQ(item->modifiedItemAttributes().size(), 3u);

    item->setService("other");
    EXPECT_TRUE(item->save(&error));
    EXPECT_EQ(QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount("jo", "other")->password(), "mine");
}

TEST_F(QMKeychainItemTest, APendingChangeWinsOverTheStoredValue)
{
    const auto item = QMGenericPasswordKeychainItem::create(
        nullptr, Dictionary{{kSecAttrAccount, "stored"}, {kSecAttrLabel, "kept"}});
    EXPECT_FALSE(item->isNew());
    item->setAccount("pending");
    EXPECT_EQ(item->objectForKey(kSecAttrAccount), Value("pending"));
    EXPECT_EQ(item->account(), "pending");
    EXPECT_EQ(item->label(), "kept");
    EXPECT_EQ(item->objectForKey(kSecAttrComment), Value());
}

TEST_F(QMKeychainItemTest, QueriesAreRestrictedOnlyToAKeychainWithAReference)
{
    const Dictionary attributes{{kSecAttrAccount, "jo"},
                                {kSecAttrCreationDate, Date(1)},
                                {kSecAttrModificationDate, Date(2)}};
    const auto forDefault = QMInternetPasswordKeychainItem::queryAttributesWithAttributes(attributes, nullptr);
    EXPECT_EQ(forDefault,
              (Dictionary{{kSecAttrAccount, "jo"},
                          {kSecClass, kSecClassInternetPassword},
                          {kSecMatchLimit, kSecMatchLimitOne},
                          {kSecReturnData, true},
                          {kSecReturnAttributes, true},
                          {kSecReturnRef, true}}));
    EXPECT_EQ(QMInternetPasswordKeychainItem::queryAttributesWithAttributes(attributes, QMKeychain::defaultKeychain()),
              forDefault);

    const auto keychain = QMKeychain::keychainWithPath(sandboxPath("own.keychain"), std::nullopt);
    ASSERT_NE(keychain, nullptr);
    const auto restricted = QMGenericPasswordKeychainItem::queryAttributesWithAttributes(attributes, keychain);
    EXPECT_EQ(restricted.get(kSecClass), Value(kSecClassGenericPassword));
    EXPECT_EQ(restricted.get(kSecUseKeychain), Value(keychain->keychainRef()));
    EXPECT_EQ(restricted.get(kSecMatchSearchList), Value(Array{Value(keychain->keychainRef())}));
    EXPECT_FALSE(restricted.contains(kSecAttrCreationDate));
    EXPECT_FALSE(restricted.contains(kSecAttrModificationDate));

    // An instance builds its query for its own class and keychain.
    const auto item = QMGenericPasswordKeychainItem::create(keychain);
    EXPECT_EQ(item->queryAttributesWithAttributes(attributes), restricted);
}

TEST_F(QMKeychainItemTest, SettersSkipOrRefuseMissingValuesAsEachPropertySays)
{
    const auto item = QMInternetPasswordKeychainItem::create();
    item->setAccount("jo");
    item->setAccount(std::nullopt);
    EXPECT_EQ(item->account(), "jo");
    item->setPort(0);
    item->setPort(std::nullopt);
    item->setPath("");
    item->setPath(std::nullopt);
    EXPECT_EQ(item->modifiedItemAttributes().size(), 1u);

    EXPECT_NE(invalidArgumentReason([&] { item->setLabel(std::nullopt); }).find("lab"), std::string::npos);
    invalidArgumentReason([&] { item->setPassword(std::nullopt); });
    invalidArgumentReason([&] { item->setHost(std::nullopt); });
    invalidArgumentReason([&] { item->setProtocol("gopher"); });
    invalidArgumentReason([&] { item->setObject(Value(), kSecAttrComment); });
    EXPECT_EQ(item->modifiedItemAttributes().size(), 1u);
}

TEST_F(QMKeychainItemTest, ACreatorSetOnTheItemIsNeverStored)
{
    const auto item = QMGenericPasswordKeychainItem::genericPasswordItemWithKeychain(nullptr, "jo", "svc", "pw");
    item->setCreator(0x5A52564F);
    EXPECT_FALSE(item->creator().has_value());
    ASSERT_TRUE(item->save());
    const auto found = QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount("jo", "svc");
    EXPECT_FALSE(found->creator().has_value());
    // Only the attribute itself reads back.
    found->setObject(Value(0x5A52564F), kSecAttrCreator);
    EXPECT_EQ(found->creator(), 0x5A52564Fu);
}

TEST_F(QMKeychainItemTest, FlagsReadFalseUntilSetAndSurviveASave)
{
    const auto item = QMGenericPasswordKeychainItem::genericPasswordItemWithKeychain(nullptr, "jo", "svc", "pw");
    EXPECT_FALSE(item->isInvisible());
    EXPECT_FALSE(item->isNegative());
    item->setInvisible(true);
    item->setUserDescription("shown in lists");
    item->setComment("note");
    ASSERT_TRUE(item->save());
    const auto found = QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount("jo", "svc");
    EXPECT_TRUE(found->isInvisible());
    EXPECT_FALSE(found->isNegative());
    EXPECT_EQ(found->userDescription(), "shown in lists");
    EXPECT_EQ(found->comment(), "note");
}

TEST_F(QMKeychainItemTest, PasswordDataThatIsNotUtf8ReadsAsNothing)
{
    const auto item = QMGenericPasswordKeychainItem::create(nullptr, Dictionary{{kSecValueData, Data{0xff, 0xfe, 'a'}}});
    EXPECT_FALSE(item->password().has_value());
    EXPECT_FALSE(QMGenericPasswordKeychainItem::create()->password().has_value());
}

TEST_F(QMKeychainItemTest, ItemsFromAFindAllCarryNoPassword)
{
    ASSERT_NE(QMGenericPasswordKeychainItem::addGenericPasswordToKeychain(nullptr, "jo", "svc", "pw"), nullptr);
    const auto all = QMKeychain::defaultKeychain()->findAllGenericPasswords();
    ASSERT_TRUE(all.has_value());
    ASSERT_EQ(all->size(), 1u);
    EXPECT_FALSE(all->front()->password().has_value());
    EXPECT_EQ(all->front()->account(), "jo");
    // It can still be changed and saved through its reference.
    all->front()->setPassword("changed");
    ASSERT_TRUE(all->front()->save());
    EXPECT_EQ(QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount("jo", "svc")->password(), "changed");
}

TEST_F(QMKeychainItemTest, FindingNothingClearsTheErrorAndFindAllGivesAnEmptyList)
{
    ErrorRef error = keychainErrorFromOSStatus(errSecParam);
    EXPECT_EQ(QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount("nobody", std::nullopt, &error), nullptr);
    EXPECT_EQ(error, nullptr);

    error = keychainErrorFromOSStatus(errSecParam);
    const auto all = QMGenericPasswordKeychainItem::findAllGenericPasswordItemsInKeychain(nullptr, &error);
    ASSERT_TRUE(all.has_value());
    EXPECT_TRUE(all->empty());
    EXPECT_NE(error, nullptr);  // left as it was
}

TEST_F(QMKeychainItemTest, AKeychainFailureIsReportedAndNotTakenForNotFound)
{
    std::filesystem::create_directories(dataHome() + "/keychains");
    std::ofstream(defaultKeychainPath()) << "this is not a keychain";
    ErrorRef error;
    EXPECT_EQ(QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount("jo", "svc", &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), errSecInvalidKeychain);
    error = nullptr;
    EXPECT_FALSE(QMKeychain::defaultKeychain()->findAllGenericPasswords(&error).has_value());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), errSecInvalidKeychain);
}

TEST_F(QMKeychainItemTest, DestroyLooksOnlyAtTheLowByteOfTheStatus)
{
    const auto item = QMGenericPasswordKeychainItem::addGenericPasswordToKeychain(nullptr, "jo", "svc", "pw");
    ASSERT_NE(item, nullptr);
    ErrorRef error;
    EXPECT_TRUE(item->destroy(&error));
    EXPECT_FALSE(item->isNew());  // the attributes are kept
    EXPECT_EQ(QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount("jo", "svc"), nullptr);

    // Gone now: -25300, whose low byte is 0x2C.
    EXPECT_FALSE(item->destroy(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 44);
    EXPECT_EQ(error->domain(), "QMKeychainErrorDomain");
    EXPECT_TRUE(error->userInfo().empty());  // 44 is no keychain status
}

TEST_F(QMKeychainItemTest, DestroyingAnEntryNeverStoredDeletesNothing)
{
    ASSERT_NE(QMGenericPasswordKeychainItem::addGenericPasswordToKeychain(nullptr, "jo", "svc", "pw"), nullptr);
    const auto unsaved = QMGenericPasswordKeychainItem::genericPasswordItemWithKeychain(nullptr, "someone", "other", "x");
    ErrorRef error;
    EXPECT_FALSE(unsaved->destroy(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), 44);
    EXPECT_NE(QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount("jo", "svc"), nullptr);
}

TEST_F(QMKeychainItemTest, AnItemWithAReferenceButNoKeychainBelongsToTheReferencedKeychain)
{
    const auto keychain = QMKeychain::keychainWithPath(sandboxPath("own.keychain"), std::nullopt);
    ASSERT_NE(keychain, nullptr);
    const auto added = keychain->addGenericPasswordWithAccount("jo", "svc", "pw");
    ASSERT_NE(added, nullptr);

    const auto item = QMGenericPasswordKeychainItem::create(nullptr, added->itemAttributes());
    ASSERT_NE(item->keychain(), nullptr);
    EXPECT_FALSE(item->keychain()->isDefaultKeychain());
    EXPECT_EQ(item->keychain()->path(), sandboxPath("own.keychain"));
    // Without a reference it falls back to the shared default keychain.
    EXPECT_EQ(QMGenericPasswordKeychainItem::create(nullptr, Dictionary{{kSecAttrAccount, "jo"}})->keychain(),
              QMKeychain::defaultKeychain());

    item->setPassword("changed through the reference");
    ASSERT_TRUE(item->save());
    EXPECT_EQ(keychain->findGenericPasswordItemForAccount("jo", "svc")->password(), "changed through the reference");
}

TEST(QMKeychainItemTypeTest, TheItemKindNamesArePublished)
{
    EXPECT_EQ(QMKeychainItemTypeInternetPassword, "QMKeychainItemTypeInternetPassword");
    EXPECT_EQ(QMKeychainItemTypeGeneric, "QMKeychainItemTypeGeneric");
    EXPECT_TRUE(QMKeychainItem::keychainItemTypeRef().isNothing());
    EXPECT_EQ(QMInternetPasswordKeychainItem::create()->valueForKey("keychainItemTypeRef"),
              Value(kSecClassInternetPassword));
}

}  // namespace
