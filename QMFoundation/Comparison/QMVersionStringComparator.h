// QMVersionStringComparator: orders human-written version strings ("1.2.10",
// "2.0b3", "1.0a") by their parts: runs of decimal digits compare by value,
// runs of other characters as text, and every "." is a part of its own.
//
//   QMVersionStringComparator::compareVersion("1.9", "1.10");   // OrderedAscending
//   QMVersionStringComparator::compareVersion("1.0b1", "1.0");  // OrderedAscending: a trailing word is a pre-release
//
// Digits are the characters of Unicode category Nd in any script ("١٢" is a
// number part of value 12); a number part's value saturates at 2147483647, so
// all longer numbers are the same. Word parts compare as text: canonically
// equivalent spellings ("é" composed or not) are the same, otherwise the
// lower UTF-16 code unit at the first difference is lower; upper case sorts
// before lower case. Bytes that are not UTF-8 are word characters of their
// own. Any input is safe; the functions are pure and may run on any thread.
#pragma once

#include "Platform/Foundation/ComparisonResult.h"

#include <string>
#include <string_view>
#include <vector>

// The kinds of parts, with the values the design gives them.
enum class QMVersionPartType : int {
    Number = 0,
    String = 1,
    Separator = 2,
};

class QMVersionStringComparator {
public:
    // Separator when `characters` is exactly "."; otherwise Number when its
    // first character is a decimal digit; otherwise String (also for "").
    static QMVersionPartType typeOfCharacter(std::string_view characters);

    // "1.10b2" -> "1", ".", "10", "b", "2"; "1..2" -> "1", ".", ".", "2";
    // "" -> nothing.
    static std::vector<std::string> splitVersionString(std::string_view versionString);

    // Part by part: a number or separator beats a word, a number beats a
    // separator, equal parts go on. When one list runs out, a following word
    // makes the longer version lower; a number or separator makes it higher.
    static platform::ComparisonResult compareVersion(std::string_view version, std::string_view otherVersion);
};
