#include "Platform/Predicates/PredicateSQL.h"

#include "Platform/Foundation/Exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

using namespace platform;

namespace {

// A stored row as an object: key-value coding reads its values, so the same
// data can be evaluated in memory and queried in SQLite.
class Record final : public Object {
public:
    static std::shared_ptr<Record> create(std::int64_t pk)
    {
        auto record = platform::makeObject<Record>();
        record->values.set("pk", pk);
        return record;
    }
    const PropertyTable& propertyTable() const override
    {
        static const auto table = PropertyTable::extending<Record>(Object::propertyTable(), {
            {"pk", get("pk")}, {"name", get("name")}, {"age", get("age")}, {"salary", get("salary")}, {"active", get("active")},
            {"nickname", get("nickname")}, {"code", get("code")}, {"department", get("department")},
            {"manager", get("manager")}, {"tags", get("tags")}, {"employees", get("employees")},
            {"budget", get("budget")}, {"head", get("head")},
        });
        return table;
    }
    Dictionary values;

private:
    template <class> friend struct platform::ObjectAllocator;
    Record() = default;
    static std::function<Value(const Record&)> get(const char* key)
    {
        return [key](const Record& record) { return record.values.get(key); };
    }
};
using RecordRef = std::shared_ptr<Record>;

// The hand-made schema, quoted as a store would quote it.
class TestMapping final : public PredicateSQLMapping {
public:
    std::optional<Property> property(std::string_view entity, std::string_view key) const override
    {
        using Kind = Property::Kind;
        static const std::map<std::pair<std::string, std::string>, Property> properties = {
            {{"Employee", "name"}, {Kind::Attribute, "\"name\"", ""}},
            {{"Employee", "age"}, {Kind::Attribute, "\"age\"", ""}},
            {{"Employee", "salary"}, {Kind::Attribute, "\"salary\"", ""}},
            {{"Employee", "active"}, {Kind::Attribute, "\"active\"", ""}},
            {{"Employee", "nickname"}, {Kind::Attribute, "\"nickname\"", ""}},
            {{"Employee", "code"}, {Kind::Attribute, "\"code\"", ""}},
            {{"Employee", "department"}, {Kind::ToOne, "\"department\"", "Department"}},
            {{"Employee", "manager"}, {Kind::ToOne, "\"manager\"", "Employee"}},
            {{"Employee", "tags"}, {Kind::ToMany, "", "Tag"}},
            {{"Department", "name"}, {Kind::Attribute, "\"name\"", ""}},
            {{"Department", "budget"}, {Kind::Attribute, "\"budget\"", ""}},
            {{"Department", "head"}, {Kind::ToOne, "\"head\"", "Employee"}},
            {{"Department", "employees"}, {Kind::ToMany, "", "Employee"}},
            {{"Tag", "name"}, {Kind::Attribute, "\"name\"", ""}},
            {{"Tag", "employees"}, {Kind::ToMany, "", "Employee"}},
        };
        const auto found = properties.find({std::string(entity), std::string(key)});
        return found == properties.end() ? std::nullopt : std::optional(found->second);
    }
    std::string toOneJoin(std::string_view entity, std::string_view key, std::string_view alias,
                          std::string_view destination) const override
    {
        const auto target = property(entity, key);
        return "\"" + target->destinationEntity + "\" AS " + std::string(destination) + " ON " +
            std::string(destination) + ".\"pk\" = " + std::string(alias) + "." + target->column;
    }
    RowSource toManySource(std::string_view entity, std::string_view key, std::string_view alias,
                           std::string_view destination) const override
    {
        const std::string a(alias), d(destination);
        if (entity == "Department") {
            return {"\"Employee\" AS " + d, d + ".\"department\" = " + a + ".\"pk\""};
        }
        const bool fromEmployee = entity == "Employee";
        (void)key;
        return {"\"EmployeeTag\" AS " + d + "l JOIN \"" + (fromEmployee ? "Tag" : "Employee") + "\" AS " + d + " ON " +
                    d + ".\"pk\" = " + d + "l.\"" + (fromEmployee ? "tag" : "employee") + "\"",
                d + "l.\"" + (fromEmployee ? "employee" : "tag") + "\" = " + a + ".\"pk\""};
    }
    std::string primaryKeyColumn(std::string_view) const override { return "\"pk\""; }
    std::optional<Value> primaryKeyForObject(const Value& object) const override
    {
        if (auto record = object.objectAs<Record>()) {
            return record->values.get("pk");
        }
        return std::nullopt;
    }
};

class PredicateSQLTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(sqlite3_open(":memory:", &db_), SQLITE_OK);
        ASSERT_TRUE(registerPredicateFunctions(db_));
        exec(R"(CREATE TABLE "Department" ("pk" INTEGER PRIMARY KEY, "name" TEXT, "budget" REAL, "head" INTEGER);
                CREATE TABLE "Employee" ("pk" INTEGER PRIMARY KEY, "name" TEXT, "age" INTEGER, "salary" REAL,
                  "active" INTEGER, "nickname" TEXT, "code" TEXT, "department" INTEGER, "manager" INTEGER);
                CREATE TABLE "Tag" ("pk" INTEGER PRIMARY KEY, "name" TEXT);
                CREATE TABLE "EmployeeTag" ("employee" INTEGER, "tag" INTEGER);)");
        for (int pk = 1; pk <= 6; ++pk) {
            employees_.push_back(Record::create(pk));
        }
        for (int pk = 1; pk <= 4; ++pk) {
            departments_.push_back(Record::create(pk));
            tags_.push_back(Record::create(pk));
        }
        const auto employee = [&](int pk, Value name, Value age, Value salary, Value active, Value nickname, Value code,
                                  int department, int manager, std::vector<int> tags) {
            auto& values = employees_[pk - 1]->values;
            values.set("name", name);
            values.set("age", age);
            values.set("salary", salary);
            values.set("active", active);
            values.set("nickname", nickname);
            values.set("code", code);
            values.set("department", department ? Value(departments_[department - 1]) : Value());
            values.set("manager", manager ? Value(employees_[manager - 1]) : Value());
            Array tagObjects;
            for (int tag : tags) {
                tagObjects.push_back(tags_[tag - 1]);
                exec("INSERT INTO \"EmployeeTag\" VALUES (" + std::to_string(pk) + ", " + std::to_string(tag) + ")");
            }
            values.set("tags", tagObjects);
            insert("Employee", {pk, name, age, salary, active, nickname, code, department ? Value(department) : Value(),
                                manager ? Value(manager) : Value()});
        };
        employee(1, "Ada", 42, 5000.5, true, Value(), "A%_1", 1, 0, {1, 2});
        employee(2, "Bob", 35, 4200.0, false, "bobby", "B*?[", 1, 1, {1});
        employee(3, "Çelik", 28, Value(), true, "", "c;DROP TABLE \"Tag\"", 2, 1, {});
        employee(4, "élodie", Value(), 3900.25, true, "Élo", "x'y\"z", 0, 2, {2, 3});
        employee(5, "STRASSE", 51, 6100, false, Value(), "42", 2, 0, {3});
        employee(6, "straße", 19, 2500, true, "Ünal", "a\\b", 3, 5, {});

