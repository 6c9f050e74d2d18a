# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# HALDEN_SANITIZERS: a comma-separated list for -fsanitize, for the whole build.
set(HALDEN_SANITIZERS "" CACHE STRING "Sanitizers to build with, for example address,undefined")

if(HALDEN_SANITIZERS)
  add_compile_options(-fsanitize=${HALDEN_SANITIZERS} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  if(HALDEN_SANITIZERS MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-tsan)  # of Asio's fences, which the sanitizer does not see: its mutexes order the same
  endif()
  add_link_options(-fsanitize=${HALDEN_SANITIZERS})
endif()
