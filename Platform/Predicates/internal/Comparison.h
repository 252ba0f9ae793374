// The comparison rules shared by in-memory evaluation, sort descriptors and
// the functions the SQL translation registers on a connection. Both paths call
// these same functions, which is what keeps their answers identical. Not for
// use outside Platform/Predicates and the stores.
#pragma once

#include "Platform/Foundation/Value.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform::internal {

// Nothing and the null object both stand for nil.
inline bool isNil(const Value& value)
{
    return value.isNothing() || value.isNull();
}

// The elements of an array, a set or an ordered set; nothing for other values.
std::optional<Array> collectionElements(const Value& value);

// `text` with the comparison options applied (ComparisonPredicate::Options):
// CaseInsensitive folds case fully ("ß" and "SS" agree), DiacriticInsensitive
// drops non-spacing marks after canonical decomposition. The result is in NFC
// whenever an option is given; without options the text is returned as is.
// Invalid UTF-8 sequences are kept as U+FFFD.
std::string foldString(std::string_view text, unsigned options);

bool valuesEqual(const Value& left, const Value& right, unsigned options);
// -1, 0 or 1 when the two values are ordered (numbers with numbers, strings
// with strings, dates with dates), nothing otherwise or when either is nil.
std::optional<int> compareValues(const Value& left, const Value& right, unsigned options);

// A LIKE pattern read into literal runs and wildcards. Literal runs are
// already folded by the options they were read with.
struct LikePattern {
    struct Token {
        enum class Kind { Literal, AnyCharacter, AnyRun } kind;
        std::string text;  // Literal only
    };
    std::vector<Token> tokens;

    static LikePattern parse(std::string_view pattern, unsigned options);
    // `subject` must already be folded with the same options.
    bool matches(std::string_view subject) const;
    // The same pattern in SQLite's GLOB syntax (literal "*", "?" and "["
    // bracketed, so nothing in the text acts as a wildcard).
    std::string globPattern() const;
};

// `text` as a GLOB pattern that matches only itself.
std::string escapeGlob(std::string_view text);

// Whether the PCRE2 `pattern` matches all of `subject`. Compiled patterns are
// kept in one table that all threads share (under a lock). A pattern that
// does not compile gives nothing, and `error` (when given) the compiler's
// message.
std::optional<bool> regexMatches(std::string_view subject, std::string_view pattern, unsigned options,
                                 std::string* error = nullptr);

}  // namespace platform::internal
