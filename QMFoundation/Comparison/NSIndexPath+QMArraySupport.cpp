#include "QMFoundation/Comparison/NSIndexPath+QMArraySupport.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/StringValue.h"

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/NSIndexPath+QMArraySupport";
}

platform::IndexPath indexPathWithArray(const std::optional<platform::Array>& indexes)
{
    PLATFORM_PARAMETER_ASSERT(indexes.has_value(), "indexes");
    std::vector<std::size_t> path;
    path.reserve(indexes->size());
    for (const auto& element : *indexes) {
        std::optional<std::int64_t> value = element.integerValue();
        if (const auto* text = element.string()) {
            value = platform::integerValue(*text);
        }
        if (!value) {
            platform::Exception::raise(platform::NSInvalidArgumentException,
                                       "indexPathWithArray: element is not a number: " + element.description());
        }
        path.push_back(static_cast<std::size_t>(*value));
    }
    return platform::IndexPath(std::move(path));
}

platform::Array indexes(const platform::IndexPath& indexPath)
{
    platform::Array numbers;
    numbers.reserve(indexPath.length());
    for (std::size_t position = 0; position < indexPath.length(); ++position) {
        numbers.emplace_back(indexPath.indexAtPosition(position));
    }
    return numbers;
}
