// The system console of the logging classes: standard error. A message is
// one line, written with one write(2) so that lines of several threads never
// interleave; a failed write is dropped (there is nowhere left to report it).
#pragma once

#include <string_view>

namespace qmlogging::internal {

void writeToSystemConsole(std::string_view message);

}  // namespace qmlogging::internal
