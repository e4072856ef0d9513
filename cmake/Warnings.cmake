# quillmere_warnings(TARGET): the project's warnings, for one target and never for who links it.
function(quillmere_warnings target)
  if(PROJECT_IS_TOP_LEVEL OR QUILLMERE_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  endif()
  # GCC 12 sees overlapping copies where it inlines the concatenation of strings (GCC bug 105651).
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
  if(QUILLMERE_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
