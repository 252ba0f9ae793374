#include "Platform/Predicates/PredicateSQL.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Predicates/internal/Comparison.h"

#include <sqlite3.h>

#include <algorithm>
#include <utility>

namespace platform {

namespace {

using Op = ComparisonPredicate::Operator;
using Modifier = ComparisonPredicate::Modifier;

[[noreturn]] void unsupported(const std::string& what)
{
    Exception::raise(NSInvalidArgumentException, "Cannot translate the predicate into SQL: " + what);
}

std::string fold(const std::string& sql, unsigned options)
{
    return options == 0 ? sql : "zarvo_fold(" + sql + ", " + std::to_string(options) + ")";
}

// The kind of a value as in-memory comparison sees it: integers and reals
// are both numbers.
std::string kindOf(const std::string& sql)
{
    return "(CASE typeof(" + sql + ") WHEN 'real' THEN 'integer' ELSE typeof(" + sql + ") END)";
}

// What a constant of this kind may be compared with; empty for values that
// compare with nothing stored (collections, objects).
std::string guard(const Value& value, const std::string& sql)
{
    if (value.isNumber()) {
        return "typeof(" + sql + ") IN ('integer', 'real')";
    }
    if (value.isString()) {
        return "typeof(" + sql + ") = 'text'";
    }
    if (value.data()) {
        return "typeof(" + sql + ") = 'blob'";
    }
    if (value.date()) {
        return sql + " IS NOT NULL";
    }
    return {};
}

Op mirrored(Op type)
{
    switch (type) {
    case Op::LessThan: return Op::GreaterThan;
    case Op::LessThanOrEqualTo: return Op::GreaterThanOrEqualTo;
    case Op::GreaterThan: return Op::LessThan;
    case Op::GreaterThanOrEqualTo: return Op::LessThanOrEqualTo;
    default: return type;
    }
}

const char* sqlOperator(Op type)
{
    switch (type) {
    case Op::LessThan: return " < ";
    case Op::LessThanOrEqualTo: return " <= ";
    case Op::GreaterThan: return " > ";
    case Op::GreaterThanOrEqualTo: return " >= ";
    default: return " = ";
    }
}

bool isOrdering(Op type)
{
    return type == Op::LessThan || type == Op::LessThanOrEqualTo || type == Op::GreaterThan ||
        type == Op::GreaterThanOrEqualTo;
}

// Whether an expression reads the evaluated object at all.
bool readsObject(const Expression& expression)
{
    switch (expression.type()) {
    case Expression::Type::ConstantValue: return false;
    case Expression::Type::Aggregate:
        return std::any_of(expression.aggregateElements().begin(), expression.aggregateElements().end(), readsObject);
    default: return true;
    }
}

std::string text(const unsigned char* bytes, int length)
{
    return bytes ? std::string(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length)) : std::string();
}

void foldFunction(sqlite3_context* context, int, sqlite3_value** arguments)
{
    if (sqlite3_value_type(arguments[0]) != SQLITE_TEXT) {
        sqlite3_result_value(context, arguments[0]);
        return;
    }
    const auto folded = internal::foldString(
        text(sqlite3_value_text(arguments[0]), sqlite3_value_bytes(arguments[0])),
        static_cast<unsigned>(sqlite3_value_int(arguments[1])));
    sqlite3_result_text(context, folded.data(), static_cast<int>(folded.size()), SQLITE_TRANSIENT);
}

void regexpFunction(sqlite3_context* context, int count, sqlite3_value** arguments)
{
    if (sqlite3_value_type(arguments[0]) != SQLITE_TEXT || sqlite3_value_type(arguments[1]) != SQLITE_TEXT) {
        sqlite3_result_int(context, 0);
        return;
    }
    const unsigned options = count > 2 ? static_cast<unsigned>(sqlite3_value_int(arguments[2])) : 0u;
    std::string error;
    const auto matched =
        internal::regexMatches(text(sqlite3_value_text(arguments[1]), sqlite3_value_bytes(arguments[1])),
                               text(sqlite3_value_text(arguments[0]), sqlite3_value_bytes(arguments[0])), options,
                               &error);
    if (!matched) {
        const auto message = "Can't do regex matching, reason: " + error;
        sqlite3_result_error(context, message.c_str(), static_cast<int>(message.size()));
        return;
    }
    sqlite3_result_int(context, *matched ? 1 : 0);
}

}  // namespace

