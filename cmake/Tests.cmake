# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Every test binary is discovered test by test; CTest runs them apart from each other. All get the same settings for the
# sanitizers, and so does a program that a test starts.
include(GoogleTest)

set(HALDEN_SANITIZER_ENV
  "ASAN_OPTIONS=detect_stack_use_after_return=1:strict_init_order=1"
  "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/halden/cpp/test/lsan.supp:print_suppressions=0"
  "TSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/halden/cpp/test/tsan.supp:second_deadlock_stack=1"
  "UBSAN_OPTIONS=print_stacktrace=1")

function(halden_discover_tests target timeout)
  gtest_discover_tests(${target} DISCOVERY_TIMEOUT 60 TEST_LIST ${target}_names PROPERTIES TIMEOUT ${timeout})
  # Not among the properties above: of a list only the first entry would arrive there.
  set(environment "${CMAKE_CURRENT_BINARY_DIR}/${target}_environment.cmake")
  file(WRITE "${environment}"
    "if(${target}_names)\n"
    "  set_tests_properties(\${${target}_names} PROPERTIES ENVIRONMENT \"${HALDEN_SANITIZER_ENV}\")\n"
    "endif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${environment}")
endfunction()
