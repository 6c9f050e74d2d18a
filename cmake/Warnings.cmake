# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Warnings for our own targets. They are errors only in our own presets, so that another
# compiler's new warning never breaks a user's build.
option(HALDEN_WARNINGS_AS_ERRORS "Treat warnings as errors" OFF)

function(halden_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
    -Woverloaded-virtual -Wold-style-cast -Wcast-qual -Wconversion -Wsign-conversion
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
  if(HALDEN_SANITIZERS AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized) # instrumented code gives false alarms
  endif()
  if(HALDEN_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
