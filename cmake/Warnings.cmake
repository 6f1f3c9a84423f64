# Warnings are errors for every target of the project.
function(kel_set_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Werror
    -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wimplicit-fallthrough
    -Wcast-qual -Wformat=2 -Wmissing-declarations)
endfunction()