        const auto department = [&](int pk, Value name, Value budget, int head) {
            auto& values = departments_[pk - 1]->values;
            values.set("name", name);
            values.set("budget", budget);
            values.set("head", head ? Value(employees_[head - 1]) : Value());
            Array members;
            for (const auto& record : employees_) {
                if (record->values.get("department") == Value(departments_[pk - 1])) {
                    members.push_back(record);
                }
            }
            values.set("employees", members);
            insert("Department", {pk, name, budget, head ? Value(head) : Value()});
        };
        department(1, "Research", 1e6, 1);
        department(2, "Sales", 250000.5, 5);
        department(3, "Ops", Value(), 0);
        department(4, "Empty", 0, 0);

        const char* tagNames[] = {"work", "home", "fun", "unused"};
        for (int pk = 1; pk <= 4; ++pk) {
            auto& values = tags_[pk - 1]->values;
            values.set("name", tagNames[pk - 1]);
            Array members;
            for (const auto& record : employees_) {
                const auto& tags = *record->values.get("tags").array();
                if (std::find(tags.begin(), tags.end(), Value(tags_[pk - 1])) != tags.end()) {
                    members.push_back(record);
                }
            }
            values.set("employees", members);
            insert("Tag", {pk, tagNames[pk - 1]});
        }
    }

    void TearDown() override
    {
        // The graph holds cycles (department <-> employees): break them.
        for (auto* records : {&employees_, &departments_, &tags_}) {
            for (auto& record : *records) {
                record->values = Dictionary();
            }
        }
        sqlite3_close(db_);
    }

    void exec(const std::string& sql)
    {
        char* message = nullptr;
        ASSERT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message), SQLITE_OK) << (message ? message : "");
    }

    static void bindValue(sqlite3_stmt* statement, int index, const Value& value)
    {
        if (value.isNothing() || value.isNull()) {
            sqlite3_bind_null(statement, index);
        } else if (value.kind() == Value::Kind::Double) {
            sqlite3_bind_double(statement, index, *value.doubleValue());
        } else if (value.isNumber()) {
            sqlite3_bind_int64(statement, index, *value.integerValue());
        } else if (value.isString()) {
            sqlite3_bind_text(statement, index, value.string()->c_str(), static_cast<int>(value.string()->size()),
                              SQLITE_TRANSIENT);
        } else {
            FAIL() << "unexpected binding " << value.description();
        }
    }

    void insert(const std::string& table, const Array& values)
    {
        std::string sql = "INSERT INTO \"" + table + "\" VALUES (";
        for (std::size_t index = 0; index < values.size(); ++index) {
            sql += index ? ", ?" : "?";
        }
        sqlite3_stmt* statement = nullptr;
        ASSERT_EQ(sqlite3_prepare_v2(db_, (sql + ")").c_str(), -1, &statement, nullptr), SQLITE_OK);
        for (std::size_t index = 0; index < values.size(); ++index) {
            bindValue(statement, static_cast<int>(index + 1), values[index]);
        }
        EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE);
        sqlite3_finalize(statement);
    }

    // The primary keys that SQLite selects, in the order it gives them;
    // nothing when the statement fails.
    std::optional<std::vector<std::int64_t>> select(const std::string& entity, const Predicate* predicate,
                                                    const std::vector<SortDescriptor>& order = {},
                                                    std::string* sqlText = nullptr)
    {
        PredicateSQLTranslator translator(mapping_, entity);
        const std::string where = predicate ? translator.where(*predicate) : "1";
        std::string orderBy = translator.orderBy(order);
        orderBy += (orderBy.empty() ? "" : ", ") + std::string("t0.\"pk\"");
        const std::string sql = "SELECT t0.\"pk\" FROM \"" + entity + "\" AS t0" + translator.joins() + " WHERE " +
            where + " ORDER BY " + orderBy;
        if (sqlText) {
            *sqlText = sql;
        }
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db_);
            return std::nullopt;
        }
        for (std::size_t index = 0; index < translator.bindings().size(); ++index) {
            bindValue(statement, static_cast<int>(index + 1), translator.bindings()[index]);
        }
        std::vector<std::int64_t> keys;
        int status = SQLITE_ROW;
        while ((status = sqlite3_step(statement)) == SQLITE_ROW) {
            keys.push_back(sqlite3_column_int64(statement, 0));
        }
        sqlite3_finalize(statement);
        if (status != SQLITE_DONE) {
            return std::nullopt;
        }
        return keys;
    }

    std::vector<RecordRef>& records(const std::string& entity)
    {
        return entity == "Employee" ? employees_ : entity == "Department" ? departments_ : tags_;
    }

    std::vector<std::int64_t> evaluate(const std::string& entity, const Predicate& predicate)
    {
        std::vector<std::int64_t> keys;
        for (const auto& record : records(entity)) {
            if (predicate.evaluateWithObject(Value(record))) {
                keys.push_back(*record->values.get("pk").integerValue());
            }
        }
        return keys;
    }

    struct Row {
        std::string format;
        Array arguments;
        std::vector<std::int64_t> expected;
    };

    // Each row must select the expected rows both in memory and in SQLite.
    void expectAgreement(const std::string& entity, const std::vector<Row>& rows)
    {
        for (const auto& row : rows) {
            SCOPED_TRACE(entity + ": " + row.format);
            const auto predicate = Predicate::predicateWithFormat(row.format, row.arguments);
            EXPECT_EQ(evaluate(entity, *predicate), row.expected) << "in memory";
            std::string sql;
            EXPECT_EQ(select(entity, predicate.get(), {}, &sql), row.expected) << sql;
        }
    }

    sqlite3* db_ = nullptr;
    TestMapping mapping_;
    std::vector<RecordRef> employees_, departments_, tags_;
};

