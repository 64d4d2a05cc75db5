# Warnings every vrk target is built with; the code is kept clean under them
# on g++ 12 and clang 14.
function(vrk_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-unused-parameter)
  if(VRK_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
