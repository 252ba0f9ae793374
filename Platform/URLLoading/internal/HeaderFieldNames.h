// Header field names compare as HTTP compares them: ASCII letters without
// regard to case, everything else exactly.
#pragma once

#include <algorithm>
#include <string_view>

namespace platform::urlloading_internal {

inline bool sameFieldName(std::string_view a, std::string_view b)
{
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [&](char x, char y) { return lower(x) == lower(y); });
}

}  // namespace platform::urlloading_internal