TEST_F(PredicateSQLTest, EqualityAndNilAgree)
{
    expectAgreement("Employee", {
        {"name = 'Ada'", {}, {1}}, {"name ==[c] 'ada'", {}, {1}}, {"name ==[c] 'strasse'", {}, {5, 6}},
        {"name ==[cd] 'CELIK'", {}, {3}}, {"name ==[d] 'elodie'", {}, {4}}, {"name != 'Ada'", {}, {2, 3, 4, 5, 6}},
        {"nickname != 'bobby'", {}, {1, 3, 4, 5, 6}}, {"NOT nickname = 'bobby'", {}, {1, 3, 4, 5, 6}},
        {"nickname = nil", {}, {1, 5}}, {"nickname != nil", {}, {2, 3, 4, 6}}, {"nickname = ''", {}, {3}},
        {"nickname ==[cd] 'elo'", {}, {4}}, {"age = 42.0", {}, {1}}, {"active = YES", {}, {1, 3, 4, 6}},
        {"active == FALSE", {}, {2, 5}}, {"active = 1", {}, {1, 3, 4, 6}},
        // Different kinds never meet, whatever the column's affinity would do.
        {"age = '42'", {}, {}}, {"code = 42", {}, {}}, {"code = '42'", {}, {5}}, {"age != '42'", {}, {1, 2, 3, 4, 5, 6}},
        {"name = %@", {"Bob"}, {2}}, {"%K = %@", {"nickname", Value()}, {1, 5}},
    });
}

