#include "tests/Platform/ObjectGraph/ObjectGraphFixture.h"

#include "Platform/Predicates/Predicate.h"
#include "Platform/Predicates/SortDescriptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace platform;
using objectgraphtest::StoreTest;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

// Five employees in three departments, saved; every store must answer every
// request alike.
class Fetching : public StoreTest {
protected:
    void SetUp() override
    {
        StoreTest::SetUp();
        auto context = rootContext();
        auto sales = insert(context, "Department", {{"name", "Sales"}, {"budget", 100.0}});
        auto support = insert(context, "Department", {{"name", "Support"}, {"budget", 50.0}});
        auto research = insert(context, "Department", {{"name", "R&D"}, {"budget", 200.0}});
        auto ada = insert(context, "Employee", {{"name", "Ada"}, {"level", 5}, {"hired", Date(1000)}});
        auto bob = insert(context, "Employee", {{"name", "Bob"}, {"level", 3}, {"active", false}, {"hired", Date(10)}});
        auto cy = insert(context, "Employee", {{"name", "Cy"}, {"level", 1}});
        insert(context, "Employee", {{"name", "D\u00e9e"}, {"level", 7}});
        auto eve = insert(context, "Employee", {{"name", "Eve"}, {"level", 3}});
        ada->setValueForKey(Value(sales), "department");
        bob->setValueForKey(Value(sales), "department");
        cy->setValueForKey(Value(support), "department");
        eve->setValueForKey(Value(research), "department");
        bob->setValueForKey(Value(ada), "mentor");
        save(context);
    }

    std::vector<std::string> fetchNames(const ManagedObjectContextRef& context, const std::string& entity,
                                        const PredicateRef& predicate,
                                        std::vector<std::shared_ptr<const SortDescriptor>> sort = {},
                                        std::size_t limit = 0, std::size_t offset = 0)
    {
        auto request = FetchRequest::fetchRequestWithEntityName(entity);
        request->setPredicate(predicate);
        request->setSortDescriptors(std::move(sort));
        request->setFetchLimit(limit);
        request->setFetchOffset(offset);
        ErrorRef error;
        const auto objects = context->executeFetchRequest(*request, &error);
        EXPECT_TRUE(objects.has_value()) << (error ? error->description() : "");
        std::vector<std::string> result;
        for (const auto& object : objects.value_or(std::vector<ManagedObjectRef>{})) {
            result.push_back(*object->valueForKey("name").string());
        }
        return result;
    }
};

