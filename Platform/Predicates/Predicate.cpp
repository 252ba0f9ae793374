#include "Platform/Predicates/Predicate.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Predicates/internal/Comparison.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <utility>

namespace platform {

namespace {

using internal::collectionElements;
using internal::isNil;

// Keywords that cannot name a key unless escaped with "#".
constexpr std::array kReservedWords = {
    "AND", "OR", "NOT", "ANY", "SOME", "ALL", "NONE", "IN", "LIKE", "MATCHES", "BEGINSWITH", "ENDSWITH",
    "CONTAINS", "BETWEEN", "NIL", "NULL", "TRUE", "FALSE", "YES", "NO", "SELF", "TRUEPREDICATE", "FALSEPREDICATE",
};

bool equalsIgnoringCase(std::string_view left, std::string_view right)
{
    return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin(), [](char a, char b) {
               const auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
               return lower(a) == lower(b);
           });
}

bool isReserved(std::string_view word)
{
    return std::any_of(kReservedWords.begin(), kReservedWords.end(),
                       [&](const char* reserved) { return equalsIgnoringCase(word, reserved); });
}

bool isIdentifierStart(char character)
{
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') || character == '_' ||
        static_cast<unsigned char>(character) >= 0x80;
}

bool isIdentifierCharacter(char character)
{
    return isIdentifierStart(character) || (character >= '0' && character <= '9');
}

bool isDigit(char character)
{
    return character >= '0' && character <= '9';
}

std::vector<std::string> splitKeyPath(std::string_view keyPath)
{
    std::vector<std::string> components;
    std::size_t start = 0;
    while (true) {
        const auto dot = keyPath.find('.', start);
        components.emplace_back(keyPath.substr(start, dot == std::string_view::npos ? keyPath.npos : dot - start));
        if (dot == std::string_view::npos) {
            break;
        }
        start = dot + 1;
    }
    return components;
}

std::string quoted(std::string_view text)
{
    std::string result = "\"";
    for (const char character : text) {
        switch (character) {
        case '"': result += "\\\""; break;
        case '\\': result += "\\\\"; break;
        case '\n': result += "\\n"; break;
        case '\r': result += "\\r"; break;
        case '\t': result += "\\t"; break;
        default: result += character;
        }
    }
    return result + '"';
}

std::string formatConstant(const Value& value)
{
    if (isNil(value)) {
        return "nil";
    }
    switch (value.kind()) {
    case Value::Kind::Boolean:
        return *value.boolValue() ? "TRUE" : "FALSE";
    case Value::Kind::Integer:
        return std::to_string(*value.integerValue());
    case Value::Kind::Double: {
        std::array<char, 32> buffer{};
        const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), *value.doubleValue());
        std::string text(buffer.data(), result.ptr);
        // Keep it a double when read back.
        if (text.find_first_of(".eninf") == std::string::npos) {
            text += ".0";
        }
        return text;
    }
    case Value::Kind::String:
        return quoted(*value.string());
    default:
        break;
    }
    if (auto elements = collectionElements(value)) {
        std::string text = "{";
        for (std::size_t index = 0; index < elements->size(); ++index) {
            text += (index ? ", " : "") + formatConstant((*elements)[index]);
        }
        return text + "}";
    }
    return value.description();
}

// Reads one key of an object, a dictionary or each element of a collection.
Value valueForKey(const Value& value, const std::string& key)
{
    if (isNil(value)) {
        return {};
    }
    if (auto object = value.object()) {
        return object->valueForKey(key);
    }
    if (const auto* dictionary = value.dictionary()) {
        return dictionary->get(key);
    }
    if (auto elements = collectionElements(value)) {
        Array gathered;
        for (const auto& element : *elements) {
            Value result = valueForKey(element, key);
            if (auto nested = collectionElements(result)) {
                gathered.insert(gathered.end(), nested->begin(), nested->end());
            } else {
                gathered.push_back(std::move(result));
            }
        }
        return gathered;
    }
    Exception::raise(NSUndefinedKeyException, "this value is not key value coding-compliant for the key " + key);
}

// ---------------------------------------------------------------------------
// Parsing

class Parser {
public:
    Parser(std::string_view format, const Array& arguments) : format_(format), arguments_(arguments) {}

