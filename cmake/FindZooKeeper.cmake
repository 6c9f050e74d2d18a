# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Finds ZooKeeper's multi-threaded C client; defines ZooKeeper::zookeeper_mt.
find_path(ZooKeeper_INCLUDE_DIR NAMES zookeeper/zookeeper.h)
find_library(ZooKeeper_LIBRARY NAMES zookeeper_mt)

if(ZooKeeper_INCLUDE_DIR AND EXISTS "${ZooKeeper_INCLUDE_DIR}/zookeeper/zookeeper_version.h")
  file(STRINGS "${ZooKeeper_INCLUDE_DIR}/zookeeper/zookeeper_version.h" version_line
    REGEX "#define ZOO_VERSION +\"")
  string(REGEX REPLACE ".*\"([0-9.]+)\".*" "\\1" ZooKeeper_VERSION "${version_line}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ZooKeeper
  REQUIRED_VARS ZooKeeper_LIBRARY ZooKeeper_INCLUDE_DIR VERSION_VAR ZooKeeper_VERSION)
mark_as_advanced(ZooKeeper_INCLUDE_DIR ZooKeeper_LIBRARY)

if(ZooKeeper_FOUND AND NOT TARGET ZooKeeper::zookeeper_mt)
  add_library(ZooKeeper::zookeeper_mt UNKNOWN IMPORTED)
  set_target_properties(ZooKeeper::zookeeper_mt PROPERTIES
    IMPORTED_LOCATION "${ZooKeeper_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${ZooKeeper_INCLUDE_DIR}"
    # THREADED declares the multi-threaded API and is what the library itself was built with.
    INTERFACE_COMPILE_DEFINITIONS THREADED)
endif()
