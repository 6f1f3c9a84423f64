# Warnings are errors for every target of the project.
function(kel_set_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Werror
    -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wimplicit-fallthrough
    -Wcast-qual -Wformat=2 -Wmissing-declarations)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 reports impossible overlaps, sizes and bounds in inlined std::string concatenation at -O3
    # (GCC bugs 105329 and 105651); the warnings carry no signal there.
    target_compile_options(${target} PRIVATE -Wno-restrict -Wno-stringop-overflow -Wno-array-bounds)
  endif()
endfunction()
