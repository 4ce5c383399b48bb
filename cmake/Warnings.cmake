# Strict warnings on our own targets only (third-party headers come in as SYSTEM).
function(ia_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