std::optional<Value> PredicateSQLMapping::primaryKeyForObject(const Value&) const
{
    return std::nullopt;
}

// The joins of one FROM clause (the statement's own, or a sub-select's),
// each to-one path joined once.
struct PredicateSQLTranslator::Scope {
    std::vector<std::string> joins;
    std::map<std::string, std::string> aliasOfPath;
};

// A key path resolved to the SQL value it reads. `subquery` is set when it
// crosses a to-many relationship: the value is then one of the rows of
// `from` that meet `conditions`.
struct PredicateSQLTranslator::Path {
    std::string column;
    bool objectReference = false;
    std::shared_ptr<Scope> subquery;
    std::vector<std::string> from;
    std::vector<std::string> conditions;
};

struct PredicateSQLTranslator::Operand {
    bool isColumn = false;
    std::string column;
    bool objectReference = false;
    Value constant;
};

PredicateSQLTranslator::PredicateSQLTranslator(const PredicateSQLMapping& mapping, std::string entity,
                                               std::string rootAlias)
    : mapping_(mapping), entity_(std::move(entity)), rootAlias_(std::move(rootAlias)), root_(std::make_unique<Scope>())
{
}

PredicateSQLTranslator::~PredicateSQLTranslator() = default;

std::string PredicateSQLTranslator::bind(Value value)
{
    bindings_.push_back(std::move(value));
    return "?";
}

std::string PredicateSQLTranslator::joins() const
{
    std::string text;
    for (const auto& join : root_->joins) {
        text += " " + join;
    }
    return text;
}

PredicateSQLTranslator::Path PredicateSQLTranslator::resolve(const std::vector<std::string>& components,
                                                             bool allowToMany)
{
    Path path;
    Scope* scope = root_.get();
    std::string entity = entity_;
    std::string alias = rootAlias_;
    std::string prefix;
    for (std::size_t index = 0; index < components.size(); ++index) {
        const auto& key = components[index];
        const bool last = index + 1 == components.size();
        const auto property = mapping_.property(entity, key);
        if (!property) {
            // The key is the caller's; it goes into the message, never into SQL.
            unsupported("the entity " + entity + " has no key \"" + key + "\"");
        }
        prefix += "." + key;
        switch (property->kind) {
        case PredicateSQLMapping::Property::Kind::Attribute:
            if (!last) {
                unsupported("the key path goes on after the attribute \"" + key + "\"");
            }
            path.column = alias + "." + property->column;
            return path;
        case PredicateSQLMapping::Property::Kind::ToOne:
            if (last) {
                path.column = alias + "." + property->column;
                path.objectReference = true;
                return path;
            }
            if (auto known = scope->aliasOfPath.find(prefix); known != scope->aliasOfPath.end()) {
                alias = known->second;
            } else {
                const auto destination = "t" + std::to_string(nextAlias_++);
                scope->joins.push_back("LEFT JOIN " + mapping_.toOneJoin(entity, key, alias, destination));
                scope->aliasOfPath.emplace(prefix, destination);
                alias = destination;
            }
            entity = property->destinationEntity;
            break;
        case PredicateSQLMapping::Property::Kind::ToMany: {
            if (!allowToMany) {
                unsupported("the to-many key \"" + key + "\" needs ANY, ALL or NONE");
            }
            if (!path.subquery) {
                path.subquery = std::make_shared<Scope>();
                scope = path.subquery.get();
            }
            const auto destination = "s" + std::to_string(nextAlias_++);
            auto source = mapping_.toManySource(entity, key, alias, destination);
            path.from.push_back(std::move(source.from));
            path.conditions.push_back(std::move(source.condition));
            entity = property->destinationEntity;
            alias = destination;
            prefix.clear();
            if (last) {
                path.column = alias + "." + mapping_.primaryKeyColumn(entity);
                path.objectReference = true;
                return path;
            }
            break;
        }
        }
    }
    unsupported("an empty key path");
}

PredicateSQLTranslator::Operand PredicateSQLTranslator::operand(const Expression& expression)
{
    Operand result;
    switch (expression.type()) {
    case Expression::Type::ConstantValue:
        result.constant = expression.constantValue();
        return result;
    case Expression::Type::Aggregate:
        if (readsObject(expression)) {
            unsupported("a list of key paths");
        }
        result.constant = expression.valueWithObject({});
        return result;
    case Expression::Type::EvaluatedObject:
        result.isColumn = true;
        result.column = rootAlias_ + "." + mapping_.primaryKeyColumn(entity_);
        result.objectReference = true;
        return result;
    case Expression::Type::KeyPath: {
        const auto path = resolve(expression.keyPathComponents(), false);
        result.isColumn = true;
        result.column = path.column;
        result.objectReference = path.objectReference;
        return result;
    }
    }
    return result;
}

