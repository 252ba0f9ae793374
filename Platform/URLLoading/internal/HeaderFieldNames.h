// Header field names compare as HTTP compares them: ASCII letters without
// regard to case, everything else exactly.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace platform::urlloading_internal {

inline char lowerFieldNameCharacter(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline bool sameFieldName(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
        return lowerFieldNameCharacter(x) == lowerFieldNameCharacter(y);
    });
}

// The one spelling of a name that all its spellings share.
inline std::string foldedFieldName(std::string_view name)
{
    std::string folded(name);
    std::transform(folded.begin(), folded.end(), folded.begin(), lowerFieldNameCharacter);
    return folded;
}

}  // namespace platform::urlloading_internal
