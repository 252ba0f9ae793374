// Predicates and sort descriptors as SQLite SQL, with the same answers as
// in-memory evaluation (Platform/Predicates/Predicate.h).
//
// A store describes its schema through a PredicateSQLMapping; the translator
// asks it what each key is and never puts a key, a value or any text of the
// format into SQL: keys become the mapping's own column and table names,
// values become "?" placeholders bound in the order of bindings().
//
//   PredicateSQLTranslator translator(mapping, "Employee");       // the entity's row is "t0"
//   const auto where = translator.where(*predicate);
//   const auto order = translator.orderBy(sortDescriptors);
//   sql = "SELECT t0.pk FROM Employee AS t0" + translator.joins() + " WHERE " + where
//         + (order.empty() ? "" : " ORDER BY " + order);
//   ... bind translator.bindings()[i] to placeholder i + 1 ...
//
// The statement must run on a connection that registerPredicateFunctions has
// prepared: string options, MATCHES and LIKE call the same folding and
// matching code as in-memory evaluation, through SQL functions.
//
// How the two paths are kept in step, where SQL alone would differ:
// - Every condition is 0 or 1, never NULL, so NOT and ALL invert exactly.
//   Equality is "IS" (nil equals nil); an ordering with a NULL side is 0.
// - Values of different kinds never compare: a condition with a string
//   constant also asks typeof() = 'text', one with a number asks for a number,
//   so SQLite's column affinity cannot turn "42" into 42.
// - LIKE, BEGINSWITH, ENDSWITH and CONTAINS become GLOB with the constant
//   escaped, so "%", "_", "*", "?" and "[" in a value are plain characters.
// - ANY and ALL over a to-many path become EXISTS / NOT EXISTS sub-selects over
//   the mapping's row sources; to-one steps become LEFT JOINs (a missing
//   object reads as nil, as it does in memory).
// What cannot be said in SQL with the same meaning raises
// "NSInvalidArgumentException" (the caller may evaluate in memory instead):
// unknown keys, string operators between two key paths, a to-many path
// without ANY or ALL, aggregates of key paths. Dates are bound as Date values:
// the store binds them the way it stores them, and a column's dates must
// compare as the numbers it stores.
//
// Thread safety: a translator is used by one thread; mappings are called
// only from the translating thread.
#pragma once

#include "Platform/Foundation/Value.h"
#include "Platform/Predicates/Predicate.h"
#include "Platform/Predicates/SortDescriptor.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;

namespace platform {

// What a translation needs to know of a store's schema. Every string it
// returns goes into SQL as it stands: quote identifiers there.
class PredicateSQLMapping {
public:
    virtual ~PredicateSQLMapping() = default;

    struct Property {
        enum class Kind { Attribute, ToOne, ToMany };
        Kind kind = Kind::Attribute;
        // Attribute: its column. ToOne: the column holding the destination's
        // primary key (what an object constant is compared with).
        std::string column;
        // ToOne and ToMany: the destination entity.
        std::string destinationEntity;
    };

    // The rows of a to-many relationship: FROM items that name the
    // destination's table with `destinationAlias` (a link table may be
    // joined in with an alias of the mapping's own that starts with
    // `destinationAlias`), and a condition that ties them to the row `alias`.
    struct RowSource {
        std::string from;
        std::string condition;
    };

    // Nothing for a key the entity does not have.
    virtual std::optional<Property> property(std::string_view entity, std::string_view key) const = 0;
    // The text after "LEFT JOIN" that reaches a to-one's destination as
    // `destinationAlias` from the row `alias`.
    virtual std::string toOneJoin(std::string_view entity, std::string_view key, std::string_view alias,
                                  std::string_view destinationAlias) const = 0;
    virtual RowSource toManySource(std::string_view entity, std::string_view key, std::string_view alias,
                                   std::string_view destinationAlias) const = 0;
    // The column that identifies an entity's row (SELF, object constants).
    virtual std::string primaryKeyColumn(std::string_view entity) const = 0;
    // The primary key value of an object given as a constant; nothing when it
    // is no row of this store (it then equals no row).
    virtual std::optional<Value> primaryKeyForObject(const Value& object) const;
};

class PredicateSQLTranslator {
public:
    PredicateSQLTranslator(const PredicateSQLMapping& mapping, std::string entity, std::string rootAlias = "t0");
    ~PredicateSQLTranslator();
    PredicateSQLTranslator(const PredicateSQLTranslator&) = delete;
    PredicateSQLTranslator& operator=(const PredicateSQLTranslator&) = delete;