TEST_F(PredicateSQLTest, OrderingsAndRangesAgree)
{
    expectAgreement("Employee", {
        {"age > 30", {}, {1, 2, 5}}, {"age <= 28", {}, {3, 6}}, {"NOT age > 30", {}, {3, 4, 6}},
        {"salary < 4000", {}, {4, 6}}, {"salary >= 4200", {}, {1, 2, 5}}, {"NOT salary >= 4200", {}, {3, 4, 6}},
        {"30 < age", {}, {1, 2, 5}}, {"age < nil", {}, {}}, {"age < 'z'", {}, {}}, {"name < 'C'", {}, {1, 2}},
        {"name >[c] 's'", {}, {3, 4, 5, 6}}, {"name <[cd] 'd'", {}, {1, 2, 3}},
        {"age BETWEEN {20, 42}", {}, {1, 2, 3}}, {"salary BETWEEN {3900.25, 5000.5}", {}, {1, 2, 4}},
        {"NOT age BETWEEN {20, 42}", {}, {4, 5, 6}}, {"age BETWEEN {20, 'x'}", {}, {}},
        {"name BETWEEN[c] {'b', 'd'}", {}, {2}}, {"age > salary", {}, {}}, {"salary > age", {}, {1, 2, 5, 6}},
        {"name < nickname", {}, {2, 6}}, {"NOT name < nickname", {}, {1, 3, 4, 5}},
    });
}

