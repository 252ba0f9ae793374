# Warnings are errors for the project's own code; third-party headers are
# included as system headers and stay quiet.
add_compile_options(
  -Wall -Wextra -Wpedantic -Werror -Wshadow=local -Wcast-align -Wimplicit-fallthrough
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
)

# GCC 12 reports -Wrestrict on std::string concatenation when optimising
# (GCC bug 105329, a false positive fixed in GCC 13).
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()