    PredicateRef parse()
    {
        auto predicate = parseOr();
        skipSpace();
        if (position_ < format_.size()) {
            fail("unexpected text after the predicate");
        }
        return predicate;
    }

private:
    [[noreturn]] void fail(std::string_view what, std::size_t at) const
    {
        Dictionary userInfo;
        userInfo.set("position", static_cast<std::int64_t>(at));
        Exception::raise(NSInvalidArgumentException,
                         "Unable to parse the format string \"" + std::string(format_) + "\" at position " +
                             std::to_string(at) + ": " + std::string(what),
                         std::move(userInfo));
    }
    [[noreturn]] void fail(std::string_view what) const { fail(what, position_); }

    void skipSpace()
    {
        while (position_ < format_.size() &&
               (format_[position_] == ' ' || (format_[position_] >= '\t' && format_[position_] <= '\r'))) {
            ++position_;
        }
    }

    bool atEnd()
    {
        skipSpace();
        return position_ >= format_.size();
    }

    // The bare word at the current position, not consumed.
    std::string_view peekWord()
    {
        skipSpace();
        std::size_t end = position_;
        while (end < format_.size() && isIdentifierCharacter(format_[end])) {
            ++end;
        }
        if (end == position_ || isDigit(format_[position_])) {
            return {};
        }
        return format_.substr(position_, end - position_);
    }

    bool acceptWord(std::string_view keyword)
    {
        if (equalsIgnoringCase(peekWord(), keyword)) {
            position_ += keyword.size();
            return true;
        }
        return false;
    }

    bool acceptSymbol(std::string_view symbol)
    {
        skipSpace();
        if (format_.substr(position_, symbol.size()) == symbol) {
            position_ += symbol.size();
            return true;
        }
        return false;
    }

    PredicateRef parseOr()
    {
        std::vector<PredicateRef> terms{parseAnd()};
        while (acceptWord("OR") || acceptSymbol("||")) {
            terms.push_back(parseAnd());
        }
        return terms.size() == 1 ? terms.front() : CompoundPredicate::orPredicate(std::move(terms));
    }

    PredicateRef parseAnd()
    {
        std::vector<PredicateRef> terms{parseNot()};
        while (acceptWord("AND") || acceptSymbol("&&")) {
            terms.push_back(parseNot());
        }
        return terms.size() == 1 ? terms.front() : CompoundPredicate::andPredicate(std::move(terms));
    }

    PredicateRef parseNot()
    {
        if (++depth_ > kMaximumDepth) {
            fail("the predicate nests too deeply");
        }
        PredicateRef result;
        skipSpace();
        if (acceptWord("NOT") || (format_.substr(position_, 2) != "!=" && acceptSymbol("!"))) {
            result = CompoundPredicate::notPredicate(parseNot());
        } else if (acceptSymbol("(")) {
            result = parseOr();
            if (!acceptSymbol(")")) {
                fail("expected \")\"");
            }
        } else if (acceptWord("TRUEPREDICATE")) {
            result = Predicate::predicateWithValue(true);
        } else if (acceptWord("FALSEPREDICATE")) {
            result = Predicate::predicateWithValue(false);
        } else {
            result = parseComparison();
        }
        --depth_;
        return result;
    }

    PredicateRef parseComparison()
    {
        auto modifier = ComparisonPredicate::Modifier::Direct;
        bool negated = false;
        if (acceptWord("ANY") || acceptWord("SOME")) {
            modifier = ComparisonPredicate::Modifier::Any;
        } else if (acceptWord("ALL")) {
            modifier = ComparisonPredicate::Modifier::All;
        } else if (acceptWord("NONE")) {
            modifier = ComparisonPredicate::Modifier::Any;
            negated = true;
        }
        Expression left = parseExpression();
        skipSpace();
        const std::size_t operatorPosition = position_;
        const auto type = parseOperator();
        const unsigned options = parseOptions();
        Expression right = parseExpression();
        if (type == ComparisonPredicate::Operator::Between) {
            const bool pair = (right.type() == Expression::Type::Aggregate && right.aggregateElements().size() == 2) ||
                (right.type() == Expression::Type::ConstantValue && collectionElements(right.constantValue()) &&
                 collectionElements(right.constantValue())->size() == 2);
            if (!pair) {
                fail("BETWEEN needs two bounds, as in {1, 5}", operatorPosition);
            }
        }
        PredicateRef comparison = ComparisonPredicate::create(std::move(left), std::move(right), modifier, type, options);
        return negated ? CompoundPredicate::notPredicate(comparison) : comparison;
    }