TEST_F(PredicateSQLTest, StringOperatorsAgreeAndTakeWildcardsInValuesLiterally)
{
    expectAgreement("Employee", {
        {"name BEGINSWITH 'A'", {}, {1}}, {"name BEGINSWITH[c] 's'", {}, {5, 6}}, {"name BEGINSWITH[cd] 'E'", {}, {4}},
        {"name ENDSWITH[c] 'SSE'", {}, {5, 6}}, {"name CONTAINS[c] 'o'", {}, {2, 4}}, {"nickname CONTAINS ''", {}, {2, 3, 4, 6}},
        {"code BEGINSWITH 'A%'", {}, {1}}, {"code BEGINSWITH '%'", {}, {}}, {"code CONTAINS '_'", {}, {1}},
        {"code CONTAINS '*'", {}, {2}}, {"code CONTAINS '?['", {}, {2}}, {"code CONTAINS '['", {}, {2}},
        {"code ENDSWITH '\"Tag\"'", {}, {3}}, {"code CONTAINS ';'", {}, {3}}, {"code CONTAINS %@", {"'y\"z"}, {4}},
        {"code CONTAINS '\\\\'", {}, {6}}, {"code CONTAINS 'x'", {}, {4}},
        {"code LIKE 'A?_1'", {}, {1}}, {"code LIKE 'A_?1'", {}, {}}, {"code LIKE 'B\\\\*\\\\?\\\\['", {}, {2}},
        {"code LIKE 'B*'", {}, {2}}, {"code LIKE '?'", {}, {}}, {"code LIKE '?" "?'", {}, {5}}, {"code LIKE '*'", {}, {1, 2, 3, 4, 5, 6}},
        {"name LIKE[c] '*sse'", {}, {5, 6}}, {"name LIKE[cd] 'stra*e'", {}, {5, 6}}, {"name LIKE '?elik'", {}, {3}},
        {"nickname LIKE '*'", {}, {2, 3, 4, 6}}, {"NOT nickname LIKE 'b*'", {}, {1, 3, 4, 5, 6}},
        {"code MATCHES '[A-C].*'", {}, {1, 2}}, {"code MATCHES[c] 'a.*'", {}, {1, 6}}, {"name MATCHES 'S.*|Bob'", {}, {2, 5}},
        {"name MATCHES[cd] 'ELODIE'", {}, {4}}, {"code MATCHES '\\\\d+'", {}, {5}},
        {"name IN 'Adam Bobby'", {}, {1, 2}}, {"'da' IN name", {}, {1}}, {"name BEGINSWITH nil", {}, {}},
        {"age CONTAINS '4'", {}, {}},
    });
}

TEST_F(PredicateSQLTest, ListsAndCompoundsAgree)
{
    expectAgreement("Employee", {
        {"age IN {19, 51, 7}", {}, {5, 6}}, {"age IN {}", {}, {}}, {"age IN {nil, 42}", {}, {1, 4}},
        {"NOT age IN {42}", {}, {2, 3, 4, 5, 6}}, {"NOT age IN {nil, 42}", {}, {2, 3, 5, 6}},
        {"name IN[c] {'ada', 'BOB', 3}", {}, {1, 2}}, {"code IN {42, '42'}", {}, {5}}, {"age IN %@", {Value(Set{35, 28.0})}, {2, 3}},
        {"age > 30 AND NOT active = YES", {}, {2, 5}}, {"(age < 20 OR age > 50) AND name ENDSWITH[c] 'e'", {}, {5, 6}},
        {"NOT (nickname = nil OR age = nil)", {}, {2, 3, 6}}, {"TRUEPREDICATE", {}, {1, 2, 3, 4, 5, 6}},
        {"FALSEPREDICATE OR name = 'Ada'", {}, {1}}, {"1 = 1 AND name = 'Bob'", {}, {2}}, {"2 < 1 OR age = 19", {}, {6}},
        {"ANY age > 40", {}, {1, 5}}, {"ALL nickname = nil", {}, {1, 5}}, {"ALL age > 30", {}, {1, 2, 4, 5}},
    });
}

TEST_F(PredicateSQLTest, KeyPathsThroughToOneAgree)
{
    expectAgreement("Employee", {
        {"department.name = 'Research'", {}, {1, 2}}, {"department.name = nil", {}, {4}},
        {"department.budget > 1000", {}, {1, 2, 3, 5}}, {"NOT department.budget > 1000", {}, {4, 6}},
        {"manager.name BEGINSWITH 'A'", {}, {2, 3}}, {"manager.manager.name = 'Ada'", {}, {4}},
        {"manager.department.name = department.name", {}, {2}}, {"manager = nil", {}, {1, 5}},
        {"department = %@", {Value(departments_[0])}, {1, 2}}, {"manager != %@", {Value(employees_[0])}, {1, 4, 5, 6}},
        {"SELF = %@", {Value(employees_[1])}, {2}}, {"SELF IN %@", {Value(Array{employees_[0], employees_[2]})}, {1, 3}},
        {"department IN %@", {Value(Array{departments_[1], Value()})}, {3, 4, 5}}, {"%K.name ==[c] %@", {"department", "ops"}, {6}},
        {"department = %@", {Value(Record::create(99))}, {}}, {"department.head.department.name = 'Sales'", {}, {3, 5}},
    });
}

