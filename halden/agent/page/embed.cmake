# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Writes OUTPUT, a source with the page's files in it, of page.cpp.in. Bytes, because a text may be longer than a literal.
set(types_html "text/html; charset=utf-8")
set(types_css "text/css; charset=utf-8")
set(types_js "text/javascript; charset=utf-8")
foreach(name IN ITEMS page.html page.css page.js model.js view.js)
  file(READ "${CMAKE_CURRENT_LIST_DIR}/${name}" bytes HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")
  string(REGEX REPLACE "\\." "_" variable "${name}")
  string(REGEX REPLACE ".*\\." "" extension "${name}")
  string(APPEND arrays "constexpr char ${variable}[] = {${bytes}};\n")
  set(path "/${name}")
  if(name STREQUAL "page.html")
    set(path "/")
  endif()
  string(APPEND entries "      {\"${path}\", \"${types_${extension}}\", Text(${variable})},\n")
endforeach()
configure_file("${CMAKE_CURRENT_LIST_DIR}/page.cpp.in" "${OUTPUT}" @ONLY)