std::string PredicateSQLTranslator::where(const Predicate& predicate)
{
    return translate(predicate);
}

std::string PredicateSQLTranslator::translate(const Predicate& predicate)
{
    if (const auto* constant = dynamic_cast<const ConstantPredicate*>(&predicate)) {
        return constant->value() ? "1" : "0";
    }
    if (const auto* compound = dynamic_cast<const CompoundPredicate*>(&predicate)) {
        const auto& parts = compound->subpredicates();
        if (compound->compoundPredicateType() == CompoundPredicate::Type::Not) {
            return "(NOT " + translate(*parts.front()) + ")";
        }
        const bool isAnd = compound->compoundPredicateType() == CompoundPredicate::Type::And;
        if (parts.empty()) {
            return isAnd ? "1" : "0";
        }
        std::string text = "(";
        for (std::size_t index = 0; index < parts.size(); ++index) {
            text += (index ? (isAnd ? " AND " : " OR ") : "") + translate(*parts[index]);
        }
        return text + ")";
    }
    return comparison(dynamic_cast<const ComparisonPredicate&>(predicate));
}

std::string PredicateSQLTranslator::comparison(const ComparisonPredicate& predicate)
{
    Expression left = predicate.leftExpression();
    Expression right = predicate.rightExpression();
    auto type = predicate.predicateOperatorType();
    auto modifier = predicate.comparisonPredicateModifier();
    const unsigned options = predicate.options();

    // Nothing of the row is read: the answer is the same for every row.
    if (!readsObject(left) && !readsObject(right)) {
        return predicate.evaluateWithObject({}) ? "1" : "0";
    }
    // "x IN to-many" and "to-many CONTAINS x" ask whether any element is x.
    if (modifier == Modifier::Direct && !readsObject(left) && type == Op::In &&
        right.type() == Expression::Type::KeyPath) {
        const auto path = resolve(right.keyPathComponents(), true);
        if (path.subquery) {
            return anyOrAll(path, Modifier::Any, operand(left), Op::EqualTo, options);
        }
        // "x IN text": x is part of the text.
        if (!left.constantValue().isString()) {
            return "0";
        }
        return "(instr(" + fold(path.column, options) + ", " +
            bind(internal::foldString(*left.constantValue().string(), options)) + ") > 0 AND typeof(" + path.column +
            ") = 'text')";
    }
    if (modifier == Modifier::Direct && type == Op::Contains && left.type() == Expression::Type::KeyPath &&
        !readsObject(right)) {
        const auto path = resolve(left.keyPathComponents(), true);
        if (path.subquery) {
            return anyOrAll(path, Modifier::Any, operand(right), Op::EqualTo, options);
        }
    }
    // A constant on the left: turn the comparison round.
    if (!readsObject(left)) {
        if (modifier != Modifier::Direct ||
            !(isOrdering(type) || type == Op::EqualTo || type == Op::NotEqualTo)) {
            unsupported("this operator with a constant on the left");
        }
        std::swap(left, right);
        type = mirrored(type);
    }
    if (left.type() == Expression::Type::Aggregate) {
        unsupported("a list of key paths");
    }
    if (left.type() == Expression::Type::KeyPath) {
        const auto path = resolve(left.keyPathComponents(), modifier != Modifier::Direct);
        const Operand rightOperand = operand(right);
        if (path.subquery) {
            return anyOrAll(path, modifier, rightOperand, type, options);
        }
        const std::string condition = leaf(path.column, path.objectReference, rightOperand, type, options);
        // A single value counts as a collection of one, nil as an empty one.
        switch (modifier) {
        case Modifier::Direct: return condition;
        case Modifier::Any: return "(" + condition + " AND " + path.column + " IS NOT NULL)";
        case Modifier::All: return "(" + condition + " OR " + path.column + " IS NULL)";
        }
    }
    // SELF: the row itself, by its primary key.
    const Operand self = operand(left);
    const std::string condition = leaf(self.column, true, operand(right), type, options);
    return modifier == Modifier::All ? "(" + condition + ")" : condition;
}

