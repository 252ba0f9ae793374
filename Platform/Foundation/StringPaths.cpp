#include "Platform/Foundation/StringPaths.h"

namespace platform {

std::string stringByAppendingPathComponent(std::string_view path, std::string_view component)
{
    std::string joined;
    joined.reserve(path.size() + component.size() + 1);
    const auto append = [&joined](std::string_view text) {
        for (const char c : text) {
            if (c != '/' || joined.empty() || joined.back() != '/') {
                joined.push_back(c);
            }
        }
    };
    append(path);
    if (!path.empty() && !component.empty()) {
        append("/");
    }
    append(component);
    if (joined.size() > 1 && joined.back() == '/') {
        joined.pop_back();
    }
    return joined;
}

}  // namespace platform
