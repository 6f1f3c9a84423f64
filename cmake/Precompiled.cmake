# Precompiled third-party headers (Asio, Boost.URL, nlohmann/json, the standard library, GoogleTest)
# cut a cold build roughly in half: most translation units spend more time parsing them than
# compiling their own code. The header-check target deliberately does not use them, so that every
# public header still has to include what it needs.
option(KEL_PRECOMPILED_HEADERS "Precompile the heavy third-party headers" ON)

if(KEL_PRECOMPILED_HEADERS AND CCACHE_PROGRAM)
  # ccache caches both the precompiled header and the files that use it only when told that the
  # header's time stamps and __DATE__/__TIME__ do not matter.
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
      "CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime"
      ${CCACHE_PROGRAM})
endif()

# kel_precompile(target LIBRARY|TESTS)
function(kel_precompile target kind)
  if(NOT KEL_PRECOMPILED_HEADERS)
    return()
  endif()
  if(kind STREQUAL "TESTS")
    target_precompile_headers(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/pch/Tests.h)
  else()
    target_precompile_headers(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/pch/Library.h)
  endif()
endfunction()