std::string PredicateSQLTranslator::anyOrAll(const Path& path, Modifier modifier, const Operand& right, Op type,
                                             unsigned options)
{
    std::string from;
    for (const auto& item : path.from) {
        from += (from.empty() ? "" : ", ") + item;
    }
    for (const auto& join : path.subquery->joins) {
        from += " " + join;
    }
    std::string conditions;
    for (const auto& condition : path.conditions) {
        conditions += condition + " AND ";
    }
    // Conditions are never NULL, so NOT selects exactly the elements that fail.
    const std::string condition = leaf(path.column, path.objectReference, right, type, options);
    if (modifier == Modifier::All) {
        return "NOT EXISTS (SELECT 1 FROM " + from + " WHERE " + conditions + "NOT (" + condition + "))";
    }
    return "EXISTS (SELECT 1 FROM " + from + " WHERE " + conditions + condition + ")";
}

std::string PredicateSQLTranslator::leaf(const std::string& left, bool objectReference, const Operand& right, Op type,
                                         unsigned options)
{
    if (right.isColumn) {
        return columnsCompared(left, right.column, type, options);
    }
    switch (type) {
    case Op::EqualTo:
    case Op::NotEqualTo: return equality(left, objectReference, right.constant, type, options);
    case Op::LessThan:
    case Op::LessThanOrEqualTo:
    case Op::GreaterThan:
    case Op::GreaterThanOrEqualTo: return ordering(left, right.constant, type, options);
    case Op::Between: return between(left, right.constant, options);
    case Op::In: return membership(left, objectReference, right.constant, options);
    case Op::Matches: return regexMatch(left, right.constant, options);
    case Op::BeginsWith:
    case Op::EndsWith:
    case Op::Contains:
    case Op::Like: return stringMatch(left, right.constant, type, options);
    }
    unsupported("an unknown operator");
}

namespace {

// A string constant as the folded column it meets: folded the same way.
Value folded(const Value& value, unsigned options)
{
    return value.isString() && options ? Value(internal::foldString(*value.string(), options)) : value;
}

// The column as it meets `value`: folded when that is a string.
std::string columnFor(const std::string& column, const Value& value, unsigned options)
{
    return value.isString() ? fold(column, options) : column;
}

}  // namespace

// Objects are compared by their rows' primary keys; an object of no row of
// this store (or met by a column that holds no reference) equals nothing.
std::optional<Value> PredicateSQLTranslator::constantFor(const Value& value, bool objectReference) const
{
    if (!value.object()) {
        return value;
    }
    if (!objectReference) {
        return std::nullopt;
    }
    return mapping_.primaryKeyForObject(value);
}

std::string PredicateSQLTranslator::columnsCompared(const std::string& left, const std::string& right, Op type,
                                                    unsigned options)
{
    const std::string l = fold(left, options);
    const std::string r = fold(right, options);
    const std::string sameKind = kindOf(left) + " = " + kindOf(right);
    if (type == Op::EqualTo || type == Op::NotEqualTo) {
        const std::string equal = "(" + l + " IS " + r + " AND " + sameKind + ")";
        return type == Op::EqualTo ? equal : "(NOT " + equal + ")";
    }
    if (isOrdering(type)) {
        return "(" + l + sqlOperator(type) + r + " AND " + sameKind + " AND typeof(" + left +
            ") IN ('integer', 'real', 'text'))";
    }
    unsupported("this operator between two key paths");
}

std::string PredicateSQLTranslator::equality(const std::string& left, bool objectReference, const Value& constant,
                                             Op type, unsigned options)
{
    std::string equal;
    const auto value = constantFor(constant, objectReference);
    if (!value || internal::collectionElements(*value)) {
        equal = "0";
    } else if (internal::isNil(*value)) {
        equal = left + " IS NULL";
    } else {
        equal = "(" + columnFor(left, *value, options) + " IS " + bind(folded(*value, options)) + " AND " +
            guard(*value, left) + ")";
    }
    return type == Op::EqualTo ? equal : "(NOT " + equal + ")";
}

std::string PredicateSQLTranslator::ordering(const std::string& left, const Value& constant, Op type, unsigned options)
{
    if (guard(constant, left).empty() || constant.object()) {
        return "0";
    }
    return "(" + columnFor(left, constant, options) + sqlOperator(type) + bind(folded(constant, options)) + " AND " +
        guard(constant, left) + ")";
}

