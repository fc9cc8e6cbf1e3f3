# SPDX-License-Identifier: MIT
# The examples of docs/API.md compile as written: every ```cpp block of the page goes, in
# order, into one translation unit that is built with the project, so that a broken example
# breaks the build. Included from tests/consumer/CMakeLists.txt.
set(API_PAGE ${PROJECT_SOURCE_DIR}/docs/API.md)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${API_PAGE})
file(READ ${API_PAGE} page)
set(examples "// The C++ examples of docs/API.md, extracted when the project is configured.\n")
while(TRUE)
  string(FIND "${page}" "```cpp\n" start)
  if(start EQUAL -1)
    break()
  endif()
  math(EXPR start "${start} + 7")
  string(SUBSTRING "${page}" ${start} -1 page)
  string(FIND "${page}" "```" end)
  string(SUBSTRING "${page}" 0 ${end} block)
  string(APPEND examples "${block}\n")
  string(SUBSTRING "${page}" ${end} -1 page)
endwhile()
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/api_examples.cpp.new "${examples}")
configure_file(${CMAKE_CURRENT_BINARY_DIR}/api_examples.cpp.new
  ${CMAKE_CURRENT_BINARY_DIR}/api_examples.cpp COPYONLY)

# The poll-loop example talks to a QSerialPort, as the host tool does.
find_package(Qt${MODBUS_QT_MAJOR} REQUIRED COMPONENTS Core SerialPort)
add_library(api_examples OBJECT ${CMAKE_CURRENT_BINARY_DIR}/api_examples.cpp)
target_include_directories(api_examples PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_link_libraries(api_examples PRIVATE Qt${MODBUS_QT_MAJOR}::Core
                                           Qt${MODBUS_QT_MAJOR}::SerialPort)
modbus_warnings(api_examples)
