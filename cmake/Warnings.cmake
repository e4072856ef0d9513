# quillmere_warnings(TARGET): the project's warnings, for one target and never for who links it.
function(quillmere_warnings target)
  if(PROJECT_IS_TOP_LEVEL OR QUILLMERE_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  endif()
  if(QUILLMERE_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
