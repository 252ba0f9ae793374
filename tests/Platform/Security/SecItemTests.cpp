#include "Platform/Security/SecItem.h"
#include "Platform/Security/SecKeychain.h"

#include "tests/Platform/Security/KeychainSandbox.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using namespace platform;

namespace {

Data bytes(std::string_view text)
{
    return Data(text.begin(), text.end());
}

Dictionary internetPassword(std::string_view account, std::string_view server, std::int64_t port,
                            std::string_view secret, std::uint32_t protocol = kSecAttrProtocolHTTPS)
{
    return Dictionary{{kSecClass, kSecClassInternetPassword},
                      {kSecAttrAccount, account},
                      {kSecAttrServer, server},
                      {kSecAttrProtocol, protocol},
                      {kSecAttrPort, port},
                      {kSecValueData, bytes(secret)}};
}

Dictionary genericPassword(std::string_view account, std::string_view service, std::string_view secret)
{
    return Dictionary{{kSecClass, kSecClassGenericPassword},
                      {kSecAttrAccount, account},
                      {kSecAttrService, service},
                      {kSecValueData, bytes(secret)}};
}

Dictionary with(Dictionary dictionary, std::string_view key, Value value)
{
    dictionary.set(key, std::move(value));
    return dictionary;
}

// The secret the search finds, or the status as text when it fails.
std::string secretOrStatus(Dictionary query)
{
    query.set(kSecReturnData, true);
    Value result;
    const OSStatus status = SecItemCopyMatching(query, &result);
    if (status != errSecSuccess) {
        return "status " + std::to_string(status);
    }
    return result.data() != nullptr ? std::string(result.data()->begin(), result.data()->end()) : "no data";
}

std::size_t countMatching(Dictionary query)
{
    query.set(kSecMatchLimit, kSecMatchLimitAll);
    Value result;
    if (SecItemCopyMatching(query, &result) != errSecSuccess) {
        return 0;
    }
    return result.array() != nullptr ? result.array()->size() : 0;
}

const Dictionary kAllInternetPasswords{{kSecClass, kSecClassInternetPassword}};

class SecItemTest : public testsupport::KeychainSandbox {};

TEST_F(SecItemTest, SearchMatchesEveryGivenAttributeExactly)
{
    ASSERT_EQ(SecItemAdd(internetPassword("jo", "host", 0, "https-0"), nullptr), errSecSuccess);
    ASSERT_EQ(SecItemAdd(internetPassword("jo", "host", 8443, "https-8443"), nullptr), errSecSuccess);
    ASSERT_EQ(SecItemAdd(internetPassword("ann", "host", 0, "ann"), nullptr), errSecSuccess);
    ASSERT_EQ(SecItemAdd(internetPassword("jo", "host", 0, "http-0", kSecAttrProtocolHTTP), nullptr), errSecSuccess);

    const Dictionary jo{{kSecClass, kSecClassInternetPassword}, {kSecAttrAccount, "jo"}, {kSecAttrServer, "host"}};
    EXPECT_EQ(secretOrStatus(with(with(jo, kSecAttrProtocol, kSecAttrProtocolHTTPS), kSecAttrPort, 0)), "https-0");
    EXPECT_EQ(secretOrStatus(with(jo, kSecAttrPort, 8443)), "https-8443");
    EXPECT_EQ(secretOrStatus(with(with(jo, kSecAttrProtocol, kSecAttrProtocolHTTP), kSecAttrPort, 0)), "http-0");
    // Without a protocol both protocols match; the first one added wins.
    EXPECT_EQ(secretOrStatus(with(jo, kSecAttrPort, 0)), "https-0");
    EXPECT_EQ(countMatching(with(jo, kSecAttrPort, 0)), 2u);
    // Text compares exactly.
    EXPECT_EQ(secretOrStatus(with(jo, kSecAttrAccount, "JO")), "status -25300");
    EXPECT_EQ(secretOrStatus(with(jo, kSecAttrPort, 443)), "status -25300");
    // Absent primary-key attributes are stored as empty, so they can be asked for.
    EXPECT_EQ(countMatching(with(jo, kSecAttrPath, "")), 3u);
    EXPECT_EQ(countMatching(with(jo, kSecAttrPath, "/repo")), 0u);
}

// Added in an order that is not the order of the keychain's index (by
// account), so only putting the matches in insertion order gives these.
TEST_F(SecItemTest, MatchesComeInTheOrderTheyWereAddedWhateverTheQueryNames)
{
    for (const auto* account : {"zed", "amy", "mia"}) {
        ASSERT_EQ(SecItemAdd(internetPassword(account, "host", 0, account), nullptr), errSecSuccess);
        ASSERT_EQ(SecItemAdd(genericPassword(account, "svc", account), nullptr), errSecSuccess);
    }
    const auto accountsOf = [](Dictionary query, Value limit) {
        query.set(kSecMatchLimit, std::move(limit));
        query.set(kSecReturnAttributes, true);
        Value result;
        std::vector<std::string> accounts;
        if (SecItemCopyMatching(query, &result) == errSecSuccess && result.array() != nullptr) {
            for (const auto& item : *result.array()) {
                accounts.push_back(*item.dictionary()->get(kSecAttrAccount).string());
            }
        }
        return accounts;
    };
    const std::vector<std::string> added{"zed", "amy", "mia"};
    const std::vector<std::string> firstTwo{"zed", "amy"};
    const Dictionary byServer{{kSecClass, kSecClassInternetPassword}, {kSecAttrServer, "host"}};
    const Dictionary byService{{kSecClass, kSecClassGenericPassword}, {kSecAttrService, "svc"}};
    for (const auto& query : {byServer, byService, kAllInternetPasswords}) {
        EXPECT_EQ(secretOrStatus(query), "zed");
        EXPECT_EQ(accountsOf(query, kSecMatchLimitAll), added);
        EXPECT_EQ(accountsOf(query, 2), firstTwo);
    }
    // A limited delete takes the first added too.
    ASSERT_EQ(SecItemDelete(with(byServer, kSecMatchLimit, kSecMatchLimitOne)), errSecSuccess);
    EXPECT_EQ(secretOrStatus(byServer), "amy");
}

TEST_F(SecItemTest, ClassesAreSeparateAndAttributesBelongToTheirClass)
{
    ASSERT_EQ(SecItemAdd(genericPassword("jo", "host", "generic"), nullptr), errSecSuccess);
    EXPECT_EQ(secretOrStatus({{kSecClass, kSecClassInternetPassword}, {kSecAttrAccount, "jo"}}), "status -25300");
    EXPECT_EQ(secretOrStatus({{kSecClass, kSecClassGenericPassword}, {kSecAttrAccount, "jo"}}), "generic");
    EXPECT_EQ(SecItemCopyMatching({{kSecClass, kSecClassGenericPassword}, {kSecAttrServer, "host"}}, nullptr),
              errSecNoSuchAttr);
    EXPECT_EQ(SecItemAdd(with(internetPassword("jo", "h", 0, "x"), kSecAttrService, "s"), nullptr), errSecNoSuchAttr);
}

TEST_F(SecItemTest, MalformedQueriesAreRejectedWithoutTouchingTheKeychain)
{
    EXPECT_EQ(SecItemCopyMatching({{kSecAttrAccount, "jo"}}, nullptr), errSecParam);
    EXPECT_EQ(SecItemCopyMatching({{kSecClass, "cert"}}, nullptr), errSecNoSuchClass);
    EXPECT_EQ(SecItemCopyMatching(with(kAllInternetPasswords, kSecAttrPort, "443"), nullptr), errSecParam);
    EXPECT_EQ(SecItemCopyMatching(with(kAllInternetPasswords, kSecAttrServer, 7), nullptr), errSecParam);
    EXPECT_EQ(SecItemCopyMatching(with(kAllInternetPasswords, "nonsense", "x"), nullptr), errSecParam);
    EXPECT_EQ(SecItemCopyMatching(with(kAllInternetPasswords, kSecMatchLimit, 0), nullptr), errSecParam);
    EXPECT_EQ(SecItemCopyMatching(with(kAllInternetPasswords, kSecMatchSearchList, Array{"not a keychain"}), nullptr),
              errSecParam);
    EXPECT_EQ(SecItemAdd(with(internetPassword("jo", "h", 0, "x"), kSecValueData, "text, not data"), nullptr),
              errSecParam);
    EXPECT_FALSE(std::filesystem::exists(defaultKeychainPath()));
}

TEST_F(SecItemTest, EachKeyOfAQueryRefusesAValueOfTheWrongKind)
{
    struct Row {
        std::string_view key;
        Value value;
    };
    const Row rows[] = {
        {kSecClass, 7},
        {kSecAttrAccount, Value()},
        {kSecReturnData, "yes"},
        {kSecReturnAttributes, Array{}},
        {kSecReturnRef, "no"},
        {kSecMatchLimit, "m_LimitSome"},
        {kSecMatchLimit, true},
        {kSecMatchLimit, -1},
        {kSecValueRef, "not an item"},
        {kSecValueData, 7},
        {kSecMatchSearchList, "not a list"},
        {kSecUseKeychain, "/not/a/keychain/object"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.key) + " = " + row.value.description());
        EXPECT_EQ(SecItemCopyMatching(with(kAllInternetPasswords, row.key, row.value), nullptr), errSecParam);
    }
    EXPECT_FALSE(std::filesystem::exists(defaultKeychainPath()));
}

