if(KEL_ASAN)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()
if(KEL_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  # GCC warns that ThreadSanitizer cannot model std::atomic_thread_fence, which Asio uses, and
  # -Werror turns that into a failure for every Asio user. Asio's fenced blocks only duplicate the
  # ordering its scheduler's locks already give, so they are compiled out in this build.
  add_compile_options(-Wno-tsan)
  add_compile_definitions(BOOST_ASIO_DISABLE_FENCED_BLOCK)
  add_link_options(-fsanitize=thread)
endif()