    ComparisonPredicate::Operator parseOperator()
    {
        using Op = ComparisonPredicate::Operator;
        static constexpr std::pair<std::string_view, Op> symbols[] = {
            {"==", Op::EqualTo}, {"!=", Op::NotEqualTo}, {"<>", Op::NotEqualTo}, {"<=", Op::LessThanOrEqualTo},
            {"=<", Op::LessThanOrEqualTo}, {">=", Op::GreaterThanOrEqualTo}, {"=>", Op::GreaterThanOrEqualTo},
            {"<", Op::LessThan}, {">", Op::GreaterThan}, {"=", Op::EqualTo},
        };
        for (const auto& [symbol, type] : symbols) {
            if (acceptSymbol(symbol)) {
                return type;
            }
        }
        static constexpr std::pair<std::string_view, Op> words[] = {
            {"BEGINSWITH", Op::BeginsWith}, {"ENDSWITH", Op::EndsWith}, {"CONTAINS", Op::Contains},
            {"LIKE", Op::Like}, {"MATCHES", Op::Matches}, {"IN", Op::In}, {"BETWEEN", Op::Between},
        };
        for (const auto& [word, type] : words) {
            if (acceptWord(word)) {
                return type;
            }
        }
        fail(atEnd() ? "expected an operator, found the end" : "expected an operator");
    }

    unsigned parseOptions()
    {
        // Options follow the operator directly: "BEGINSWITH[cd]".
        if (position_ >= format_.size() || format_[position_] != '[') {
            return 0;
        }
        const std::size_t start = position_++;
        unsigned options = 0;
        while (position_ < format_.size() && format_[position_] != ']') {
            switch (format_[position_]) {
            case 'c': case 'C': options |= ComparisonPredicate::CaseInsensitive; break;
            case 'd': case 'D': options |= ComparisonPredicate::DiacriticInsensitive; break;
            default: fail("unknown comparison option");
            }
            ++position_;
        }
        if (position_ >= format_.size()) {
            fail("unterminated comparison options", start);
        }
        if (options == 0) {
            fail("empty comparison options", start);
        }
        ++position_;
        return options;
    }

    const Value& nextArgument(std::size_t at)
    {
        if (argumentIndex_ >= arguments_.size()) {
            fail("not enough arguments for the format", at);
        }
        return arguments_[argumentIndex_++];
    }

    Expression parseConversion()
    {
        const std::size_t start = position_++;
        // Length modifiers of integer and double conversions mean nothing here.
        while (position_ < format_.size() && (format_[position_] == 'l' || format_[position_] == 'q')) {
            ++position_;
        }
        if (position_ >= format_.size()) {
            fail("incomplete conversion", start);
        }
        const char conversion = format_[position_++];
        switch (conversion) {
        case 'K': {
            const Value& key = nextArgument(start);
            if (!key.isString() || key.string()->empty()) {
                fail("%K needs a non-empty string argument", start);
            }
            const auto components = splitKeyPath(*key.string());
            if (std::any_of(components.begin(), components.end(), [](const auto& c) { return c.empty(); })) {
                fail("%K argument is not a key path", start);
            }
            return Expression::keyPathComponents(components);
        }
        case '@':
            return Expression::constant(nextArgument(start));
        case 'd': case 'i': case 'u': {
            const Value& number = nextArgument(start);
            if (!number.integerValue()) {
                fail("%d needs a number argument", start);
            }
            return Expression::constant(*number.integerValue());
        }
        case 'f': case 'g': case 'e': {
            const Value& number = nextArgument(start);
            if (!number.doubleValue()) {
                fail("%f needs a number argument", start);
            }
            return Expression::constant(*number.doubleValue());
        }
        case 's': {
            const Value& text = nextArgument(start);
            if (!text.isString()) {
                fail("%s needs a string argument", start);
            }
            return Expression::constant(text);
        }
        default:
            fail("unknown conversion", start);
        }
    }