TEST_F(PredicateSQLTest, AnyAllAndNoneOverToManyAgree)
{
    expectAgreement("Employee", {
        {"ANY tags.name = 'work'", {}, {1, 2}}, {"ANY tags.name IN {'fun', 'x'}", {}, {4, 5}},
        {"ALL tags.name = 'work'", {}, {2, 3, 6}}, {"NONE tags.name = 'home'", {}, {2, 3, 5, 6}},
        {"'fun' IN tags.name", {}, {4, 5}}, {"tags.name CONTAINS 'home'", {}, {1, 4}}, {"ANY tags = %@", {Value(tags_[2])}, {4, 5}},
        {"ANY tags.name BEGINSWITH[c] 'H'", {}, {1, 4}}, {"ANY tags.employees.name = 'Bob'", {}, {1, 2}},
        {"ALL tags.employees.age > 20", {}, {2, 3, 6}}, {"NOT ANY tags.name = 'work' AND age > 20", {}, {3, 5}},
    });
    expectAgreement("Department", {
        {"ANY employees.age > 50", {}, {2}}, {"ALL employees.active = YES", {}, {3, 4}},
        {"NONE employees.name BEGINSWITH 'B'", {}, {2, 3, 4}}, {"ANY employees.manager.name = 'Ada'", {}, {1, 2}},
        {"ANY employees.tags.name = 'fun'", {}, {2}}, {"head.name = 'Ada'", {}, {1}}, {"head = nil", {}, {3, 4}},
        {"budget BETWEEN {0, 300000}", {}, {2, 4}}, {"ANY employees = %@", {Value(employees_[2])}, {2}},
        {"%@ IN employees", {Value(employees_[5])}, {3}}, {"ALL employees.salary > 3000", {}, {1, 4}},
        {"ANY employees.department.head.name = 'STRASSE'", {}, {2}},
    });
    expectAgreement("Tag", {{"ANY employees.department.name = 'Sales'", {}, {3}}, {"employees.name CONTAINS 'Ada'", {}, {1, 2}}});
}

TEST_F(PredicateSQLTest, SortDescriptorsOrderAlikeInSQLAndInMemory)
{
    const std::vector<std::vector<SortDescriptor>> orders = {
        {SortDescriptor("name")}, {SortDescriptor("name", false, SortDescriptor::CaseInsensitive)},
        {SortDescriptor("department.name"), SortDescriptor("age", false)}, {SortDescriptor("salary")},
        {SortDescriptor("nickname", true, SortDescriptor::CaseInsensitive)}, {SortDescriptor("manager.name", false)},
    };
    for (const auto& order : orders) {
        SCOPED_TRACE(order.front().key());
        Array all(employees_.begin(), employees_.end());
        // Ties fall back to the primary key on both sides.
        auto withKey = order;
        withKey.emplace_back("pk");
        std::vector<std::int64_t> expected;
        for (const auto& value : SortDescriptor::sortedArray(all, withKey)) {
            expected.push_back(*value.objectAs<Record>()->values.get("pk").integerValue());
        }
        EXPECT_EQ(select("Employee", nullptr, order), expected);
    }
}

TEST_F(PredicateSQLTest, KeysAreCheckedAgainstTheMappingAndValuesAreNeverInTheText)
{
    for (const std::string key : {"name; DROP TABLE \"Tag\"", "name\" OR 1=1 --", "nosuchkey", "department.nosuch",
                                  "name.length", "tags.name"}) {
        SCOPED_TRACE(key);
        const auto predicate = Predicate::predicateWithFormat("%K = 1", {key});
        PredicateSQLTranslator translator(mapping_, "Employee");
        try {
            translator.where(*predicate);
            ADD_FAILURE() << "translated";
        } catch (const Exception& exception) {
            EXPECT_EQ(exception.name(), NSInvalidArgumentException);
        }
    }
    const std::string hostile = "x' OR '1'='1\"; DROP TABLE \"Tag\"; --%_*?[";
    for (const std::string format : {"code = %@", "code BEGINSWITH %@", "code LIKE[c] %@", "code IN {%@}", "code ENDSWITH %@", "code CONTAINS[cd] %@"}) {
        SCOPED_TRACE(format);
        const auto predicate = Predicate::predicateWithFormat(format, {hostile});
        std::string sql;
        EXPECT_THAT(select("Employee", predicate.get(), {}, &sql), ::testing::Optional(::testing::IsEmpty()));
        EXPECT_EQ(sql.find("DROP"), std::string::npos) << sql;
    }
    std::string sql;
    EXPECT_EQ(select("Tag", nullptr, {}, &sql)->size(), 4u);
}

