// NSString(QMRegularExpression): match a compiled regular expression against a
// string and read its capture groups.
#pragma once

#include "Platform/Foundation/RegularExpression.h"
#include "Platform/Foundation/Value.h"

#include <optional>
#include <string_view>

// True when the expression matches anywhere in the string. A missing
// expression is a programming error ("regularExpression != nil").
bool isMatchedByRegularExpression(std::string_view string, const platform::RegularExpressionRef& regularExpression);

// The first match: element 0 is the whole match, element i the i-th capture
// group, and a group that took no part is the null object. Nothing when the
// expression does not match (never an empty array).
std::optional<platform::Array> componentsMatchedByRegularExpression(
    std::string_view string, const platform::RegularExpressionRef& regularExpression);
