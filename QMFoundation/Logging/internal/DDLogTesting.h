// Seams of the dispatch core for its own tests; not for the library above.
#pragma once

#include <cstddef>

namespace ddlog_internal {

// Replaces the processor count that chooses between sequential and parallel
// fan-out (at least 1); returns the previous one. Takes effect between two
// messages.
std::size_t setProcessorCount(std::size_t count);

}  // namespace ddlog_internal