// A store keeps the SQL made for a shape and binds the next predicate's
// constants to it: one shape must mean one text that binds exactly the
// shape's constants, in order.
TEST_F(PredicateSQLTest, PredicatesOfOneShapeTranslateToOneTextBindingTheirConstants)
{
    const std::vector<std::pair<std::string, Array>> predicates = {
        {"name == %@", {"Ada"}},
        {"name == %@", {"x' OR 1=1 --"}},
        {"name == %@", {42}},
        {"name != %@", {"Ada"}},
        {"age > %@", {30}},
        {"age > %@", {30.5}},
        {"age > %@", {true}},
        {"%@ < age", {30}},
        {"%@ > age", {30}},
        {"age <= %@ AND name = %@", {1, "x"}},
        {"age <= %@ AND name = %@", {2, "y"}},
        {"age <= %@ OR name = %@", {2, "y"}},
        {"(age <= %@ AND name = %@) OR active == %@", {2, "y", false}},
        {"NOT (active == %@)", {true}},
        {"department.name == %@", {"R&D"}},
        {"department.name == %@", {"Ops"}},
        {"manager.name == %@", {"Ops"}},
        {"manager.department.name == %@", {"Ops"}},
        {"department == %@", {7}},
        {"salary >= %@", {Date(5)}},
        {"salary >= %@", {Date(-5)}},
        {"TRUEPREDICATE", {}},
        {"FALSEPREDICATE AND name == %@", {"z"}},
    };
    std::map<std::string, std::string> textOfShape;
    for (const auto& [format, arguments] : predicates) {
        SCOPED_TRACE(format);
        const auto predicate = Predicate::predicateWithFormat(format, arguments);
        const auto shape = predicateSQLShape(*predicate);
        ASSERT_TRUE(shape);
        PredicateSQLTranslator translator(mapping_, "Employee");
        const std::string text = translator.where(*predicate);
        EXPECT_EQ(translator.bindings(), shape->constants);
        const auto [known, added] = textOfShape.emplace(shape->key, text);
        EXPECT_EQ(known->second, text);
    }
    // Different forms do not share a shape (the list above repeats a few).
    EXPECT_EQ(textOfShape.size(), predicates.size() - 4);

    // What binds something other than the constant as it is (folded or
    // escaped text, primary keys of objects), or no constant at all, has no
    // shape, and neither has a comparison of two key paths.
    for (const auto& [format, arguments] : std::vector<std::pair<std::string, Array>>{
             {"name ==[c] %@", {"Ada"}},
             {"name BEGINSWITH %@", {"A"}},
             {"name LIKE %@", {"A*"}},
             {"name IN %@", {Array{"Ada", "Bob"}}},
             {"age BETWEEN {1, 2}", {}},
             {"name == nil", {}},
             {"department == %@", {Value(Record::create(1))}},
             {"ANY tags.name == %@", {"work"}},
             {"name == nickname", {}},
             {"1 == 1", {}},
             {"age > 3 AND name CONTAINS %@", {"d"}},
         }) {
        SCOPED_TRACE(format);
        EXPECT_FALSE(predicateSQLShape(*Predicate::predicateWithFormat(format, arguments)));
    }
}

TEST_F(PredicateSQLTest, WhatSQLCannotSayIsRefusedAndBadPatternsFailOnBothPaths)
{
    for (const std::string format : {"name BEGINSWITH nickname", "'Ada' BEGINSWITH name", "age IN {age, 1}",
                                     "tags.name = 'work'"}) {
        SCOPED_TRACE(format);
        PredicateSQLTranslator translator(mapping_, "Employee");
        EXPECT_THROW(translator.where(*Predicate::predicateWithFormat(format)), Exception);
    }
    const auto broken = Predicate::predicateWithFormat("name MATCHES '(unclosed'");
    EXPECT_THROW(evaluate("Employee", *broken), Exception);
    PredicateSQLTranslator translator(mapping_, "Employee");
    const std::string sql = "SELECT count(*) FROM \"Employee\" AS t0 WHERE " + translator.where(*broken);
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr), SQLITE_OK);
    bindValue(statement, 1, translator.bindings()[0]);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ERROR);
    sqlite3_finalize(statement);
}

}  // namespace
