// JSONSerialization: JSON text to and from values.
//
// Objects map to insertion-ordered dictionaries, so a value written and read
// back keeps its key order. Booleans stay booleans and integers stay integers.
// Reading refuses documents nested more than 512 levels deep, as it refuses
// malformed ones.
#pragma once

#include "Platform/Foundation/Value.h"

#include <optional>
#include <string>
#include <string_view>

namespace platform {

class JSONSerialization {
public:
    enum WritingOptions : unsigned { PrettyPrinted = 1u << 0, SortedKeys = 1u << 1, FragmentsAllowed = 1u << 2 };
    enum ReadingOptions : unsigned { AllowFragments = 1u << 2 };

    // True for an array or dictionary (or, with fragments, any value) made
    // only of strings, finite numbers, booleans, null, arrays and dictionaries.
    static bool isValidJSONObject(const Value& value, unsigned options = 0);

    [[nodiscard]] static std::optional<std::string> stringWithValue(const Value& value, unsigned options = 0, ErrorRef* error = nullptr);
    [[nodiscard]] static std::optional<Value> valueWithString(std::string_view text, unsigned options = 0, ErrorRef* error = nullptr);
};

}  // namespace platform
