#include "Platform/Predicates/internal/Comparison.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/OrderedSet.h"
#include "Platform/Foundation/RegularExpression.h"
#include "Platform/Foundation/Unicode.h"
#include "Platform/Predicates/Predicate.h"

#include <unicode/uchar.h>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <cstring>
#include <mutex>
#include <unordered_map>

namespace platform::internal {

namespace {

using Units = std::u16string;

template <typename Convert>
Units convertUnits(const Units& input, Convert convert)
{
    UErrorCode status = U_ZERO_ERROR;
    const auto needed = convert(nullptr, 0, &status);
    if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) {
        return input;
    }
    Units output(static_cast<std::size_t>(needed), u'\0');
    status = U_ZERO_ERROR;
    convert(output.data(), needed, &status);
    return U_FAILURE(status) ? input : output;
}

Units toUnits(std::string_view text)
{
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8WithSub(nullptr, 0, &length, text.data(), static_cast<int32_t>(text.size()), 0xFFFD, nullptr, &status);
    Units units(static_cast<std::size_t>(length), u'\0');
    status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(units.data(), length, &length, text.data(), static_cast<int32_t>(text.size()), 0xFFFD,
                         nullptr, &status);
    return units;
}

std::string toUTF8(const Units& units)
{
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strToUTF8WithSub(nullptr, 0, &length, units.data(), static_cast<int32_t>(units.size()), 0xFFFD, nullptr,
                       &status);
    std::string text(static_cast<std::size_t>(length), '\0');
    status = U_ZERO_ERROR;
    u_strToUTF8WithSub(text.data(), length, &length, units.data(), static_cast<int32_t>(units.size()), 0xFFFD,
                       nullptr, &status);
    return text;
}

Units normalize(const Units& units, const UNormalizer2* normalizer)
{
    return convertUnits(units, [&](UChar* out, int32_t capacity, UErrorCode* status) {
        return unorm2_normalize(normalizer, units.data(), static_cast<int32_t>(units.size()), out, capacity, status);
    });
}

bool isASCII(std::string_view text)
{
    for (const char character : text) {
        if (static_cast<unsigned char>(character) >= 0x80) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::optional<Array> collectionElements(const Value& value)
{
    if (const auto* array = value.array()) {
        return *array;
    }
    if (const auto* set = value.set()) {
        return Array(set->begin(), set->end());
    }
    if (const auto* ordered = value.orderedSet()) {
        return ordered->array();
    }
    return std::nullopt;
}

std::string foldString(std::string_view text, unsigned options)
{
    using Options = ComparisonPredicate::Options;
    options &= Options::CaseInsensitive | Options::DiacriticInsensitive;
    if (options == 0) {
        return std::string(text);
    }
    // ASCII has no marks and folds to its lower case: the common case of key
    // names and identifiers skips ICU altogether.
    if (isASCII(text)) {
        std::string folded(text);
        if (options & Options::CaseInsensitive) {
            for (auto& character : folded) {
                if (character >= 'A' && character <= 'Z') {
                    character = static_cast<char>(character - 'A' + 'a');
                }
            }
        }
        return folded;
    }
    UErrorCode status = U_ZERO_ERROR;
    Units units = toUnits(text);
    if (options & Options::CaseInsensitive) {
        const Units input = units;
        units = convertUnits(input, [&](UChar* out, int32_t capacity, UErrorCode* error) {
            return u_strFoldCase(out, capacity, input.data(), static_cast<int32_t>(input.size()), U_FOLD_CASE_DEFAULT,
                                 error);
        });
    }
    if (options & Options::DiacriticInsensitive) {
        const auto* decomposition = unorm2_getNFDInstance(&status);
        if (U_SUCCESS(status)) {
            const Units decomposed = normalize(units, decomposition);
            units.clear();
            for (std::size_t index = 0; index < decomposed.size();) {
                UChar32 character = 0;
                U16_NEXT(decomposed.data(), index, decomposed.size(), character);
                if (u_charType(character) == U_NON_SPACING_MARK) {
                    continue;
                }
                UChar buffer[2];
                std::size_t length = 0;
                U16_APPEND_UNSAFE(buffer, length, character);
                units.append(buffer, length);
            }
        }
    }
    status = U_ZERO_ERROR;
    const auto* composition = unorm2_getNFCInstance(&status);
    if (U_SUCCESS(status)) {
        units = normalize(units, composition);
    }
    return toUTF8(units);
}

bool valuesEqual(const Value& left, const Value& right, unsigned options)
{
    if (isNil(left) || isNil(right)) {
        return isNil(left) && isNil(right);
    }
    if (options != 0 && left.isString() && right.isString()) {
        return foldString(*left.string(), options) == foldString(*right.string(), options);
    }
    return left == right;
}

std::optional<int> compareValues(const Value& left, const Value& right, unsigned options)
{
    const auto sign = [](auto a, auto b) { return a < b ? -1 : (b < a ? 1 : 0); };
    if (left.isNumber() && right.isNumber()) {
        if (left.kind() == Value::Kind::Double || right.kind() == Value::Kind::Double) {
            const double a = *left.doubleValue();
            const double b = *right.doubleValue();
            if (a != a || b != b) {
                return std::nullopt;
            }
            return sign(a, b);
        }
        return sign(*left.integerValue(), *right.integerValue());
    }
    if (left.isString() && right.isString()) {
        // Byte order of UTF-8 is code point order, which is also SQLite's
        // BINARY collation: both paths sort text alike.
        const int result = options != 0
            ? foldString(*left.string(), options).compare(foldString(*right.string(), options))
            : left.string()->compare(*right.string());
        return sign(result, 0);
    }
    if (left.date() && right.date()) {
        return sign(*left.date(), *right.date());
    }
    return std::nullopt;
}

LikePattern LikePattern::parse(std::string_view pattern, unsigned options)
{
    LikePattern result;
    std::string literal;
    const auto flush = [&] {
        // Folding may leave nothing of a run of bare marks.
        if (auto folded = foldString(literal, options); !folded.empty()) {
            result.tokens.push_back({Token::Kind::Literal, std::move(folded)});
        }
        literal.clear();
    };
    for (std::size_t index = 0; index < pattern.size();) {
        const char character = pattern[index];
        if (character == '*' || character == '?') {
            flush();
            const auto kind = character == '*' ? Token::Kind::AnyRun : Token::Kind::AnyCharacter;
            if (!(kind == Token::Kind::AnyRun && !result.tokens.empty() && result.tokens.back().kind == kind)) {
                result.tokens.push_back({kind, {}});
            }
            ++index;
            continue;
        }
        if (character == '\\' && index + 1 < pattern.size()) {
            ++index;
        }
        const auto length = decodeUTF8Character(pattern, index).length;
        literal.append(pattern.substr(index, length));
        index += length;
    }
    flush();
    return result;
}

bool LikePattern::matches(std::string_view subject) const
{
    // Greedy matching that, on a mismatch, lets the most recent "*" take one
    // more character: linear in practice, never exponential.
    constexpr auto none = static_cast<std::size_t>(-1);
    std::size_t token = 0;
    std::size_t position = 0;
    std::size_t starToken = none;
    std::size_t starPosition = 0;
    while (position < subject.size()) {
        if (token < tokens.size()) {
            const auto& current = tokens[token];
            if (current.kind == Token::Kind::Literal && subject.substr(position, current.text.size()) == current.text) {
                position += current.text.size();
                ++token;
                continue;
            }
            if (current.kind == Token::Kind::AnyCharacter) {
                position += decodeUTF8Character(subject, position).length;
                ++token;
                continue;
            }
            if (current.kind == Token::Kind::AnyRun) {
                starToken = token++;
                starPosition = position;
                continue;
            }
        }
        if (starToken == none || starPosition >= subject.size()) {
            return false;
        }
        starPosition += decodeUTF8Character(subject, starPosition).length;
        position = starPosition;
        token = starToken + 1;
    }
    while (token < tokens.size() && tokens[token].kind == Token::Kind::AnyRun) {
        ++token;
    }
    return token == tokens.size();
}

std::string escapeGlob(std::string_view text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (const char character : text) {
        switch (character) {
        case '*': escaped += "[*]"; break;
        case '?': escaped += "[?]"; break;
        case '[': escaped += "[[]"; break;
        default: escaped += character;
        }
    }
    return escaped;
}

std::string LikePattern::globPattern() const
{
    std::string glob;
    for (const auto& token : tokens) {
        switch (token.kind) {
        case Token::Kind::Literal: glob += escapeGlob(token.text); break;
        case Token::Kind::AnyCharacter: glob += '?'; break;
        case Token::Kind::AnyRun: glob += '*'; break;
        }
    }
    return glob;
}

std::optional<bool> regexMatches(std::string_view subject, std::string_view pattern, unsigned options,
                                 std::string* error)
{
    // The whole subject must match. "\E" closes a "\Q" the pattern may have
    // left open, so the closing bracket and the end anchor stay ours; a
    // pattern that only compiles without them is refused, never reinterpreted.
    const unsigned regexOptions =
        (options & ComparisonPredicate::CaseInsensitive) ? RegularExpression::CaseInsensitive : 0u;
    std::string key(1, static_cast<char>('0' + regexOptions));
    key.append(pattern);

    static std::mutex mutex;
    static std::unordered_map<std::string, RegularExpressionRef> cache;
    RegularExpressionRef expression;
    {
        std::lock_guard lock(mutex);
        if (auto found = cache.find(key); found != cache.end()) {
            expression = found->second;
        }
    }
    if (!expression) {
        ErrorRef compileError;
        if (!RegularExpression::create(pattern, regexOptions, &compileError)) {
            if (error) {
                *error = compileError ? compileError->localizedDescription() : "invalid pattern";
            }
            return std::nullopt;
        }
        std::string anchored = "^(?:";
        anchored.append(pattern).append("\\E)\\z");
        expression = RegularExpression::create(anchored, regexOptions, &compileError);
        if (!expression) {
            if (error) {
                *error = "the pattern does not end where it should";
            }
            return std::nullopt;
        }
        std::lock_guard lock(mutex);
        if (cache.size() >= 256) {
            cache.clear();
        }
        cache.emplace(std::move(key), expression);
    }
    std::string foldedSubject;
    if (options & ComparisonPredicate::DiacriticInsensitive) {
        foldedSubject = foldString(subject, ComparisonPredicate::DiacriticInsensitive);
        subject = foldedSubject;
    }
    return expression->firstMatch(subject).has_value();
}

}  // namespace platform::internal
