// File-path operations on strings, as the platform's string class has them.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// `path` and `component` joined by one "/", then every run of "/" reduced to
// one and a trailing "/" dropped (unless the whole result is "/"). These are
// file-path rules, not URL rules: joined to "https://host", a component gives
// "https:/host/component".
std::string stringByAppendingPathComponent(std::string_view path, std::string_view component);

}  // namespace platform
