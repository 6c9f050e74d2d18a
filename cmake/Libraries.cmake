# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# The library as programs link it, shared and static, each with all layers in it (a process must have one log sink,
# whatever links it) and with a client library that nobody else sees.
set(library_layers logger_objects halden_proto_objects ${halden_rooms})
list(TRANSFORM library_layers REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>" OUTPUT_VARIABLE library_objects)

# Installed, all headers are found as <halden/...>. Built in a tree, those of the lower layers are found so, too.
foreach(layer IN ITEMS zrstl misc/logger)
  set(headers_dir "${PROJECT_SOURCE_DIR}/${layer}/include")
  file(GLOB headers CONFIGURE_DEPENDS RELATIVE "${headers_dir}" "${headers_dir}/*/*.h")
  foreach(header IN LISTS headers)
    file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/generated/halden/${header}" CONTENT "#include \"${header}\"\n")
  endforeach()
endforeach()
set(messages "zr/messaging/halden/service.pb.h")
file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/generated/halden/${messages}" CONTENT "#include \"${messages}\"\n")

function(halden_library target)
  target_compile_features(${target} INTERFACE cxx_std_20)
  foreach(directory IN ITEMS "${PROJECT_SOURCE_DIR}/halden/cpp/include" "${PROJECT_SOURCE_DIR}/zrstl/include"
      "${PROJECT_SOURCE_DIR}/misc/logger/include")
    target_include_directories(${target} INTERFACE "$<BUILD_INTERFACE:${directory}>")
  endforeach()
  target_include_directories(${target} SYSTEM INTERFACE "$<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>")
  target_include_directories(${target} INTERFACE "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
  target_link_libraries(${target}
    PUBLIC protobuf::libprotobuf ZooKeeper::headers Boost::headers Threads::Threads
    PRIVATE spdlog::spdlog tomlplusplus::tomlplusplus ZLIB::ZLIB)
  set_target_properties(${target} PROPERTIES OUTPUT_NAME halden
    LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/package"
    ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/package")
endfunction()

add_library(halden_shared SHARED ${library_objects})
halden_library(halden_shared)
target_link_libraries(halden_shared PRIVATE $<BUILD_INTERFACE:ZooKeeper::client>)
set(version_script "${PROJECT_SOURCE_DIR}/cmake/halden.map")
# Until 1.0 every minor version may change the interface.
set_target_properties(halden_shared PROPERTIES
  EXPORT_NAME shared VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
  LINK_DEPENDS "${version_script}")
target_link_options(halden_shared PRIVATE "LINKER:--version-script=${version_script}" "LINKER:--no-undefined"
  "LINKER:--exclude-libs,libzookeeper_client.a"
  # Its threads are never joined: a library that is closed while they run must stay where they run.
  "LINKER:-z,nodelete")

# An archive hides nothing: so one object is made of all, in which the client library's names are local. The compiler
# does it, because a linker alone would put link-time code (-flto) through as it is, the names in it included.
set(whole "${PROJECT_BINARY_DIR}/package/halden.o")
set(parts "$<FILTER:${library_objects},EXCLUDE,\\.gch$>")  # CMake counts precompiled headers among the objects
set(partial_link "${CMAKE_CXX_COMPILER}" -r -nostdlib)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND partial_link -flinker-output=nolto-rel)
endif()
add_custom_command(
  OUTPUT "${whole}"
  COMMAND ${partial_link} -o "${whole}" "${parts}" "${client_library}"
  COMMAND "${CMAKE_OBJCOPY}" "--localize-symbols=${client_symbols}" "${whole}"
  DEPENDS "${parts}" "${client_library}" "${client_symbols}"
  COMMAND_EXPAND_LISTS
  COMMENT "Making one object of the library and its client"
  VERBATIM)
add_library(halden_static STATIC "${whole}")
set_source_files_properties("${whole}" PROPERTIES EXTERNAL_OBJECT TRUE GENERATED TRUE)
set_target_properties(halden_static PROPERTIES EXPORT_NAME static LINKER_LANGUAGE CXX)
halden_library(halden_static)
add_dependencies(halden_static ${library_layers})  # the command's dependencies are files, which make knows by directory

if(NOT HALDEN_INSTALL)  # built where something links them
  set_target_properties(halden_shared halden_static PROPERTIES EXCLUDE_FROM_ALL TRUE)
endif()

# For who takes this tree as a part of a build, the names that the installed package has too. All are the same library:
# a program that linked the log's archive and the library would have two sinks, or would not link at all.
foreach(name IN ITEMS halden logger zrstl)
  add_library(halden::${name} ALIAS halden_static)
endforeach()