TEST_P(Fetching, PredicatesSelectTheSameObjectsInEveryStore)
{
    struct Row {
        std::string entity;
        std::string format;
        Array arguments;
        std::vector<std::string> expected;  // sorted by name
    };
    const Row rows[] = {
        {"Employee", "level > %@", {3}, {"Ada", "D\u00e9e"}},
        {"Employee", "name BEGINSWITH[c] %@", {"a"}, {"Ada"}},
        {"Employee", "name LIKE %@", {"?o?"}, {"Bob"}},
        {"Employee", "name ==[d] %@", {"Dee"}, {"D\u00e9e"}},
        {"Employee", "name MATCHES %@", {"[A-C].*"}, {"Ada", "Bob", "Cy"}},
        {"Employee", "name IN %@", {Array{"Cy", "Eve", "Zed"}}, {"Cy", "Eve"}},
        {"Employee", "level BETWEEN {3, 5}", {}, {"Ada", "Bob", "Eve"}},
        {"Employee", "active == NO", {}, {"Bob"}},
        {"Employee", "hired > %@", {Date(500)}, {"Ada"}},
        {"Employee", "department.name == %@", {"Sales"}, {"Ada", "Bob"}},
        {"Employee", "department == nil", {}, {"D\u00e9e"}},
        {"Employee", "mentor.name == 'Ada'", {}, {"Bob"}},
        {"Employee", "NOT (level < 3) AND department.budget >= 100", {}, {"Ada", "Bob", "Eve"}},
        {"Employee", "%K == %@ OR level == 1", {"name", "a'; DROP TABLE Employee; --"}, {"Cy"}},
        {"Department", "ANY employees.level > 4", {}, {"Sales"}},
        {"Department", "ALL employees.level >= 3", {}, {"R&D", "Sales"}},
        {"Department", "%K CONTAINS %@", {"name", "&"}, {"R&D"}},
        // No SQL says these with the same meaning (a string operator with the
        // key path on the right, or between two key paths): the SQLite store
        // evaluates them in memory.
        {"Employee", "'Ada Lovelace' BEGINSWITH name", {}, {"Ada"}},
        {"Employee", "'R&D and Sales' CONTAINS department.name", {}, {"Ada", "Bob", "Eve"}},
        {"Employee", "mentor.name ENDSWITH[c] 'A' OR name ENDSWITH mentor.name", {}, {"Bob"}},
    };
    auto context = rootContext();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.format);
        const auto predicate = Predicate::predicateWithFormat(row.format, row.arguments);
        auto found = fetchNames(context, row.entity, predicate);
        std::sort(found.begin(), found.end());
        EXPECT_EQ(found, row.expected);
        auto request = FetchRequest::fetchRequestWithEntityName(row.entity);
        request->setPredicate(predicate);
        EXPECT_EQ(context->countForFetchRequest(*request), row.expected.size());
    }
    EXPECT_EQ(fetchAll(context, "Employee").size(), 5u);

    // A key the entity does not have is an error in every store, also where
    // the SQLite store falls back to evaluating in memory.
    for (const auto* format : {"salary > 1", "'x' BEGINSWITH salary"}) {
        SCOPED_TRACE(format);
        auto unknown = FetchRequest::fetchRequestWithEntityName("Employee");
        unknown->setPredicate(Predicate::predicateWithFormat(format));
        ErrorRef error;
        EXPECT_FALSE(context->executeFetchRequest(*unknown, &error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), NSPersistentStoreOperationError);
    }

    // An object as a constant matches the rows of that object.
    auto request = FetchRequest::fetchRequestWithEntityName("Department");
    request->setPredicate(Predicate::predicateWithFormat("name == 'Sales'"));
    const auto department = context->executeFetchRequest(*request)->front();
    auto names = fetchNames(context, "Employee", Predicate::predicateWithFormat("department == %@", {Value(department)}));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"Ada", "Bob"}));
}

TEST_P(Fetching, SortDescriptorsOrderAndLimitsCut)
{
    auto context = rootContext();
    const std::vector<std::shared_ptr<const SortDescriptor>> byLevelThenName{SortDescriptor::create("level", false),
                                                                              SortDescriptor::create("name")};
    EXPECT_THAT(fetchNames(context, "Employee", nullptr, byLevelThenName),
                ElementsAre("D\u00e9e", "Ada", "Bob", "Eve", "Cy"));
    EXPECT_THAT(fetchNames(context, "Employee", nullptr, byLevelThenName, 3), ElementsAre("D\u00e9e", "Ada", "Bob"));
    EXPECT_THAT(fetchNames(context, "Employee", nullptr, byLevelThenName, 2, 1), ElementsAre("Ada", "Bob"));
    EXPECT_THAT(fetchNames(context, "Employee", nullptr, {SortDescriptor::create("department.name")}, 0, 1),
                ElementsAre("Eve", "Ada", "Bob", "Cy"));
    auto request = FetchRequest::fetchRequestWithEntityName("Employee");
    request->setFetchLimit(2);
    request->setFetchOffset(4);
    EXPECT_EQ(context->countForFetchRequest(*request), 1u);
}