std::string PredicateSQLTranslator::between(const std::string& left, const Value& constant, unsigned options)
{
    const auto bounds = internal::collectionElements(constant);
    if (!bounds || bounds->size() != 2) {
        return "0";
    }
    const Value& low = (*bounds)[0];
    const Value& high = (*bounds)[1];
    const std::string lowGuard = guard(low, left);
    if (lowGuard.empty() || lowGuard != guard(high, left) || low.object() || high.object()) {
        return "0";
    }
    // Bound one statement at a time: the operands of "+" have no order.
    const std::string l = columnFor(left, low, options);
    const std::string lowBound = bind(folded(low, options));
    const std::string highBound = bind(folded(high, options));
    return "(" + l + " >= " + lowBound + " AND " + l + " <= " + highBound + " AND " + lowGuard + ")";
}

std::string PredicateSQLTranslator::membership(const std::string& left, bool objectReference, const Value& constant,
                                               unsigned options)
{
    if (constant.isString()) {
        return "(instr(" + bind(folded(constant, options)) + ", " + fold(left, options) + ") > 0 AND typeof(" + left +
            ") = 'text')";
    }
    const auto elements = internal::collectionElements(constant);
    if (!elements) {
        return "0";
    }
    // One IN list per kind, each with its kind's guard, so that no list
    // holds a NULL and no element meets a value of another kind.
    Array numbers, strings, others;
    bool hasNil = false;
    for (const auto& element : *elements) {
        const auto value = constantFor(element, objectReference);
        if (!value) {
            continue;
        }
        if (internal::isNil(*value)) {
            hasNil = true;
        } else if (value->isNumber()) {
            numbers.push_back(*value);
        } else if (value->isString()) {
            strings.push_back(folded(*value, options));
        } else if (!guard(*value, left).empty()) {
            others.push_back(*value);
        }
    }
    std::vector<std::string> terms;
    const auto list = [&](const Array& values, const std::string& lhs, const std::string& kindGuard) {
        if (values.empty()) {
            return;
        }
        std::string text = "(" + lhs + " IN (";
        for (std::size_t index = 0; index < values.size(); ++index) {
            text += (index ? ", " : "") + bind(values[index]);
        }
        terms.push_back(text + ") AND " + kindGuard + ")");
    };
    list(numbers, left, guard(Value(0), left));
    list(strings, fold(left, options), guard(Value(""), left));
    list(others, left, left + " IS NOT NULL");
    if (hasNil) {
        terms.push_back(left + " IS NULL");
    }
    if (terms.empty()) {
        return "0";
    }
    std::string text = "(";
    for (std::size_t index = 0; index < terms.size(); ++index) {
        text += (index ? " OR " : "") + terms[index];
    }
    return text + ")";
}

std::string PredicateSQLTranslator::regexMatch(const std::string& left, const Value& constant, unsigned options)
{
    if (!constant.isString()) {
        return "0";
    }
    return "(regexp(" + bind(constant) + ", " + left + ", " + std::to_string(options) + ") AND typeof(" + left +
        ") = 'text')";
}

// BEGINSWITH, ENDSWITH, CONTAINS and LIKE as GLOB, the constant escaped.
std::string PredicateSQLTranslator::stringMatch(const std::string& left, const Value& constant, Op type,
                                                unsigned options)
{
    if (!constant.isString()) {
        return "0";
    }
    std::string pattern;
    const std::string part = internal::foldString(*constant.string(), options);
    switch (type) {
    case Op::BeginsWith: pattern = internal::escapeGlob(part) + "*"; break;
    case Op::EndsWith: pattern = "*" + internal::escapeGlob(part); break;
    case Op::Contains: pattern = "*" + internal::escapeGlob(part) + "*"; break;
    default: pattern = internal::LikePattern::parse(*constant.string(), options).globPattern(); break;
    }
    return "(" + fold(left, options) + " GLOB " + bind(pattern) + " AND typeof(" + left + ") = 'text')";
}

std::string PredicateSQLTranslator::orderBy(const std::vector<SortDescriptor>& descriptors)
{
    std::string text;
    for (const auto& descriptor : descriptors) {
        const auto path = resolve(Expression::keyPath(descriptor.key()).keyPathComponents(), false);
        const unsigned options =
            descriptor.comparison() == SortDescriptor::CaseInsensitive ? ComparisonPredicate::CaseInsensitive : 0u;
        text += (text.empty() ? "" : ", ") + fold(path.column, options) + (descriptor.ascending() ? " ASC" : " DESC");
    }
    return text;
}