    Expression parseNumber()
    {
        const std::size_t start = position_;
        std::size_t end = position_;
        if (format_[end] == '-' || format_[end] == '+') {
            ++end;
        }
        bool isDouble = false;
        while (end < format_.size() && isDigit(format_[end])) {
            ++end;
        }
        if (end < format_.size() && format_[end] == '.' && end + 1 < format_.size() && isDigit(format_[end + 1])) {
            isDouble = true;
            ++end;
            while (end < format_.size() && isDigit(format_[end])) {
                ++end;
            }
        }
        if (end < format_.size() && (format_[end] == 'e' || format_[end] == 'E')) {
            std::size_t exponent = end + 1;
            if (exponent < format_.size() && (format_[exponent] == '-' || format_[exponent] == '+')) {
                ++exponent;
            }
            if (exponent < format_.size() && isDigit(format_[exponent])) {
                isDouble = true;
                end = exponent;
                while (end < format_.size() && isDigit(format_[end])) {
                    ++end;
                }
            }
        }
        if (end < format_.size() && isIdentifierCharacter(format_[end])) {
            fail("malformed number", start);
        }
        // from_chars takes no leading "+".
        const char* first = format_.data() + start + (format_[start] == '+' ? 1 : 0);
        const char* last = format_.data() + end;
        position_ = end;
        if (!isDouble) {
            std::int64_t integer = 0;
            if (std::from_chars(first, last, integer).ec == std::errc{}) {
                return Expression::constant(integer);
            }
        }
        double number = 0;
        const auto result = std::from_chars(first, last, number);
        if (result.ec == std::errc::result_out_of_range) {
            fail("number out of range", start);
        }
        if (result.ec != std::errc{}) {
            fail("malformed number", start);
        }
        return Expression::constant(number);
    }

    Expression parseString()
    {
        const std::size_t start = position_;
        const char quote = format_[position_++];
        std::string text;
        while (true) {
            if (position_ >= format_.size()) {
                fail("unterminated string", start);
            }
            const char character = format_[position_++];
            if (character == quote) {
                break;
            }
            if (character != '\\') {
                text += character;
                continue;
            }
            if (position_ >= format_.size()) {
                fail("unterminated string", start);
            }
            const char escaped = format_[position_++];
            switch (escaped) {
            case 'n': text += '\n'; break;
            case 't': text += '\t'; break;
            case 'r': text += '\r'; break;
            default: text += escaped;
            }
        }
        return Expression::constant(std::move(text));
    }

    std::string parseKey()
    {
        skipSpace();
        const std::size_t start = position_;
        const bool escaped = position_ < format_.size() && format_[position_] == '#';
        if (escaped) {
            ++position_;
        }
        if (position_ >= format_.size() || !isIdentifierStart(format_[position_])) {
            fail("expected a key", start);
        }
        const std::size_t begin = position_;
        while (position_ < format_.size() && isIdentifierCharacter(format_[position_])) {
            ++position_;
        }
        const auto key = format_.substr(begin, position_ - begin);
        if (!escaped && isReserved(key)) {
            fail("a reserved word cannot be a key (escape it with #)", start);
        }
        return std::string(key);
    }

    Expression parseKeyPathFrom(std::vector<std::string> components)
    {
        while (position_ < format_.size() && format_[position_] == '.') {
            ++position_;
            components.push_back(parseKey());
        }
        return Expression::keyPathComponents(std::move(components));
    }

    Expression parseExpression()
    {
        if (atEnd()) {
            fail("expected an expression, found the end");
        }
        if (++depth_ > kMaximumDepth) {
            fail("the expression nests too deeply");
        }
        Expression result = parseExpressionBody();
        --depth_;
        return result;
    }

