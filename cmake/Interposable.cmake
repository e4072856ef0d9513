# quillmere_interposable(TARGET): lets tests put functions of their own in the place of the C library's. Fortified, as many
# packagers build, a target would call others (`__openat_2`, `__read_chk`), past the tests, which would then find nothing.
function(quillmere_interposable target)
  if(QUILLMERE_TESTS OR QUILLMERE_FUZZ)
    target_compile_options(${target} PRIVATE -U_FORTIFY_SOURCE)
  endif()
endfunction()
