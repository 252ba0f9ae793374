// Predicates on 100,000 rows, each against a hand-written baseline in the
// same run, runs alternating; the ratio of the medians is reported (above 1:
// slower than the baseline).
//   1. in memory: "age > 30 AND name BEGINSWITH[c] 'a'" evaluated on
//      dictionaries, against a C++ lambda testing the same on the same rows;
//   2. in SQLite: the translated SQL of the same predicate, counted, against
//      hand-written SQL "age > 30 AND name LIKE 'a%'" (SQLite's LIKE is
//      ASCII-caseless, which is all the rows need);
//   3. the XML store: loading a saved graph of 100,000 objects, against
//      pugixml parsing the same file alone.
//
//   predicates [RUNS]
#include "Platform/FileSystem/FileManager.h"
#include "Platform/ObjectGraph/ManagedObjectModel.h"
#include "Platform/ObjectGraph/XMLStore.h"
#include "Platform/Predicates/Predicate.h"
#include "Platform/Predicates/PredicateSQL.h"

#include "bench/BenchmarkSupport.h"

#include <pugixml.hpp>
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

using namespace platform;

namespace {

constexpr std::size_t kRows = 100'000;

template <typename Body>
double milliseconds(Body body)
{
    const auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

class Mapping final : public PredicateSQLMapping {
public:
    std::optional<Property> property(std::string_view, std::string_view key) const override
    {
        if (key == "name" || key == "age") {
            return Property{Property::Kind::Attribute, std::string(key), ""};
        }
        return std::nullopt;
    }
    std::string toOneJoin(std::string_view, std::string_view, std::string_view, std::string_view) const override
    {
        return {};
    }
    RowSource toManySource(std::string_view, std::string_view, std::string_view, std::string_view) const override
    {
        return {};
    }
    std::string primaryKeyColumn(std::string_view) const override { return "rowid"; }
};

long countRows(sqlite3* db, const std::string& sql, const Array& bindings)
{
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        std::fprintf(stderr, "%s\n", sqlite3_errmsg(db));
        std::exit(2);
    }
    for (std::size_t index = 0; index < bindings.size(); ++index) {
        const auto& value = bindings[index];
        if (value.isString()) {
            sqlite3_bind_text(statement, static_cast<int>(index + 1), value.string()->c_str(), -1, SQLITE_TRANSIENT);
        } else {
            sqlite3_bind_int64(statement, static_cast<int>(index + 1), *value.integerValue());
        }
    }
    sqlite3_step(statement);
    const long count = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    return count;
}

void report(const char* what, const std::vector<double>& ours, const std::vector<double>& baseline)
{
    const double a = bench::median(ours);
    const double b = bench::median(baseline);
    std::printf("%-60s %9.2f ms  baseline %9.2f ms  ratio %.2f\n", what, a, b, a / b);
}

}  // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    std::mt19937 random(1);
    const char* const names[] = {"anna", "Albert", "bob", "Carla", "ärne", "alice", "Zoe"};
    Array rows;
    rows.reserve(kRows);
    for (std::size_t index = 0; index < kRows; ++index) {
        rows.push_back(Dictionary{{"name", std::string(names[random() % 7]) + std::to_string(index)},
                                  {"age", static_cast<int>(random() % 80)}});
    }
    const auto predicate = predicateWithFormat("age > 30 AND name BEGINSWITH[c] 'a'");

    long checksum = 0;
    std::vector<double> memory, lambda;
    for (int run = 0; run < runs; ++run) {
        memory.push_back(milliseconds([&] {
            for (const auto& row : rows) {
                checksum += predicate->evaluateWithObject(row);
            }
        }));
        lambda.push_back(milliseconds([&] {
            for (const auto& row : rows) {
                const auto& dictionary = *row.dictionary();
                const auto age = dictionary.get("age").integerValue();
                const auto* name = dictionary.find("name")->string();
                checksum += age && *age > 30 && !name->empty() && (name->front() == 'a' || name->front() == 'A');
            }
        }));
    }
    report("in memory: evaluateWithObject against a lambda", memory, lambda);

    sqlite3* db = nullptr;
    sqlite3_open(":memory:", &db);
    if (!registerPredicateFunctions(db)) {
        return 2;
    }
    sqlite3_exec(db, "CREATE TABLE t (name TEXT, age INTEGER); BEGIN", nullptr, nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO t VALUES (?, ?)", -1, &insert, nullptr);
    for (const auto& row : rows) {
        sqlite3_bind_text(insert, 1, row.dictionary()->find("name")->string()->c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_int64(insert, 2, *row.dictionary()->get("age").integerValue());
        sqlite3_step(insert);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    Mapping mapping;
    std::vector<double> translated, handWritten;
    for (int run = 0; run < runs; ++run) {
        translated.push_back(milliseconds([&] {
            PredicateSQLTranslator translator(mapping, "t");
            const auto where = translator.where(*predicate);
            checksum += countRows(db, "SELECT count(*) FROM t AS t0 WHERE " + where, translator.bindings());
        }));
        handWritten.push_back(milliseconds([&] {
            checksum += countRows(db, "SELECT count(*) FROM t WHERE age > ? AND name LIKE 'a%'", {30});
        }));
    }
    sqlite3_close(db);
    report("SQLite: translated predicate against hand-written SQL", translated, handWritten);

    ErrorRef error;
    const auto model = ManagedObjectModel::modelWithJSONText(
        R"({"format": "zarvo-object-model", "formatVersion": 1, "entities": [{"name": "Person", "attributes": [
            {"name": "name", "type": "string"}, {"name": "age", "type": "integer32"}, {"name": "score", "type": "double"},
            {"name": "active", "type": "boolean"}, {"name": "born", "type": "date"}]}]})",
        "Bench.momd", &error);
    std::string directory = FileManager::temporaryDirectory() + "/predicates-bench-XXXXXX";
    if (!model || !mkdtemp(directory.data())) {
        return 2;
    }
    const auto url = URL::fileURLWithPath(directory + "/Bench.xml");
    {
        auto store = XMLStore::create({model, url, {}});
        if (!store->load(&error)) {
            return 2;
        }
        const auto& person = *model->entityNamed("Person");
        const auto keys = store->newPrimaryKeys(person, kRows);
        SaveChanges changes;
        for (std::size_t index = 0; index < kRows; ++index) {
            const auto& row = *rows[index].dictionary();
            changes.inserted.push_back({store->objectIDFor(person, (*keys)[index]),
                                        {{row.get("name"), row.get("age"), Value(index * 0.5), Value(index % 2 == 0),
                                          Value(Date(1e9 + static_cast<double>(index)))},
                                         0},
                                        std::nullopt});
        }
        if (!store->save(changes, nullptr, &error)) {
            return 2;
        }
    }
    const auto contents = FileManager::contentsAtPath(url.path(), std::size_t(1) << 30);
    std::vector<double> loads, parses;
    for (int run = 0; run < runs; ++run) {
        loads.push_back(milliseconds([&] {
            auto store = XMLStore::create({model, url, {}});
            checksum += store->load(nullptr);
        }));
        parses.push_back(milliseconds([&] {
            pugi::xml_document document;
            checksum += static_cast<bool>(document.load_buffer(contents->data(), contents->size()));
        }));
    }
    (void)FileManager::removeItemAtPath(directory);
    report("XML store: loading 100,000 objects against pugixml's parse", loads, parses);
    std::printf("(checksum %ld, file %zu bytes)\n", checksum, contents->size());
    return 0;
}