    Expression parseExpressionBody()
    {
        const char character = format_[position_];
        if (character == '%') {
            Expression conversion = parseConversion();
            if (conversion.type() == Expression::Type::KeyPath) {
                return parseKeyPathFrom(conversion.keyPathComponents());
            }
            return conversion;
        }
        if (character == '\'' || character == '"') {
            return parseString();
        }
        if (isDigit(character) ||
            ((character == '-' || character == '+') && position_ + 1 < format_.size() && isDigit(format_[position_ + 1]))) {
            return parseNumber();
        }
        if (character == '{') {
            ++position_;
            std::vector<Expression> elements;
            if (!acceptSymbol("}")) {
                do {
                    elements.push_back(parseExpression());
                } while (acceptSymbol(","));
                if (!acceptSymbol("}")) {
                    fail("expected \"}\"");
                }
            }
            return Expression::aggregate(std::move(elements));
        }
        if (acceptWord("nil") || acceptWord("NULL")) {
            return Expression::constant(Value());
        }
        if (acceptWord("TRUE") || acceptWord("YES")) {
            return Expression::constant(true);
        }
        if (acceptWord("FALSE") || acceptWord("NO")) {
            return Expression::constant(false);
        }
        if (acceptWord("SELF")) {
            if (position_ < format_.size() && format_[position_] == '.') {
                return parseKeyPathFrom({});
            }
            return Expression::evaluatedObject();
        }
        if (character == '#' || isIdentifierStart(character)) {
            return parseKeyPathFrom({parseKey()});
        }
        fail("expected an expression");
    }

    static constexpr int kMaximumDepth = 200;

    std::string_view format_;
    const Array& arguments_;
    std::size_t position_ = 0;
    std::size_t argumentIndex_ = 0;
    int depth_ = 0;
};

// ---------------------------------------------------------------------------
// Evaluation

bool compareOne(const Value& left, const Value& right, ComparisonPredicate::Operator type, unsigned options)
{
    using Op = ComparisonPredicate::Operator;
    const auto ordered = [&](auto accept) {
        const auto order = internal::compareValues(left, right, options);
        return order.has_value() && accept(*order);
    };
    switch (type) {
    case Op::EqualTo: return internal::valuesEqual(left, right, options);
    case Op::NotEqualTo: return !internal::valuesEqual(left, right, options);
    case Op::LessThan: return ordered([](int order) { return order < 0; });
    case Op::LessThanOrEqualTo: return ordered([](int order) { return order <= 0; });
    case Op::GreaterThan: return ordered([](int order) { return order > 0; });
    case Op::GreaterThanOrEqualTo: return ordered([](int order) { return order >= 0; });
    case Op::Between: {
        const auto bounds = collectionElements(right);
        if (!bounds || bounds->size() != 2) {
            return false;
        }
        const auto low = internal::compareValues(left, (*bounds)[0], options);
        const auto high = internal::compareValues(left, (*bounds)[1], options);
        return low && high && *low >= 0 && *high <= 0;
    }
    case Op::In: {
        if (auto elements = collectionElements(right)) {
            return std::any_of(elements->begin(), elements->end(),
                               [&](const Value& element) { return internal::valuesEqual(left, element, options); });
        }
        if (left.isString() && right.isString()) {
            return compareOne(right, left, Op::Contains, options);
        }
        return false;
    }
    case Op::Contains:
        if (auto elements = collectionElements(left)) {
            return std::any_of(elements->begin(), elements->end(),
                               [&](const Value& element) { return internal::valuesEqual(element, right, options); });
        }
        [[fallthrough]];
    case Op::BeginsWith:
    case Op::EndsWith:
    case Op::Like:
    case Op::Matches:
        break;
    }
    if (!left.isString() || !right.isString()) {
        return false;
    }
    if (type == Op::Matches) {
        std::string error;
        const auto matched = internal::regexMatches(*left.string(), *right.string(), options, &error);
        if (!matched) {
            Exception::raise(NSInvalidArgumentException, "Can't do regex matching, reason: " + error);
        }
        return *matched;
    }
    // Without options the strings are compared as they are, uncopied.
    std::string foldedSubject;
    std::string_view subject = *left.string();
    if (options != 0) {
        foldedSubject = internal::foldString(subject, options);
        subject = foldedSubject;
    }
    if (type == Op::Like) {
        return internal::LikePattern::parse(*right.string(), options).matches(subject);
    }
    std::string foldedPart;
    std::string_view part = *right.string();
    if (options != 0) {
        foldedPart = internal::foldString(part, options);
        part = foldedPart;
    }
    switch (type) {
    case Op::BeginsWith: return subject.substr(0, part.size()) == part;
    case Op::EndsWith: return subject.size() >= part.size() && subject.substr(subject.size() - part.size()) == part;
    default: return subject.find(part) != std::string_view::npos;
    }
}

