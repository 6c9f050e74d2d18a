# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# At installation: headers in ${headers_dir} find each other as <halden/...>.
file(GLOB_RECURSE headers "${headers_dir}/*.h")
foreach(header IN LISTS headers)
  file(READ "${header}" text)
  string(REGEX REPLACE "(#include \")((logger|zrstl|zr)/)" "\\1halden/\\2" own "${text}")
  if(NOT own STREQUAL text)
    file(WRITE "${header}" "${own}")
  endif()
endforeach()
