# SPDX-License-Identifier: MIT
# Writes the live page (INPUT) into a C++ header (OUTPUT) as one raw string, kLivePageHtml.
file(READ ${INPUT} page)
string(FIND "${page}" ")PAGE\"" clash)
if(NOT clash EQUAL -1)
  message(FATAL_ERROR "${INPUT} contains the raw string's end marker )PAGE\"")
endif()
file(WRITE ${OUTPUT}.tmp
  "// Generated from live_page.html by embed_page.cmake; do not edit.\n"
  "#pragma once\n"
  "constexpr char kLivePageHtml[] = R\"PAGE(${page})PAGE\";\n")
file(RENAME ${OUTPUT}.tmp ${OUTPUT})