const char* operatorText(ComparisonPredicate::Operator type)
{
    using Op = ComparisonPredicate::Operator;
    switch (type) {
    case Op::LessThan: return "<";
    case Op::LessThanOrEqualTo: return "<=";
    case Op::GreaterThan: return ">";
    case Op::GreaterThanOrEqualTo: return ">=";
    case Op::EqualTo: return "==";
    case Op::NotEqualTo: return "!=";
    case Op::Matches: return "MATCHES";
    case Op::Like: return "LIKE";
    case Op::BeginsWith: return "BEGINSWITH";
    case Op::EndsWith: return "ENDSWITH";
    case Op::In: return "IN";
    case Op::Contains: return "CONTAINS";
    case Op::Between: return "BETWEEN";
    }
    return "?";
}

}  // namespace

// ---------------------------------------------------------------------------
// Expression

Expression Expression::constant(Value value)
{
    Expression expression;
    expression.type_ = Type::ConstantValue;
    expression.constant_ = std::move(value);
    return expression;
}

Expression Expression::evaluatedObject()
{
    Expression expression;
    expression.type_ = Type::EvaluatedObject;
    return expression;
}

Expression Expression::keyPath(std::string_view keyPath)
{
    return keyPathComponents(splitKeyPath(keyPath));
}

Expression Expression::keyPathComponents(std::vector<std::string> components)
{
    if (components.empty() || std::any_of(components.begin(), components.end(), [](const auto& c) { return c.empty(); })) {
        Exception::raise(NSInvalidArgumentException, "A key path needs non-empty keys");
    }
    Expression expression;
    expression.type_ = Type::KeyPath;
    expression.components_ = std::move(components);
    return expression;
}

Expression Expression::aggregate(std::vector<Expression> elements)
{
    Expression expression;
    expression.type_ = Type::Aggregate;
    expression.elements_ = std::move(elements);
    return expression;
}

std::string Expression::keyPath() const
{
    std::string path;
    for (const auto& component : components_) {
        path += (path.empty() ? "" : ".") + component;
    }
    return path;
}

Value Expression::valueWithObject(const Value& object) const
{
    switch (type_) {
    case Type::ConstantValue:
        return constant_;
    case Type::EvaluatedObject:
        return object;
    case Type::KeyPath: {
        Value current = object;
        for (const auto& key : components_) {
            current = valueForKey(current, key);
        }
        return current;
    }
    case Type::Aggregate: {
        Array values;
        values.reserve(elements_.size());
        for (const auto& element : elements_) {
            values.push_back(element.valueWithObject(object));
        }
        return values;
    }
    }
    return {};
}

std::string Expression::format() const
{
    switch (type_) {
    case Type::ConstantValue:
        return formatConstant(constant_);
    case Type::EvaluatedObject:
        return "SELF";
    case Type::KeyPath: {
        std::string path;
        for (const auto& component : components_) {
            path += (path.empty() ? "" : ".") + (isReserved(component) ? "#" + component : component);
        }
        return path;
    }
    case Type::Aggregate: {
        std::string text = "{";
        for (std::size_t index = 0; index < elements_.size(); ++index) {
            text += (index ? ", " : "") + elements_[index].format();
        }
        return text + "}";
    }
    }
    return {};
}

bool operator==(const Expression& left, const Expression& right)
{
    if (left.type_ != right.type_) {
        return false;
    }
    switch (left.type_) {
    case Expression::Type::ConstantValue: return left.constant_ == right.constant_;
    case Expression::Type::EvaluatedObject: return true;
    case Expression::Type::KeyPath: return left.components_ == right.components_;
    case Expression::Type::Aggregate: return left.elements_ == right.elements_;
    }
    return false;
}

// ---------------------------------------------------------------------------
// Predicates

PredicateRef Predicate::predicateWithFormat(std::string_view format, const Array& arguments)
{
    return Parser(format, arguments).parse();
}