    // The condition for `predicate` (never empty: "1" when always true).
    std::string where(const Predicate& predicate);
    // The ORDER BY terms, "" for no descriptors.
    std::string orderBy(const std::vector<SortDescriptor>& descriptors);
    std::string orderBy(const std::vector<std::shared_ptr<const SortDescriptor>>& descriptors);
    // The LEFT JOIN clauses that where() and orderBy() needed so far, each
    // with a leading space; they go right after the root table.
    std::string joins() const;
    // The values of the "?" placeholders, in order.
    const Array& bindings() const { return bindings_; }

private:
    struct Scope;
    struct Path;
    struct Operand;

    Path resolve(const std::vector<std::string>& components, bool allowToMany);
    std::string translate(const Predicate& predicate);
    std::string comparison(const ComparisonPredicate& predicate);
    std::string anyOrAll(const Path& path, ComparisonPredicate::Modifier modifier, const Operand& right,
                         ComparisonPredicate::Operator type, unsigned options);
    std::string leaf(const std::string& left, bool objectReference, const Operand& right,
                     ComparisonPredicate::Operator type, unsigned options);
    // The operator families of `leaf`: two columns; a column and a constant
    // by equality, ordering, BETWEEN, IN, MATCHES, and the string operators.
    std::string columnsCompared(const std::string& left, const std::string& right, ComparisonPredicate::Operator type,
                                unsigned options);
    std::string equality(const std::string& left, bool objectReference, const Value& constant,
                         ComparisonPredicate::Operator type, unsigned options);
    std::string ordering(const std::string& left, const Value& constant, ComparisonPredicate::Operator type,
                         unsigned options);
    std::string between(const std::string& left, const Value& constant, unsigned options);
    std::string membership(const std::string& left, bool objectReference, const Value& constant, unsigned options);
    std::string regexMatch(const std::string& left, const Value& constant, unsigned options);
    std::string stringMatch(const std::string& left, const Value& constant, ComparisonPredicate::Operator type,
                            unsigned options);
    std::optional<Value> constantFor(const Value& value, bool objectReference) const;
    std::string bind(Value value);
    Operand operand(const Expression& expression);

    const PredicateSQLMapping& mapping_;
    std::string entity_;
    std::string rootAlias_;
    std::unique_ptr<Scope> root_;
    Array bindings_;
    int nextAlias_ = 1;
};

// What a predicate's translation depends on apart from the values of its
// constants, for a store that keeps the SQL it made: a predicate of the same
// shape translates to the same SQL, with `constants` bound to its "?" in
// order. Only predicates whose constants are bound as they are have a shape:
// every comparison is ==, !=, <, <=, > or >= without options or modifier,
// between a key path and a number, boolean, string or date. Others (objects,
// nil, collections, string operators, [c]) have none and are translated each
// time.
struct PredicateSQLShape {
    std::string key;
    Array constants;
};
std::optional<PredicateSQLShape> predicateSQLShape(const Predicate& predicate);
// The shape of an ORDER BY, in the same form: descriptors that sort alike
// give the same text.
std::string sortSQLShape(const std::vector<std::shared_ptr<const SortDescriptor>>& descriptors);

// Registers on `connection` the functions that translated SQL calls:
// regexp(pattern, subject[, options]) (so "x REGEXP y" works too) and
// zarvo_fold(value, options). False when SQLite refuses.
[[nodiscard]] bool registerPredicateFunctions(sqlite3* connection);

}  // namespace platform