// Requests that differ only in their values, sort direction, limit or in
// counting: a store that reuses its work for requests of one form must still
// answer each for its own.
TEST_P(Fetching, RequestsOfOneFormGetAnswersOfTheirOwn)
{
    auto context = rootContext();
    for (const std::string name : {"Cy", "Ada", "Cy", "Eve"}) {
        EXPECT_THAT(fetchNames(context, "Employee", Predicate::predicateWithFormat("name == %@", {name})),
                    ElementsAre(name));
    }
    for (const auto& [level, expected] : std::vector<std::pair<int, std::size_t>>{{0, 5}, {3, 2}, {5, 1}, {9, 0}}) {
        SCOPED_TRACE(level);
        auto request = FetchRequest::fetchRequestWithEntityName("Employee");
        request->setPredicate(Predicate::predicateWithFormat("level > %@", {level}));
        EXPECT_EQ(context->countForFetchRequest(*request), expected);
        EXPECT_EQ(fetchNames(context, "Employee", request->predicate()).size(), expected);
    }
    const auto byName = std::vector<std::shared_ptr<const SortDescriptor>>{SortDescriptor::create("name")};
    const auto byNameDown = std::vector<std::shared_ptr<const SortDescriptor>>{SortDescriptor::create("name", false)};
    const auto format = "level >= %@ AND department.name == %@";
    const auto sales = Predicate::predicateWithFormat(format, {3, "Sales"});
    EXPECT_THAT(fetchNames(context, "Employee", sales, byName), ElementsAre("Ada", "Bob"));
    EXPECT_THAT(fetchNames(context, "Employee", sales, byNameDown), ElementsAre("Bob", "Ada"));
    EXPECT_THAT(fetchNames(context, "Employee", sales, byName, 1, 1), ElementsAre("Bob"));
    EXPECT_THAT(fetchNames(context, "Employee", sales, byName, 1), ElementsAre("Ada"));
    EXPECT_THAT(fetchNames(context, "Employee", Predicate::predicateWithFormat(format, {1, "Support"}), byName),
                ElementsAre("Cy"));
    // The same form with a value of another kind: a string is never a number.
    EXPECT_THAT(fetchNames(context, "Employee", Predicate::predicateWithFormat("level == %@", {3}), byName),
                ElementsAre("Bob", "Eve"));
    EXPECT_THAT(fetchNames(context, "Employee", Predicate::predicateWithFormat("level == %@", {"3"})), IsEmpty());
}

TEST_P(Fetching, UnsavedChangesTakePartInPredicatesSortsAndLimits)
{
    auto context = rootContext();
    insert(context, "Employee", {{"name", "Fay"}, {"level", 9}});
    const auto dee = fetchNames(context, "Employee", Predicate::predicateWithFormat("name == %@", {"D\u00e9e"}));
    ASSERT_EQ(dee.size(), 1u);
    for (const auto& employee : fetchAll(context, "Employee")) {
        if (employee->valueForKey("name") == Value("D\u00e9e")) {
            context->deleteObject(employee);
        } else if (employee->valueForKey("name") == Value("Cy")) {
            employee->setValueForKey(8, "level");
        }
    }
    const auto senior = Predicate::predicateWithFormat("level > 5");
    const std::vector<std::shared_ptr<const SortDescriptor>> byLevel{SortDescriptor::create("level", false)};
    EXPECT_THAT(fetchNames(context, "Employee", senior, byLevel), ElementsAre("Fay", "Cy"));
    EXPECT_THAT(fetchNames(context, "Employee", senior, byLevel, 1), ElementsAre("Fay"));
    auto request = FetchRequest::fetchRequestWithEntityName("Employee");
    request->setPredicate(senior);
    EXPECT_EQ(context->countForFetchRequest(*request), 2u);

    // A child sees its parent's unsaved state, and adds its own.
    auto child = childOf(context);
    insert(child, "Employee", {{"name", "Gus"}, {"level", 6}});
    EXPECT_THAT(fetchNames(child, "Employee", senior, byLevel), ElementsAre("Fay", "Cy", "Gus"));
    // The store itself still holds the saved state.
    EXPECT_THAT(fetchNames(rootContext(), "Employee", senior, byLevel), ElementsAre("D\u00e9e"));
}

INSTANTIATE_TEST_SUITE_P(Stores, Fetching, testing::ValuesIn(objectgraphtest::storeTypes()));

}  // namespace
