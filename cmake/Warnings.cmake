function(qv_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wno-missing-field-initializers)
  # GCC 12 reports false overlaps and overflows inside std::string operations.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-restrict -Wno-stringop-overflow)
  endif()
endfunction()
