// Seams of the dispatch core and the file logger for their own tests; not
// for the library above.
#pragma once

#include <cstddef>

namespace ddlog_internal {

// Replaces the processor count that chooses between sequential and parallel
// fan-out (at least 1); returns the previous one. Takes effect between two
// messages.
std::size_t setProcessorCount(std::size_t count);

// Starts the file loggers' process-wide failure count (DDFileLogger::
// exceptionCount) again from zero, so that the first ten failures are told
// on the console again. The count lives as long as the process: without
// this, a case that checks the telling passes only when it is the first of
// its process to fail a write.
void resetFileLoggerExceptionCount();

}  // namespace ddlog_internal
