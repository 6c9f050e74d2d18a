# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Finds ZooKeeper's C client; defines ZooKeeper::headers, and ZooKeeper::zookeeper_mt where the multi-threaded
# library is installed. ZooKeeper_st_LIBRARY is the archive of the single-threaded one.
find_path(ZooKeeper_INCLUDE_DIR NAMES zookeeper/zookeeper.h)
find_library(ZooKeeper_st_LIBRARY NAMES libzookeeper_st.a)
find_library(ZooKeeper_mt_LIBRARY NAMES libzookeeper_mt.so.2 zookeeper_mt)  # no -dev package has both

if(ZooKeeper_INCLUDE_DIR AND EXISTS "${ZooKeeper_INCLUDE_DIR}/zookeeper/zookeeper_version.h")
  file(STRINGS "${ZooKeeper_INCLUDE_DIR}/zookeeper/zookeeper_version.h" version_line
    REGEX "#define ZOO_VERSION +\"")
  string(REGEX REPLACE ".*\"([0-9.]+)\".*" "\\1" ZooKeeper_VERSION "${version_line}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ZooKeeper
  REQUIRED_VARS ZooKeeper_INCLUDE_DIR VERSION_VAR ZooKeeper_VERSION)
mark_as_advanced(ZooKeeper_INCLUDE_DIR ZooKeeper_st_LIBRARY ZooKeeper_mt_LIBRARY)

if(ZooKeeper_FOUND AND NOT TARGET ZooKeeper::headers)
  add_library(ZooKeeper::headers INTERFACE IMPORTED)
  set_target_properties(ZooKeeper::headers PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "${ZooKeeper_INCLUDE_DIR}")
endif()
if(ZooKeeper_FOUND AND ZooKeeper_mt_LIBRARY AND NOT TARGET ZooKeeper::zookeeper_mt)
  add_library(ZooKeeper::zookeeper_mt UNKNOWN IMPORTED)
  set_target_properties(ZooKeeper::zookeeper_mt PROPERTIES
    IMPORTED_LOCATION "${ZooKeeper_mt_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${ZooKeeper_INCLUDE_DIR}"
    # THREADED declares the waiting calls, which only this build has.
    INTERFACE_COMPILE_DEFINITIONS THREADED)
endif()
