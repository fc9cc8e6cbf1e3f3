# SPDX-License-Identifier: MIT
# MODBUS_SANITIZER=address builds everything with ASan+UBSan, =thread with TSan.
if(MODBUS_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(MODBUS_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT MODBUS_SANITIZER STREQUAL "")
  message(FATAL_ERROR "MODBUS_SANITIZER must be empty, 'address' or 'thread'")
endif()
