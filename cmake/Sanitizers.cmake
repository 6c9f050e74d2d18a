# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# HALDEN_SANITIZERS: a comma-separated list for -fsanitize, for the whole build.
set(HALDEN_SANITIZERS "" CACHE STRING "Sanitizers to build with, for example address,undefined")

if(HALDEN_SANITIZERS)
  add_compile_options(-fsanitize=${HALDEN_SANITIZERS} -fno-omit-frame-pointer -fno-sanitize-recover=undefined -O1)
  add_link_options(-fsanitize=${HALDEN_SANITIZERS})
endif()
