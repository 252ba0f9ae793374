# Warnings are errors for the project's own code; third-party headers are
# included as system headers and stay quiet.
add_compile_options(
  -Wall -Wextra -Wpedantic -Werror
  -Wshadow=local -Wnon-virtual-dtor -Wcast-align -Woverloaded-virtual
  -Wnull-dereference -Wimplicit-fallthrough
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
)