std::string PredicateSQLTranslator::orderBy(const std::vector<std::shared_ptr<const SortDescriptor>>& descriptors)
{
    std::vector<SortDescriptor> plain;
    plain.reserve(descriptors.size());
    for (const auto& descriptor : descriptors) {
        plain.push_back(*descriptor);
    }
    return orderBy(plain);
}

namespace {

// Strings go in with their length, so that no key path can pass for the
// rest of the shape.
void appendPart(std::string& key, std::string_view part)
{
    key += std::to_string(part.size());
    key += ':';
    key += part;
}

bool appendShape(const Predicate& predicate, std::string& key, Array& constants)
{
    if (const auto* constant = dynamic_cast<const ConstantPredicate*>(&predicate)) {
        key += constant->value() ? 'T' : 'F';
        return true;
    }
    if (const auto* compound = dynamic_cast<const CompoundPredicate*>(&predicate)) {
        switch (compound->compoundPredicateType()) {
        case CompoundPredicate::Type::Not: key += '!'; break;
        case CompoundPredicate::Type::And: key += '&'; break;
        case CompoundPredicate::Type::Or: key += '|'; break;
        }
        key += std::to_string(compound->subpredicates().size());
        for (const auto& part : compound->subpredicates()) {
            if (!appendShape(*part, key, constants)) {
                return false;
            }
        }
        return true;
    }
    const auto& comparison = dynamic_cast<const ComparisonPredicate&>(predicate);
    const Op type = comparison.predicateOperatorType();
    if (comparison.comparisonPredicateModifier() != Modifier::Direct || comparison.options() != 0 ||
        !(isOrdering(type) || type == Op::EqualTo || type == Op::NotEqualTo)) {
        return false;
    }
    const Expression* path = &comparison.leftExpression();
    const Expression* constant = &comparison.rightExpression();
    const bool constantFirst = path->type() == Expression::Type::ConstantValue;
    if (constantFirst) {
        std::swap(path, constant);
    }
    if (path->type() != Expression::Type::KeyPath || constant->type() != Expression::Type::ConstantValue) {
        return false;
    }
    const Value& value = constant->constantValue();
    switch (value.kind()) {
    case Value::Kind::Boolean:
    case Value::Kind::Integer:
    case Value::Kind::Double:
    case Value::Kind::String:
    case Value::Kind::Date: break;
    default: return false;
    }
    key += 'C';
    key += static_cast<char>('a' + static_cast<int>(type));
    key += constantFirst ? '<' : '>';
    key += static_cast<char>('a' + static_cast<int>(value.kind()));
    key += std::to_string(path->keyPathComponents().size());
    for (const auto& component : path->keyPathComponents()) {
        appendPart(key, component);
    }
    constants.push_back(value);
    return true;
}

}  // namespace

std::optional<PredicateSQLShape> predicateSQLShape(const Predicate& predicate)
{
    PredicateSQLShape shape;
    if (!appendShape(predicate, shape.key, shape.constants)) {
        return std::nullopt;
    }
    return shape;
}

std::string sortSQLShape(const std::vector<std::shared_ptr<const SortDescriptor>>& descriptors)
{
    std::string key = std::to_string(descriptors.size());
    for (const auto& descriptor : descriptors) {
        key += descriptor->ascending() ? '+' : '-';
        key += descriptor->comparison() == SortDescriptor::CaseInsensitive ? 'i' : 's';
        appendPart(key, descriptor->key());
    }
    return key;
}

bool registerPredicateFunctions(sqlite3* connection)
{
    constexpr int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC;
    return sqlite3_create_function_v2(connection, "zarvo_fold", 2, flags, nullptr, foldFunction, nullptr, nullptr,
                                      nullptr) == SQLITE_OK &&
        sqlite3_create_function_v2(connection, "regexp", 2, flags, nullptr, regexpFunction, nullptr, nullptr,
                                   nullptr) == SQLITE_OK &&
        sqlite3_create_function_v2(connection, "regexp", 3, flags, nullptr, regexpFunction, nullptr, nullptr,
                                   nullptr) == SQLITE_OK;
}

}  // namespace platform
