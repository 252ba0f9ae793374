#include "QMFoundation/Strings/NSString+QMRegularExpression.h"

#include "Platform/Foundation/Exception.h"

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/NSString+QMRegularExpression";
}

bool isMatchedByRegularExpression(std::string_view string, const platform::RegularExpressionRef& regularExpression)
{
    PLATFORM_PARAMETER_ASSERT(regularExpression != nullptr, "regularExpression != nil");
    return regularExpression->numberOfMatches(string) != 0;
}

std::optional<platform::Array> componentsMatchedByRegularExpression(
    std::string_view string, const platform::RegularExpressionRef& regularExpression)
{
    PLATFORM_PARAMETER_ASSERT(regularExpression != nullptr, "regularExpression != nil");
    const auto match = regularExpression->firstMatch(string);
    if (!match) {
        return std::nullopt;
    }
    platform::Array components;
    components.reserve(match->numberOfRanges());
    for (std::size_t group = 0; group < match->numberOfRanges(); ++group) {
        if (auto text = match->substring(string, group)) {
            components.emplace_back(std::move(*text));
        } else {
            components.push_back(platform::Value::null());
        }
    }
    return components;
}
