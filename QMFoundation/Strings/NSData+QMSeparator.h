// NSData(QMSeparator): splitting bytes at a separator byte, for NUL-separated
// command output such as "git ls-files -z".
#pragma once

#include "Platform/Foundation/Value.h"

#include <cstdint>
#include <vector>

// The runs of bytes between separators, in order. Empty runs (leading,
// trailing or repeated separators) are never returned; empty data gives none.
std::vector<platform::Data> componentsSeparatedByChar(const platform::Data& data, std::uint8_t separator);
std::vector<platform::Data> componentsSeparatedByNULByte(const platform::Data& data);
