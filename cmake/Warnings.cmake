# SPDX-License-Identifier: MIT
# Strict warnings on the project's own targets.
function(modbus_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
