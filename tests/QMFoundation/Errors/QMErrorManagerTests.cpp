#include "QMFoundation/Errors/QMErrorManager.h"

#include "tests/Support/AssertionCapture.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

using platform::Array;
using platform::Dictionary;
using platform::Value;

namespace {

constexpr const char* kDomain = "com.example.sync";

Dictionary quotaDefinition()
{
    return Dictionary{
        {"code", 7},
        {"name", "QuotaExceeded"},
        {"description", "Quota of %@ exceeded."},
        {"failure_reason", "%@ of %@ used."},
        {"description_keys", Array{"quota"}},
        {"failure_reason_keys", Array{"used", "quota"}},
    };
}

TEST(QMErrorDefinition, ReadsItsEntries)
{
    const auto definition = QMErrorDefinition::errorDefinitionWithDefinition(quotaDefinition());
    EXPECT_EQ(definition->code(), 7);
    EXPECT_EQ(definition->name(), "QuotaExceeded");
    EXPECT_EQ(definition->descriptionFormat(), "Quota of %@ exceeded.");
    EXPECT_EQ(definition->failureReasonKeys(), (Array{"used", "quota"}));
    EXPECT_EQ(definition->valueForKey("code"), Value(7));

    const auto empty = QMErrorDefinition::errorDefinitionWithDefinition(Dictionary{});
    EXPECT_EQ(empty->code(), 0);
    EXPECT_FALSE(empty->name());
    EXPECT_EQ(QMErrorDefinition::errorDefinitionWithDefinition(Dictionary{{"code", " -12x"}})->code(), -12);
}

TEST(QMErrorDefinition, RequiresADefinition)
{
    const auto failure = testsupport::captureAssertion([] { QMErrorDefinition::errorDefinitionWithDefinition(std::nullopt); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: errorDefinition");
    EXPECT_EQ(failure.file, "QMFoundation/QMErrorDefinition");
}

TEST(QMErrorDefinition, SubstitutesOnlyWhenEveryKeyHasAValue)
{
    const auto definition = QMErrorDefinition::errorDefinitionWithDefinition(quotaDefinition());
    const Dictionary complete{{"quota", "2 GB"}, {"used", 3}};
    EXPECT_EQ(definition->localizedDescription(complete), "Quota of 2 GB exceeded.");
    EXPECT_EQ(definition->localizedFailureReason(complete), "3 of 2 GB used.");
    // One key missing: no partial substitution.
    EXPECT_EQ(definition->localizedFailureReason(Dictionary{{"used", 3}}), "%@ of %@ used.");
    // No keys at all: the message as written, "%%" included.
    EXPECT_EQ(definition->localizeMessage("50%% %@", Array{}, complete), "50%% %@");
    EXPECT_EQ(definition->localizeMessage("50%% %@", std::nullopt, complete), "50%% %@");
    // A key that is not a string names no entry.
    EXPECT_EQ(definition->localizeMessage("%@", Array{1}, Dictionary{{"1", "one"}}), "%@");
    EXPECT_FALSE(definition->localizeMessage(std::nullopt, Array{"quota"}, complete));
}

TEST(QMErrorManager, MakesErrorsFromTheRegisteredDefinition)
{
    const auto manager = QMErrorManager::manager();
    manager->addErrorDefinitions(Array{quotaDefinition()}, kDomain);

    const auto error = manager->errorWithDomain(kDomain, 7, Dictionary{{"quota", "2 GB"}, {"used", 3}});
    EXPECT_EQ(error->domain(), kDomain);
    EXPECT_EQ(error->code(), 7);
    EXPECT_EQ(error->localizedDescription(), "Quota of 2 GB exceeded.");
    EXPECT_EQ(error->localizedFailureReason(), "3 of 2 GB used.");
    EXPECT_EQ(error->localizedRecoverySuggestion(), "3 of 2 GB used.");
    EXPECT_EQ(error->userInfo().get("quota"), Value("2 GB"));

    // Without the values the formats come through raw.
    const auto raw = manager->errorWithDomain(kDomain, 7);
    EXPECT_EQ(raw->localizedDescription(), "Quota of %@ exceeded.");
    EXPECT_EQ(raw->localizedRecoverySuggestion(), "%@ of %@ used.");
}

TEST(QMErrorManager, LetsUserInformationOverrideTheDefinition)
{
    const auto manager = QMErrorManager::manager();
    manager->addErrorDefinition(quotaDefinition(), kDomain);
    const auto error = manager->errorWithDomain(
        kDomain, 7,
        Dictionary{{std::string(platform::NSLocalizedDescriptionKey), "Custom."},
                   {std::string(platform::NSLocalizedRecoverySuggestionErrorKey), "Free some space."}});
    EXPECT_EQ(error->localizedDescription(), "Custom.");
    EXPECT_EQ(error->localizedFailureReason(), "%@ of %@ used.");
    EXPECT_EQ(error->localizedRecoverySuggestion(), "Free some space.");
}

TEST(QMErrorManager, GivesPlainErrorsForUnknownDomainsAndCodes)
{
    const auto manager = QMErrorManager::manager();
    manager->addErrorDefinition(quotaDefinition(), kDomain);
    for (const auto& [domain, code] : {std::pair{"other", 7}, std::pair{kDomain, 8}}) {
        SCOPED_TRACE(std::string(domain) + " " + std::to_string(code));
        EXPECT_EQ(manager->errorDefinitionForDomain(domain, code), nullptr);
        const auto error = manager->errorWithDomain(
            domain, code, Dictionary{{std::string(platform::NSLocalizedFailureReasonErrorKey), "Because."}});
        EXPECT_EQ(error->domain(), domain);
        EXPECT_EQ(error->code(), code);
        EXPECT_EQ(error->userInfo().size(), 2u);
        EXPECT_EQ(error->localizedRecoverySuggestion(), "Because.");
    }
    EXPECT_TRUE(manager->errorWithDomain("other", 1)->userInfo().empty());
}

TEST(QMErrorManager, FindsTheFirstRegistrationOfACode)
{
    const auto manager = QMErrorManager::manager();
    auto second = quotaDefinition();
    second.set("name", "Second");
    manager->addErrorDefinitions(Array{Dictionary{{"code", 1}}, quotaDefinition(), second}, kDomain);
    manager->addErrorDefinition(Dictionary{{"code", 7}, {"name", "ElsewhereToo"}}, "other");

    EXPECT_EQ(manager->errorDefinitionForDomain(kDomain, 7)->name(), "QuotaExceeded");
    EXPECT_EQ(manager->errorDefinitionForDomain("other", 7)->name(), "ElsewhereToo");

    const auto table = manager->allErrorDefinitionsByDomain();
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table[0].first, kDomain);
    EXPECT_EQ(table[0].second.size(), 3u);
    EXPECT_EQ(table[1].first, "other");
    // A snapshot: later registrations do not reach it.
    manager->addErrorDefinition(Dictionary{{"code", 9}}, kDomain);
    EXPECT_EQ(table[0].second.size(), 3u);
    EXPECT_EQ(manager->allErrorDefinitionsByDomain()[0].second.size(), 4u);
}

TEST(QMErrorManager, AssertsItsArguments)
{
    const auto manager = QMErrorManager::manager();
    struct Case {
        std::function<void()> call;
        const char* condition;
    };
    const Case cases[] = {
        {[&] { manager->addErrorDefinitions(std::nullopt, kDomain); }, "errorDefinitions"},
        {[&] { manager->addErrorDefinitions(Array{}, std::nullopt); }, "errorDomain"},
        {[&] { manager->addErrorDefinition(std::nullopt, kDomain); }, "errorDefinition"},
        {[&] { manager->addErrorDefinition(Dictionary{}, std::nullopt); }, "errorDomain"},
        {[&] { manager->addErrorDefinitions(Array{"not a dictionary"}, kDomain); }, "errorDefinition"},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.condition);
        const auto failure = testsupport::captureAssertion(testCase.call);
        EXPECT_EQ(failure.description, std::string("Invalid parameter not satisfying: ") + testCase.condition);
        EXPECT_EQ(failure.file, "QMFoundation/QMErrorManager");
    }
    EXPECT_TRUE(manager->allErrorDefinitionsByDomain().empty());
}

TEST(QMErrorManager, SharesOneManagerAndTakesRegistrationsFromAnyThread)
{
    EXPECT_EQ(QMErrorManager::sharedManager(), QMErrorManager::sharedManager());

    const auto manager = QMErrorManager::manager();
    auto registerCodes = [&](std::int64_t first) {
        for (std::int64_t code = first; code < first + 200; ++code) {
            manager->addErrorDefinition(Dictionary{{"code", code}}, kDomain);
            EXPECT_NE(manager->errorDefinitionForDomain(kDomain, code), nullptr);
        }
    };
    std::thread other(registerCodes, 1000);
    registerCodes(0);
    other.join();
    EXPECT_EQ(manager->allErrorDefinitionsByDomain().at(0).second.size(), 400u);
}

}  // namespace
