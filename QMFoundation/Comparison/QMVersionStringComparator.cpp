#include "QMFoundation/Comparison/QMVersionStringComparator.h"

#include "Platform/Foundation/Unicode.h"

#include <unicode/uchar.h>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <cstdint>
#include <limits>

using platform::ComparisonResult;
using Type = QMVersionPartType;

namespace {

struct Character {
    Type type;
    std::size_t length;  // in bytes
    int digit;           // the digit's value, for numbers
};

Character characterAt(std::string_view text, std::size_t index)
{
    const auto byte = static_cast<unsigned char>(text[index]);
    if (byte < 0x80) {
        if (byte >= '0' && byte <= '9') {
            return {Type::Number, 1, byte - '0'};
        }
        return {byte == '.' ? Type::Separator : Type::String, 1, 0};
    }
    const auto decoded = platform::decodeUTF8Character(text, index);
    const auto codePoint = static_cast<UChar32>(decoded.codePoint);
    if (decoded.valid && u_charType(codePoint) == U_DECIMAL_DIGIT_NUMBER) {
        return {Type::Number, decoded.length, u_charDigitValue(codePoint)};
    }
    return {Type::String, decoded.length, 0};
}

struct Part {
    Type type;
    std::string_view text;
    std::int32_t value;  // for numbers, saturated at the 32-bit limit
};

// Walks the parts of a version string without copying it.
class PartScanner {
public:
    explicit PartScanner(std::string_view text) : text_(text) {}

    bool next(Part& part)
    {
        if (index_ >= text_.size()) {
            return false;
        }
        const auto start = index_;
        const auto first = characterAt(text_, index_);
        index_ += first.length;
        std::int64_t value = first.digit;
        // A separator is always a part of its own, even next to another.
        while (first.type != Type::Separator && index_ < text_.size()) {
            const auto character = characterAt(text_, index_);
            if (character.type != first.type) {
                break;
            }
            if (first.type == Type::Number) {
                value = std::min<std::int64_t>(value * 10 + character.digit, std::numeric_limits<std::int32_t>::max());
            }
            index_ += character.length;
        }
        part = {first.type, text_.substr(start, index_ - start), static_cast<std::int32_t>(value)};
        return true;
    }

private:
    std::string_view text_;
    std::size_t index_ = 0;
};

bool isASCII(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

// The UTF-16 units a word compares by: canonically decomposed when the word
// is valid UTF-8. A byte that is not UTF-8 stands as a lone low surrogate
// carrying its value, so different bytes stay different.
std::u16string comparisonKey(std::string_view text)
{
    if (platform::isValidUTF8(text)) {
        UErrorCode status = U_ZERO_ERROR;
        const auto* decomposition = unorm2_getNFDInstance(&status);
        std::u16string units(text.size(), u'\0');
        int32_t length = 0;
        u_strFromUTF8(units.data(), static_cast<int32_t>(units.size()), &length, text.data(),
                      static_cast<int32_t>(text.size()), &status);
        units.resize(static_cast<std::size_t>(length));
        if (U_SUCCESS(status)) {
            // Decomposition grows text by at most a small factor; ask for the
            // size first rather than guess.
            const auto needed = unorm2_normalize(decomposition, units.data(), length, nullptr, 0, &status);
            if (status == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(status)) {
                status = U_ZERO_ERROR;
                std::u16string decomposed(static_cast<std::size_t>(needed), u'\0');
                unorm2_normalize(decomposition, units.data(), length, decomposed.data(), needed, &status);
                if (U_SUCCESS(status)) {
                    return decomposed;
                }
            }
        }
    }
    std::u16string key;
    for (std::size_t index = 0; index < text.size();) {
        const auto character = platform::decodeUTF8Character(text, index);
        if (!character.valid) {
            key += static_cast<char16_t>(0xDC00 + character.codePoint);
        } else if (character.codePoint >= 0x10000) {
            key += static_cast<char16_t>(0xD800 + ((character.codePoint - 0x10000) >> 10));
            key += static_cast<char16_t>(0xDC00 + ((character.codePoint - 0x10000) & 0x3FF));
        } else {
            key += static_cast<char16_t>(character.codePoint);
        }
        index += character.length;
    }
    return key;
}

template <typename T>
ComparisonResult order(const T& left, const T& right)
{
    if (left < right) {
        return ComparisonResult::OrderedAscending;
    }
    return right < left ? ComparisonResult::OrderedDescending : ComparisonResult::OrderedSame;
}

ComparisonResult compareWords(std::string_view word, std::string_view otherWord)
{
    if (isASCII(word) && isASCII(otherWord)) {
        return order(word, otherWord);  // ASCII bytes are their own UTF-16 units
    }
    return order(comparisonKey(word), comparisonKey(otherWord));
}

}  // namespace

QMVersionPartType QMVersionStringComparator::typeOfCharacter(std::string_view characters)
{
    if (characters == ".") {
        return Type::Separator;
    }
    if (characters.empty()) {
        return Type::String;
    }
    const auto type = characterAt(characters, 0).type;
    return type == Type::Number ? Type::Number : Type::String;
}

std::vector<std::string> QMVersionStringComparator::splitVersionString(std::string_view versionString)
{
    std::vector<std::string> parts;
    PartScanner scanner(versionString);
    for (Part part{}; scanner.next(part);) {
        parts.emplace_back(part.text);
    }
    return parts;
}

ComparisonResult QMVersionStringComparator::compareVersion(std::string_view version, std::string_view otherVersion)
{
    PartScanner scanner(version);
    PartScanner otherScanner(otherVersion);
    for (;;) {
        Part part{};
        Part otherPart{};
        const bool hasPart = scanner.next(part);
        const bool hasOtherPart = otherScanner.next(otherPart);
        if (!hasPart || !hasOtherPart) {
            if (hasPart == hasOtherPart) {
                return ComparisonResult::OrderedSame;
            }
            // The longer one's first extra part decides: a word marks a
            // pre-release (lower), anything else a later version (higher).
            const bool longerIsLower = (hasPart ? part : otherPart).type == Type::String;
            return hasPart == longerIsLower ? ComparisonResult::OrderedAscending : ComparisonResult::OrderedDescending;
        }
        if (part.type != otherPart.type) {
            if (otherPart.type == Type::String) {
                return ComparisonResult::OrderedDescending;
            }
            if (part.type == Type::String) {
                return ComparisonResult::OrderedAscending;
            }
            return part.type == Type::Number ? ComparisonResult::OrderedDescending : ComparisonResult::OrderedAscending;
        }
        ComparisonResult result = ComparisonResult::OrderedSame;
        if (part.type == Type::String) {
            result = compareWords(part.text, otherPart.text);
        } else if (part.type == Type::Number) {
            result = order(part.value, otherPart.value);
        }
        if (result != ComparisonResult::OrderedSame) {
            return result;
        }
    }
}