TEST_F(SecItemTest, AnUpdatesChangesRefuseTheKeysThatOnlyFindOrReturn)
{
    ASSERT_EQ(SecItemAdd(internetPassword("jo", "one", 0, "old"), nullptr), errSecSuccess);
    const Dictionary one{{kSecClass, kSecClassInternetPassword}, {kSecAttrServer, "one"}};
    Value item;
    ASSERT_EQ(SecItemCopyMatching(with(one, kSecReturnRef, true), &item), errSecSuccess);
    const std::pair<std::string_view, Value> searchOnly[] = {
        {kSecReturnData, true},       {kSecReturnAttributes, true}, {kSecReturnRef, true},
        {kSecMatchLimit, kSecMatchLimitAll}, {kSecValueRef, item},
    };
    for (const auto& [key, value] : searchOnly) {
        SCOPED_TRACE(key);
        EXPECT_EQ(SecItemUpdate(one, {{key, value}, {kSecValueData, bytes("new")}}), errSecParam);
    }
    EXPECT_EQ(secretOrStatus(one), "old") << "a refused update changes nothing";
}

TEST_F(SecItemTest, ResultsTakeTheShapeOfWhatWasAskedFor)
{
    ASSERT_EQ(SecItemAdd(internetPassword("jo", "one", 0, "first"), nullptr), errSecSuccess);
    ASSERT_EQ(SecItemAdd(internetPassword("jo", "two", 0, "second"), nullptr), errSecSuccess);

    Value result;
    ASSERT_EQ(SecItemCopyMatching(with(kAllInternetPasswords, kSecReturnAttributes, true), &result), errSecSuccess);
    const auto* attributes = result.dictionary();
    ASSERT_NE(attributes, nullptr);
    EXPECT_EQ(attributes->get(kSecClass), Value(kSecClassInternetPassword));
    EXPECT_EQ(attributes->get(kSecAttrServer), Value("one"));
    EXPECT_EQ(attributes->get(kSecAttrPath), Value(""));
    EXPECT_NE(attributes->get(kSecAttrCreationDate).date(), nullptr);
    EXPECT_FALSE(attributes->contains(kSecValueData));
    EXPECT_FALSE(attributes->contains(kSecAttrLabel));  // never set, so not reported

    ASSERT_EQ(SecItemCopyMatching(with(kAllInternetPasswords, kSecReturnRef, true), &result), errSecSuccess);
    EXPECT_NE(result.objectAs<SecKeychainItem>(), nullptr);

    // Without return keys only the status tells.
    result = Value("untouched");
    ASSERT_EQ(SecItemCopyMatching(kAllInternetPasswords, &result), errSecSuccess);
    EXPECT_TRUE(result.isNothing());

    Dictionary everything = with(with(with(kAllInternetPasswords, kSecReturnData, true), kSecReturnRef, true),
                                 kSecMatchLimit, kSecMatchLimitAll);
    ASSERT_EQ(SecItemCopyMatching(everything, &result), errSecSuccess);
    ASSERT_NE(result.array(), nullptr);
    ASSERT_EQ(result.array()->size(), 2u);
    const auto& second = *(*result.array())[1].dictionary();
    EXPECT_EQ(second.get(kSecValueData), Value(bytes("second")));
    EXPECT_NE(second.get(kSecValueRef).objectAs<SecKeychainItem>(), nullptr);
    EXPECT_FALSE(second.contains(kSecAttrServer));  // attributes were not asked for

    ASSERT_EQ(SecItemCopyMatching(with(everything, kSecMatchLimit, 1), &result), errSecSuccess);
    EXPECT_EQ(result.array()->size(), 1u);
}