PredicateRef Predicate::predicateWithValue(bool value)
{
    return ConstantPredicate::create(value);
}

std::shared_ptr<const ConstantPredicate> ConstantPredicate::create(bool value)
{
    return makeObject<ConstantPredicate>(value);
}

bool ConstantPredicate::evaluateWithObject(const Value&) const
{
    return value_;
}

std::string ConstantPredicate::predicateFormat() const
{
    return value_ ? "TRUEPREDICATE" : "FALSEPREDICATE";
}

bool ConstantPredicate::isEqual(const Object& other) const
{
    const auto* constant = dynamic_cast<const ConstantPredicate*>(&other);
    return constant && constant->value_ == value_;
}

ComparisonPredicate::ComparisonPredicate(Expression left, Expression right, Modifier modifier, Operator type,
                                         unsigned options)
    : left_(std::move(left)), right_(std::move(right)), modifier_(modifier), operator_(type), options_(options)
{
}

std::shared_ptr<const ComparisonPredicate> ComparisonPredicate::create(Expression left, Expression right,
                                                                       Modifier modifier, Operator type,
                                                                       unsigned options)
{
    if (type == Operator::Between) {
        const auto size = right.type() == Expression::Type::Aggregate ? std::optional(right.aggregateElements().size())
            : collectionElements(right.constantValue()) ? std::optional(collectionElements(right.constantValue())->size())
                                                        : std::nullopt;
        if (right.type() != Expression::Type::KeyPath && size != 2u) {
            Exception::raise(NSInvalidArgumentException, "BETWEEN needs two bounds");
        }
    }
    return makeObject<ComparisonPredicate>(std::move(left), std::move(right), modifier, type, options & 3u);
}

bool ComparisonPredicate::evaluateWithObject(const Value& object) const
{
    const Value left = left_.valueWithObject(object);
    const Value right = right_.valueWithObject(object);
    if (modifier_ == Modifier::Direct) {
        return compareOne(left, right, operator_, options_);
    }
    Array elements;
    if (auto collection = collectionElements(left)) {
        elements = std::move(*collection);
    } else if (!isNil(left)) {
        elements.push_back(left);
    }
    const auto test = [&](const Value& element) { return compareOne(element, right, operator_, options_); };
    return modifier_ == Modifier::Any ? std::any_of(elements.begin(), elements.end(), test)
                                      : std::all_of(elements.begin(), elements.end(), test);
}

std::string ComparisonPredicate::predicateFormat() const
{
    std::string text;
    if (modifier_ == Modifier::Any) {
        text = "ANY ";
    } else if (modifier_ == Modifier::All) {
        text = "ALL ";
    }
    text += left_.format() + " " + operatorText(operator_);
    if (options_ != 0) {
        text += "[";
        text += (options_ & CaseInsensitive) ? "c" : "";
        text += (options_ & DiacriticInsensitive) ? "d" : "";
        text += "]";
    }
    return text + " " + right_.format();
}

bool ComparisonPredicate::isEqual(const Object& other) const
{
    const auto* comparison = dynamic_cast<const ComparisonPredicate*>(&other);
    return comparison && comparison->operator_ == operator_ && comparison->modifier_ == modifier_ &&
        comparison->options_ == options_ && comparison->left_ == left_ && comparison->right_ == right_;
}

CompoundPredicate::CompoundPredicate(Type type, std::vector<PredicateRef> subpredicates)
    : type_(type), subpredicates_(std::move(subpredicates))
{
}

std::shared_ptr<const CompoundPredicate> CompoundPredicate::create(Type type, std::vector<PredicateRef> subpredicates)
{
    if (std::any_of(subpredicates.begin(), subpredicates.end(), [](const auto& p) { return !p; }) ||
        (type == Type::Not && subpredicates.size() != 1)) {
        Exception::raise(NSInvalidArgumentException, "A compound predicate needs its subpredicates (NOT exactly one)");
    }
    return makeObject<CompoundPredicate>(type, std::move(subpredicates));
}

std::shared_ptr<const CompoundPredicate> CompoundPredicate::notPredicate(PredicateRef predicate)
{
    return create(Type::Not, {std::move(predicate)});
}

