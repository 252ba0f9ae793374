// Wipe: overwriting secrets before their memory goes back to the allocator,
// so that no copy of a password outlives its use in freed memory (where a
// core dump or a later bug could show it). The compiler may not drop these
// writes as it may drop a plain memset before a free.
#pragma once

#include "Platform/Foundation/Value.h"

#include <string>
#include <string_view>

namespace platform::security {

// Overwrite the bytes, then empty the buffer (its capacity is kept).
void wipe(Data& data);
void wipe(std::string& text);

// `text += more` for a string that holds a secret: when the text outgrows
// its buffer, the old buffer is wiped before it is freed.
void appendToSecret(std::string& text, std::string_view more);

}  // namespace platform::security
