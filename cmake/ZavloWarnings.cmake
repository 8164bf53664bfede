# Warnings are errors in our own targets only; third-party headers come in as SYSTEM.
function(zavlo_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
endfunction()