TEST_F(SecItemTest, AddReturnsTheStoredItemWithTheStoreDefaultsAndDates)
{
    Value added;
    const Date before = Date::now();
    ASSERT_EQ(SecItemAdd(with(with(with(genericPassword("jo", "svc", "pw"), kSecReturnAttributes, true),
                                   kSecReturnData, true),
                              kSecAttrCreationDate, Date(0)),
                         &added),
              errSecSuccess);
    const auto* item = added.dictionary();
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->get(kSecValueData), Value(bytes("pw")));
    // The store keeps its own dates; the given one is ignored.
    ASSERT_NE(item->get(kSecAttrCreationDate).date(), nullptr);
    EXPECT_GE(*item->get(kSecAttrCreationDate).date(), before.dateByAddingTimeInterval(-1));
    EXPECT_EQ(item->get(kSecAttrCreationDate), item->get(kSecAttrModificationDate));
    EXPECT_FALSE(item->contains(kSecAttrServer));  // internet attributes are not a generic password's
}

TEST_F(SecItemTest, AnEqualPrimaryKeyIsADuplicate)
{
    ASSERT_EQ(SecItemAdd(internetPassword("jo", "host", 0, "original"), nullptr), errSecSuccess);
    // Label and secret are not part of the key.
    EXPECT_EQ(SecItemAdd(with(internetPassword("jo", "host", 0, "other"), kSecAttrLabel, "x"), nullptr),
              errSecDuplicateItem);
    EXPECT_EQ(secretOrStatus(kAllInternetPasswords), "original");
    // Each key attribute tells items apart, an explicit empty one included.
    EXPECT_EQ(SecItemAdd(with(internetPassword("jo", "host", 0, "p"), kSecAttrPath, "/repo"), nullptr), errSecSuccess);
    EXPECT_EQ(SecItemAdd(with(internetPassword("jo", "host", 0, "d"), kSecAttrSecurityDomain, "realm"), nullptr),
              errSecSuccess);
    EXPECT_EQ(SecItemAdd(with(internetPassword("jo", "host", 0, "a"), kSecAttrAuthenticationType,
                              kSecAttrAuthenticationTypeDefault),
                         nullptr),
              errSecSuccess);
    EXPECT_EQ(SecItemAdd(with(internetPassword("jo", "host", 0, "e"), kSecAttrPath, ""), nullptr), errSecDuplicateItem);

    ASSERT_EQ(SecItemAdd(genericPassword("jo", "svc", "g"), nullptr), errSecSuccess);
    EXPECT_EQ(SecItemAdd(genericPassword("jo", "svc", "g2"), nullptr), errSecDuplicateItem);
    EXPECT_EQ(SecItemAdd(genericPassword("jo", "svc2", "g3"), nullptr), errSecSuccess);
    EXPECT_EQ(SecItemAdd(genericPassword("ann", "svc", "g4"), nullptr), errSecSuccess);
}

