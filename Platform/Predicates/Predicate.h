// Predicates: immutable trees of conditions on objects, made from a format
// string, evaluated in memory through key-value coding, printed back as text.
//
//   auto predicate = Predicate::predicateWithFormat("%K BEGINSWITH[c] %@ AND ANY tags.name IN %@",
//                                          {"name", "jo", Array{"work", "home"}});
//   predicate->evaluateWithObject(Value(person));
//   predicate->predicateFormat();   // name BEGINSWITH[c] "jo" AND ANY tags.name IN {"work", "home"}
//
// The grammar, keywords case-insensitive:
//   predicate   := or ; or := and (("OR" | "||") and)* ; and := not (("AND" | "&&") not)*
//   not         := ("NOT" | "!") not | "(" predicate ")" | TRUEPREDICATE | FALSEPREDICATE | comparison
//   comparison  := ["ANY" | "SOME" | "ALL" | "NONE"] expression operator ["[" c|d|cd "]"] expression
//   operator    := = == != <> < <= =< > >= => BEGINSWITH ENDSWITH CONTAINS LIKE MATCHES IN BETWEEN
//   expression  := key.path | #reserved | SELF | %K | %@ | %d | %i | %f | %s | number | 'text' | "text"
//                  | nil | NULL | TRUE | YES | FALSE | NO | "{" [expression ("," expression)*] "}"
// "%K" takes a string argument as a key path (dots separate keys). An argument
// is never read as format text: it is a value or a key, nothing else. A format
// that does not parse, or that asks for more arguments than it is given, raises
// "NSInvalidArgumentException" whose reason names the byte offset and whose user
// information carries it under "position".
//
// Evaluation rules (the same ones the SQL translation keeps, PredicateSQL.h):
// - nil (nothing or the null object) equals only nil; any ordering or string
//   operator with a nil operand is false.
// - Numbers and booleans compare by value; strings by code point, or folded
//   by [c] (full Unicode case folding) and [d] (canonical decomposition with
//   the non-spacing marks dropped) on both sides; dates by time. Values of
//   different kinds are unequal and unordered (ordering operators are false).
// - BEGINSWITH, ENDSWITH and CONTAINS on strings: the empty string is a prefix,
//   suffix and part of every string. CONTAINS with a collection on the left
//   asks for membership; IN asks whether the left value is an element of the
//   right collection, or part of the right string.
// - LIKE: "*" matches any run of characters, "?" one character, "\" makes the
//   next one literal; the whole string must match. MATCHES: a PCRE2 pattern
//   that must match the whole string ([c] makes it caseless); a pattern that
//   does not compile raises "NSInvalidArgumentException".
// - A key path reads `valueForKey` on objects and the entry of dictionaries;
//   through a collection it reads each element and gathers the results into
//   one array (collections met on the way flatten). ANY, ALL and NONE take the
//   left value as a collection (a single value counts as a collection of one;
//   nil as an empty one): ALL over nothing is true, ANY false.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class Predicate;
using PredicateRef = std::shared_ptr<const Predicate>;

// One side of a comparison. Immutable and cheap to copy.
class Expression {
public:
    enum class Type { ConstantValue, EvaluatedObject, KeyPath, Aggregate };

    static Expression constant(Value value);
    static Expression evaluatedObject();
    // `keyPath` is split at dots; an empty key path raises "NSInvalidArgumentException".
    static Expression keyPath(std::string_view keyPath);
    static Expression keyPathComponents(std::vector<std::string> components);
    static Expression aggregate(std::vector<Expression> elements);

    Type type() const { return type_; }
    const Value& constantValue() const { return constant_; }
    const std::vector<std::string>& keyPathComponents() const { return components_; }
    std::string keyPath() const;
    const std::vector<Expression>& aggregateElements() const { return elements_; }

    // The expression's value for `object` (SELF).
    Value valueWithObject(const Value& object) const;
    std::string format() const;

    friend bool operator==(const Expression& left, const Expression& right);

private:
    Type type_ = Type::ConstantValue;
    Value constant_;
    std::vector<std::string> components_;
    std::vector<Expression> elements_;
};

class Predicate : public Object {
public:
    // Parses `format`, taking the arguments of "%" conversions in order.
    static PredicateRef predicateWithFormat(std::string_view format, const Array& arguments = {});
    // The predicates that are always true and always false.
    static PredicateRef predicateWithValue(bool value);

