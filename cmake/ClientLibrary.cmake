# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# ZooKeeper::client: the single-threaded C client as the library embeds it. Its functions for what depends on
# threads are made weak, so that ours (halden/cpp/source/client/client_adaptor.cpp) come in their place.
# client_symbols is the list of all that it defines: to be hidden from the programs that link the library, which may use
# a client library of their own. client_version says which version of it is inside.
if(NOT ZooKeeper_st_LIBRARY)
  message(FATAL_ERROR "libzookeeper_st.a is not found; Debian's package is libzookeeper-st-dev")
endif()
set(replaced adaptor_send_queue get_xid log_message)
set(client_library "${PROJECT_BINARY_DIR}/client/libzookeeper_client.a")
set(client_symbols "${PROJECT_BINARY_DIR}/client/symbols")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${ZooKeeper_st_LIBRARY}")

execute_process(COMMAND "${CMAKE_NM}" --defined-only --extern-only --format=posix "${ZooKeeper_st_LIBRARY}"
  OUTPUT_VARIABLE listed ERROR_QUIET COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+ [TDBRVW] [^\n]*" listed "${listed}")
list(TRANSFORM listed REPLACE " .*" "")
list(JOIN listed "\n" lines)
file(WRITE "${client_symbols}" "${lines}\n")
set(weaken "")
foreach(name IN LISTS replaced)
  if(NOT name IN_LIST listed)
    message(FATAL_ERROR "${ZooKeeper_st_LIBRARY} has no ${name}: this version of the client library is not known")
  endif()
  list(APPEND weaken "--weaken-symbol=${name}")
endforeach()
execute_process(COMMAND "${CMAKE_OBJCOPY}" ${weaken} "${ZooKeeper_st_LIBRARY}" "${client_library}"
  COMMAND_ERROR_IS_FATAL ANY)

add_library(ZooKeeper::client STATIC IMPORTED GLOBAL)
set_target_properties(ZooKeeper::client PROPERTIES IMPORTED_LOCATION "${client_library}"
  INTERFACE_INCLUDE_DIRECTORIES "${ZooKeeper_INCLUDE_DIR}")

# A security update of a distribution leaves ZOO_VERSION as it is: where the archive belongs to a Debian package, that
# package's version tells more. Its licences have to be handed on with what is made of it.
set(client_version "${ZooKeeper_VERSION}")
set(client_licences "")
find_program(DPKG_QUERY dpkg-query)
mark_as_advanced(DPKG_QUERY)
if(DPKG_QUERY)
  execute_process(COMMAND "${DPKG_QUERY}" --search "${ZooKeeper_st_LIBRARY}"
    OUTPUT_VARIABLE package ERROR_QUIET RESULT_VARIABLE unknown)
  if(NOT unknown)
    string(REGEX REPLACE ": .*" "" package "${package}")
    execute_process(COMMAND "${DPKG_QUERY}" --show "--showformat=\${Version}" "${package}"
      OUTPUT_VARIABLE client_version COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX REPLACE ":.*" "" package "${package}")  # the architecture
    set(client_licences "/usr/share/doc/${package}/copyright")
  endif()
endif()