TEST_F(SecItemTest, UpdateChangesTheMatchedItemsAndKeepsTheCreationDate)
{
    Value first;
    ASSERT_EQ(SecItemAdd(with(internetPassword("jo", "one", 0, "old"), kSecReturnAttributes, true), &first),
              errSecSuccess);
    ASSERT_EQ(SecItemAdd(internetPassword("jo", "two", 0, "untouched"), nullptr), errSecSuccess);

    const Dictionary one{{kSecClass, kSecClassInternetPassword}, {kSecAttrServer, "one"}};
    ASSERT_EQ(SecItemUpdate(one, {{kSecValueData, bytes("new")}, {kSecAttrLabel, "renamed"}}), errSecSuccess);
    EXPECT_EQ(secretOrStatus(one), "new");
    EXPECT_EQ(secretOrStatus({{kSecClass, kSecClassInternetPassword}, {kSecAttrServer, "two"}}), "untouched");

    Value updated;
    ASSERT_EQ(SecItemCopyMatching(with(one, kSecReturnAttributes, true), &updated), errSecSuccess);
    EXPECT_EQ(updated.dictionary()->get(kSecAttrLabel), Value("renamed"));
    EXPECT_EQ(updated.dictionary()->get(kSecAttrCreationDate), first.dictionary()->get(kSecAttrCreationDate));
    EXPECT_GE(*updated.dictionary()->get(kSecAttrModificationDate).date(),
              *first.dictionary()->get(kSecAttrModificationDate).date());

    EXPECT_EQ(SecItemUpdate({{kSecClass, kSecClassInternetPassword}, {kSecAttrServer, "none"}},
                            {{kSecAttrLabel, "x"}}),
              errSecItemNotFound);
    EXPECT_EQ(SecItemUpdate(one, {{kSecClass, kSecClassGenericPassword}}), errSecParam);
    EXPECT_EQ(SecItemUpdate(one, {{kSecAttrService, "svc"}}), errSecNoSuchAttr);
}