std::shared_ptr<const CompoundPredicate> CompoundPredicate::andPredicate(std::vector<PredicateRef> subpredicates)
{
    return create(Type::And, std::move(subpredicates));
}

std::shared_ptr<const CompoundPredicate> CompoundPredicate::orPredicate(std::vector<PredicateRef> subpredicates)
{
    return create(Type::Or, std::move(subpredicates));
}

bool CompoundPredicate::evaluateWithObject(const Value& object) const
{
    const auto test = [&](const PredicateRef& predicate) { return predicate->evaluateWithObject(object); };
    switch (type_) {
    case Type::Not: return !test(subpredicates_.front());
    case Type::And: return std::all_of(subpredicates_.begin(), subpredicates_.end(), test);
    case Type::Or: return std::any_of(subpredicates_.begin(), subpredicates_.end(), test);
    }
    return false;
}

std::string CompoundPredicate::predicateFormat() const
{
    // Brackets go around every compound subpredicate except a NOT, which
    // binds tighter than AND and OR.
    const auto part = [](const PredicateRef& predicate) {
        const auto* compound = dynamic_cast<const CompoundPredicate*>(predicate.get());
        return compound && compound->type_ != Type::Not ? "(" + predicate->predicateFormat() + ")"
                                                        : predicate->predicateFormat();
    };
    if (type_ == Type::Not) {
        return "NOT " + part(subpredicates_.front());
    }
    if (subpredicates_.empty()) {
        return type_ == Type::And ? "TRUEPREDICATE" : "FALSEPREDICATE";
    }
    std::string text;
    for (const auto& predicate : subpredicates_) {
        text += (text.empty() ? "" : (type_ == Type::And ? " AND " : " OR ")) + part(predicate);
    }
    return text;
}

bool CompoundPredicate::isEqual(const Object& other) const
{
    const auto* compound = dynamic_cast<const CompoundPredicate*>(&other);
    return compound && compound->type_ == type_ && compound->subpredicates_.size() == subpredicates_.size() &&
        std::equal(subpredicates_.begin(), subpredicates_.end(), compound->subpredicates_.begin(),
                   [](const PredicateRef& a, const PredicateRef& b) { return a->isEqual(*b); });
}

namespace {

Value replaceConstant(const Value& value, const std::function<Value(const Value&)>& replace)
{
    if (const auto* array = value.array()) {
        Array replaced;
        replaced.reserve(array->size());
        for (const auto& element : *array) {
            replaced.push_back(replace(element));
        }
        return replaced;
    }
    if (auto elements = collectionElements(value)) {
        // Sets and ordered sets: membership is all a predicate asks of them.
        Array replaced;
        for (const auto& element : *elements) {
            replaced.push_back(replace(element));
        }
        return replaced;
    }
    return replace(value);
}

Expression replaceConstants(const Expression& expression, const std::function<Value(const Value&)>& replace)
{
    switch (expression.type()) {
    case Expression::Type::ConstantValue:
        return Expression::constant(replaceConstant(expression.constantValue(), replace));
    case Expression::Type::Aggregate: {
        std::vector<Expression> elements;
        for (const auto& element : expression.aggregateElements()) {
            elements.push_back(replaceConstants(element, replace));
        }
        return Expression::aggregate(std::move(elements));
    }
    default:
        return expression;
    }
}

}  // namespace

PredicateRef predicateByReplacingConstants(const PredicateRef& predicate,
                                           const std::function<Value(const Value&)>& replace)
{
    if (const auto* comparison = dynamic_cast<const ComparisonPredicate*>(predicate.get())) {
        return ComparisonPredicate::create(replaceConstants(comparison->leftExpression(), replace),
                                           replaceConstants(comparison->rightExpression(), replace),
                                           comparison->comparisonPredicateModifier(),
                                           comparison->predicateOperatorType(), comparison->options());
    }
    if (const auto* compound = dynamic_cast<const CompoundPredicate*>(predicate.get())) {
        std::vector<PredicateRef> parts;
        for (const auto& part : compound->subpredicates()) {
            parts.push_back(predicateByReplacingConstants(part, replace));
        }
        return CompoundPredicate::create(compound->compoundPredicateType(), std::move(parts));
    }
    return predicate;
}

}  // namespace platform
