# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# What is installed, and the Debian packages: the library, shared and static, the kit for tests, the development files,
# the command.
include(CMakePackageConfigHelpers)

set(package_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/halden")

install(TARGETS halden_shared EXPORT haldenSharedTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT library NAMELINK_COMPONENT development)
install(TARGETS halden_static EXPORT haldenStaticTargets
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development)
install(TARGETS halden_testing EXPORT haldenTestingTargets
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development)
foreach(kind IN ITEMS Shared Static Testing)
  install(EXPORT halden${kind}Targets NAMESPACE halden:: DESTINATION "${package_cmake_dir}" COMPONENT development)
endforeach()

# All of it below halden/, so that no header of ours takes a name, like logger/logger.h, that a program's own may have,
# nor finds the program's in place of ours: what they include of each other is written anew for that.
foreach(headers IN ITEMS "${PROJECT_SOURCE_DIR}/halden/cpp/include/halden/"
    "${PROJECT_SOURCE_DIR}/halden/testing/include/halden/" "${PROJECT_SOURCE_DIR}/zrstl/include/zrstl"
    "${PROJECT_SOURCE_DIR}/misc/logger/include/logger" "${PROJECT_BINARY_DIR}/generated/zr")
  install(DIRECTORY "${headers}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/halden"
    COMPONENT development FILES_MATCHING PATTERN "*.h" PATTERN "snapshot.pb.h" EXCLUDE)
endforeach()
install(CODE "set(headers_dir \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_INCLUDEDIR}/halden\")"
  COMPONENT development)
install(SCRIPT "${CMAKE_CURRENT_LIST_DIR}/InstalledIncludes.cmake" COMPONENT development)
install(FILES "${PROJECT_SOURCE_DIR}/halden/proto/service.proto"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/halden" COMPONENT development)

configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/haldenConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/package/haldenConfig.cmake" INSTALL_DESTINATION "${package_cmake_dir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/package/haldenConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/package/haldenConfig.cmake"
  "${PROJECT_BINARY_DIR}/package/haldenConfigVersion.cmake"
  DESTINATION "${package_cmake_dir}" COMPONENT development)
file(RELATIVE_PATH prefix_from_pkgconfig "/x/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/x")  # it may be moved
foreach(name IN ITEMS halden halden-testing)
  configure_file("${CMAKE_CURRENT_LIST_DIR}/${name}.pc.in" "${PROJECT_BINARY_DIR}/package/${name}.pc" @ONLY)
endforeach()
install(FILES "${PROJECT_BINARY_DIR}/package/halden.pc" "${PROJECT_BINARY_DIR}/package/halden-testing.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

set(library_package "libhalden${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}")
function(halden_install_licences component package)
  set(destination "${CMAKE_INSTALL_DATADIR}/doc/${package}")
  install(FILES "${PROJECT_SOURCE_DIR}/LICENSE" RENAME copyright
    DESTINATION "${destination}" COMPONENT ${component})
  if(EXISTS "${client_licences}")
    install(FILES "${client_licences}" RENAME copyright.zookeeper
      DESTINATION "${destination}" COMPONENT ${component})
  endif()
endfunction()
halden_install_licences(library ${library_package})
halden_install_licences(development libhalden-dev)
halden_install_licences(tool halden)

# Debian packages.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME halden)
set(CPACK_PACKAGE_CONTACT "The halden authors <halden@example.org>")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library development tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "Service discovery over ZooKeeper, across data centres: shared library")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libhalden-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# Headers of ours include theirs; the static library needs the recommended ones too.
string(CONCAT CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library_package} (= ${PROJECT_VERSION}), "
  "libprotobuf-dev, libzookeeper-st-dev | libzookeeper-mt-dev, libboost1.81-dev | libboost-dev (>= 1.78)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS "libspdlog-dev, libtomlplusplus-dev, zlib1g-dev")
# What halden::testing runs. Suggested only: apt-get installs what is recommended, and who just builds a program should
# not get hundreds of megabytes of Java for it. Where it is missing the kit says what to install.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS
  "default-jre-headless | java8-runtime-headless, libzookeeper-java, libslf4j-java")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "Service discovery over ZooKeeper, across data centres: headers, static library, CMake and pkg-config files")
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME halden)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION admin)
set(CPACK_COMPONENT_TOOL_DESCRIPTION
  "Service discovery over ZooKeeper, across data centres: the command to watch, list and publish instances")
foreach(component IN ITEMS LIBRARY DEVELOPMENT TOOL)
  string(APPEND CPACK_COMPONENT_${component}_DESCRIPTION "\nContains ZooKeeper's C client ${client_version}.")
endforeach()
include(CPack)
