// ComparisonResult: the platform's three-way ordering, with its values.
#pragma once

namespace platform {

enum class ComparisonResult : int {
    OrderedAscending = -1,  // the first operand is lower
    OrderedSame = 0,
    OrderedDescending = 1,  // the first operand is higher
};

}  // namespace platform