TEST_F(SecItemTest, AnUpdateThatWouldDuplicateAKeyChangesNothing)
{
    ASSERT_EQ(SecItemAdd(internetPassword("jo", "one", 0, "first"), nullptr), errSecSuccess);
    ASSERT_EQ(SecItemAdd(internetPassword("jo", "two", 0, "second"), nullptr), errSecSuccess);
    EXPECT_EQ(SecItemUpdate({{kSecClass, kSecClassInternetPassword}, {kSecAttrServer, "two"}},
                            {{kSecAttrServer, "one"}, {kSecValueData, bytes("clobbered")}}),
              errSecDuplicateItem);
    EXPECT_EQ(secretOrStatus({{kSecClass, kSecClassInternetPassword}, {kSecAttrServer, "one"}}), "first");
    EXPECT_EQ(secretOrStatus({{kSecClass, kSecClassInternetPassword}, {kSecAttrServer, "two"}}), "second");
}

TEST_F(SecItemTest, AnItemReferenceNarrowsUpdateAndDeleteToThatItem)
{
    Value reference;
    ASSERT_EQ(SecItemAdd(with(internetPassword("jo", "host", 0, "a"), kSecReturnRef, true), &reference),
              errSecSuccess);
    ASSERT_EQ(SecItemAdd(internetPassword("jo", "host", 8080, "b"), nullptr), errSecSuccess);
    ASSERT_NE(reference.objectAs<SecKeychainItem>(), nullptr);

    const Dictionary byReference{{kSecClass, kSecClassInternetPassword}, {kSecValueRef, reference}};
    ASSERT_EQ(SecItemUpdate(byReference, {{kSecValueData, bytes("a2")}}), errSecSuccess);
    EXPECT_EQ(secretOrStatus(with(kAllInternetPasswords, kSecAttrPort, 0)), "a2");
    EXPECT_EQ(secretOrStatus(with(kAllInternetPasswords, kSecAttrPort, 8080)), "b");

    ASSERT_EQ(SecItemDelete(byReference), errSecSuccess);
    EXPECT_EQ(countMatching(kAllInternetPasswords), 1u);
    // The row is gone and its number is never handed out again.
    EXPECT_EQ(SecItemDelete(byReference), errSecItemNotFound);
    ASSERT_EQ(SecItemAdd(internetPassword("jo", "host", 0, "again"), nullptr), errSecSuccess);
    EXPECT_EQ(secretOrStatus(byReference), "status -25300");
}

TEST_F(SecItemTest, DeleteRemovesEveryMatchUnlessLimited)
{
    for (const auto* server : {"a", "b", "c"}) {
        ASSERT_EQ(SecItemAdd(internetPassword("jo", server, 0, server), nullptr), errSecSuccess);
    }
    ASSERT_EQ(SecItemAdd(genericPassword("jo", "svc", "g"), nullptr), errSecSuccess);

    ASSERT_EQ(SecItemDelete(with(kAllInternetPasswords, kSecMatchLimit, kSecMatchLimitOne)), errSecSuccess);
    EXPECT_EQ(secretOrStatus(kAllInternetPasswords), "b");  // the first added went first
    ASSERT_EQ(SecItemDelete(with(kAllInternetPasswords, kSecAttrAccount, "jo")), errSecSuccess);
    EXPECT_EQ(countMatching(kAllInternetPasswords), 0u);
    EXPECT_EQ(SecItemDelete(kAllInternetPasswords), errSecItemNotFound);
    EXPECT_EQ(secretOrStatus({{kSecClass, kSecClassGenericPassword}}), "g");
}

TEST_F(SecItemTest, AMissingDefaultKeychainSearchesAsEmptyAndIsNotCreatedByReading)
{
    EXPECT_EQ(SecItemCopyMatching(kAllInternetPasswords, nullptr), errSecItemNotFound);
    EXPECT_EQ(SecItemUpdate(kAllInternetPasswords, {{kSecAttrLabel, "x"}}), errSecItemNotFound);
    EXPECT_EQ(SecItemDelete(kAllInternetPasswords), errSecItemNotFound);
    EXPECT_FALSE(std::filesystem::exists(dataHome() + "/keychains"));
}