    virtual bool evaluateWithObject(const Value& object) const = 0;
    // Text that parses back into an equal predicate, as long as its constants
    // are nil, numbers, strings, booleans or arrays of them.
    virtual std::string predicateFormat() const = 0;

    std::string className() const override { return "NSPredicate"; }
    std::string description() const override { return predicateFormat(); }

protected:
    Predicate() = default;
};

// TRUEPREDICATE and FALSEPREDICATE.
class ConstantPredicate final : public Predicate {
public:
    static std::shared_ptr<const ConstantPredicate> create(bool value);
    bool value() const { return value_; }
    bool evaluateWithObject(const Value& object) const override;
    std::string predicateFormat() const override;
    bool isEqual(const Object& other) const override;

private:
    template <class> friend struct ObjectAllocator;
    explicit ConstantPredicate(bool value) : value_(value) {}
    bool value_;
};

class ComparisonPredicate final : public Predicate {
public:
    enum class Operator {
        LessThan, LessThanOrEqualTo, GreaterThan, GreaterThanOrEqualTo, EqualTo, NotEqualTo,
        Matches, Like, BeginsWith, EndsWith, In, Contains, Between,
    };
    // Direct compares the left value itself; Any and All compare its elements.
    enum class Modifier { Direct, All, Any };
    enum Options : unsigned {
        CaseInsensitive = 1u << 0,
        DiacriticInsensitive = 1u << 1,
    };

    // BETWEEN needs a right side of two elements (an aggregate or a constant
    // array); otherwise "NSInvalidArgumentException".
    static std::shared_ptr<const ComparisonPredicate> create(Expression left, Expression right, Modifier modifier,
                                                             Operator type, unsigned options = 0);

    const Expression& leftExpression() const { return left_; }
    const Expression& rightExpression() const { return right_; }
    Modifier comparisonPredicateModifier() const { return modifier_; }
    Operator predicateOperatorType() const { return operator_; }
    unsigned options() const { return options_; }

    bool evaluateWithObject(const Value& object) const override;
    std::string predicateFormat() const override;
    bool isEqual(const Object& other) const override;

private:
    template <class> friend struct ObjectAllocator;
    ComparisonPredicate(Expression left, Expression right, Modifier modifier, Operator type, unsigned options);

    Expression left_;
    Expression right_;
    Modifier modifier_;
    Operator operator_;
    unsigned options_;
};

class CompoundPredicate final : public Predicate {
public:
    enum class Type { Not, And, Or };

    // NOT takes exactly one subpredicate; AND and OR any number (none: AND is
    // true, OR false). Otherwise "NSInvalidArgumentException".
    static std::shared_ptr<const CompoundPredicate> create(Type type, std::vector<PredicateRef> subpredicates);
    static std::shared_ptr<const CompoundPredicate> notPredicate(PredicateRef predicate);
    static std::shared_ptr<const CompoundPredicate> andPredicate(std::vector<PredicateRef> subpredicates);
    static std::shared_ptr<const CompoundPredicate> orPredicate(std::vector<PredicateRef> subpredicates);

    Type compoundPredicateType() const { return type_; }
    const std::vector<PredicateRef>& subpredicates() const { return subpredicates_; }

    bool evaluateWithObject(const Value& object) const override;
    std::string predicateFormat() const override;
    bool isEqual(const Object& other) const override;

private:
    template <class> friend struct ObjectAllocator;
    CompoundPredicate(Type type, std::vector<PredicateRef> subpredicates);

    Type type_;
    std::vector<PredicateRef> subpredicates_;
};

// A copy of `predicate` in which every constant, and every element of a
// constant array, set or ordered set, has gone through `replace`. A store
// uses it to turn the objects a predicate names into its own stand-ins
// before evaluating it.
PredicateRef predicateByReplacingConstants(const PredicateRef& predicate,
                                           const std::function<Value(const Value&)>& replace);

// Shorthand for Predicate::predicateWithFormat.
inline PredicateRef predicateWithFormat(std::string_view format, const Array& arguments = {})
{
    return Predicate::predicateWithFormat(format, arguments);
}

}  // namespace platform
