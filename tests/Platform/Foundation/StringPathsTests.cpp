#include "Platform/Foundation/StringPaths.h"

#include <gtest/gtest.h>

namespace {

TEST(StringPathsTest, AppendingAComponentFollowsFilePathRules)
{
    struct Row {
        const char* path;
        const char* component;
        const char* joined;
    };
    const Row rows[] = {
        {"a", "b", "a/b"},
        {"a/", "/b", "a/b"},
        {"a//", "b//c/", "a/b/c"},
        {"/", "b", "/b"},
        {"", "b", "b"},
        {"a/", "", "a"},
        {"", "", ""},
        {"/", "", "/"},
        // URL text is not special: the "//" after the scheme collapses too.
        {"https://api.example.com", "v1/items", "https:/api.example.com/v1/items"},
        {"https://api.example.com/", "/v1/items", "https:/api.example.com/v1/items"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.path) + " + " + row.component);
        EXPECT_EQ(platform::stringByAppendingPathComponent(row.path, row.component), row.joined);
    }
}

}  // namespace