TEST_F(SecItemTest, AnExplicitKeychainMustExist)
{
    SecKeychainRef missing;
    ASSERT_EQ(SecKeychainOpen(sandboxPath("missing.keychain").c_str(), &missing), errSecSuccess);
    const Dictionary inMissing = with(kAllInternetPasswords, kSecMatchSearchList, Array{Value(missing)});
    EXPECT_EQ(SecItemCopyMatching(inMissing, nullptr), errSecNoSuchKeychain);
    EXPECT_EQ(SecItemAdd(with(internetPassword("jo", "h", 0, "x"), kSecUseKeychain, Value(missing)), nullptr),
              errSecNoSuchKeychain);
    EXPECT_FALSE(std::filesystem::exists(sandboxPath("missing.keychain")));
}

TEST_F(SecItemTest, SearchListsAreSearchedInOrderAndKeepTheirItemsApart)
{
    SecKeychainRef first;
    SecKeychainRef second;
    ASSERT_EQ(SecKeychainCreate(sandboxPath("first.keychain").c_str(), 0, nullptr, true, nullptr, &first),
              errSecSuccess);
    ASSERT_EQ(SecKeychainCreate(sandboxPath("second.keychain").c_str(), 0, nullptr, true, nullptr, &second),
              errSecSuccess);
    ASSERT_EQ(SecItemAdd(with(internetPassword("jo", "h", 0, "in first"), kSecUseKeychain, Value(first)), nullptr),
              errSecSuccess);
    ASSERT_EQ(SecItemAdd(with(internetPassword("jo", "h", 0, "in second"), kSecUseKeychain, Value(second)), nullptr),
              errSecSuccess);

    EXPECT_EQ(secretOrStatus(with(kAllInternetPasswords, kSecMatchSearchList, Array{Value(second), Value(first)})),
              "in second");
    EXPECT_EQ(countMatching(with(kAllInternetPasswords, kSecMatchSearchList, Array{Value(first), Value(second)})), 2u);
    // The default keychain was never written.
    EXPECT_EQ(secretOrStatus(kAllInternetPasswords), "status -25300");

    Value reference;
    ASSERT_EQ(SecItemCopyMatching(with(with(kAllInternetPasswords, kSecMatchSearchList, Array{Value(first)}),
                                       kSecReturnRef, true),
                                  &reference),
              errSecSuccess);
    // A reference outside the search list matches nothing.
    EXPECT_EQ(SecItemCopyMatching(with(with(kAllInternetPasswords, kSecValueRef, reference), kSecMatchSearchList,
                                       Array{Value(second)}),
                                  nullptr),
              errSecItemNotFound);
    SecKeychainRef holder;
    ASSERT_EQ(SecKeychainItemCopyKeychain(reference.objectAs<SecKeychainItem>(), &holder), errSecSuccess);
    EXPECT_TRUE(holder->isEqual(*first));
}

TEST(SecBaseTest, EveryStatusTheLayerAnswersHasAMessageAndOthersHaveNone)
{
    for (const OSStatus status :
         {errSecSuccess, errSecUnimplemented, errSecDiskFull, errSecIO, errSecParam, errSecWrPerm, errSecAllocate,
          errSecNotAvailable, errSecReadOnly, errSecAuthFailed, errSecNoSuchKeychain, errSecInvalidKeychain,
          errSecDuplicateKeychain, errSecDuplicateItem, errSecItemNotFound, errSecNoSuchAttr, errSecNoSuchClass,
          errSecInteractionNotAllowed, errSecDecode}) {
        const auto message = SecCopyErrorMessageString(status);
        ASSERT_TRUE(message.has_value()) << status;
        EXPECT_FALSE(message->empty()) << status;
    }
    EXPECT_FALSE(SecCopyErrorMessageString(12345).has_value());
    EXPECT_FALSE(SecCopyErrorMessageString(44).has_value());
}

TEST(SecBaseTest, FourCharacterCodesPutTheFirstCharacterInTheHighByte)
{
    EXPECT_EQ(kSecAttrProtocolHTTPS, 0x68747073u);
    EXPECT_EQ(fourCharCodeString(kSecAttrProtocolSSH), "ssh ");
    EXPECT_FALSE(fourCharCodeString(0x00010203u).has_value());
}

}  // namespace
