// The convention for operations that are declared but not implemented: they
// raise "QMNotImplementedException" with the reason "Not implemented yet.",
// so a caller learns at once instead of getting a silent no-op.
#pragma once

#include <string_view>

inline constexpr std::string_view QMNotImplementedException = "QMNotImplementedException";

[[noreturn]] void raiseNotImplementedException();
