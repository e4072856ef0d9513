# quillmere_precompile(TARGET): the standard headers that nearly every source includes, precompiled. How fast this project
# compiles is its own business, not a parent project's. GCC 12 warns of copies beyond arrays where the standard headers
# come to it precompiled (the same bug as in Warnings.cmake); the dev preset has none and looks for them.
function(quillmere_precompile target)
  if(PROJECT_IS_TOP_LEVEL)
    target_precompile_headers(
      ${target}
      PRIVATE <algorithm>
              <filesystem>
              <functional>
              <map>
              <memory>
              <mutex>
              <optional>
              <string>
              <unordered_map>
              <variant>
              <vector>)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU"
       AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13
       AND NOT CMAKE_DISABLE_PRECOMPILE_HEADERS)
      target_compile_options(${target} PRIVATE -Wno-array-bounds -Wno-stringop-overflow)
    endif()
  endif()
endfunction()
