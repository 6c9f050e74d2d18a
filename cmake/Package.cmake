# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# What is installed, and the Debian packages: the library, shared and static, each with all layers in it (a
# process must have one log sink, whatever links it), the development files, the command.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set(package_objects
  $<TARGET_OBJECTS:logger_objects> $<TARGET_OBJECTS:halden_proto_objects>
  $<TARGET_OBJECTS:halden_model> $<TARGET_OBJECTS:halden_objects>)
set(package_include_dir "${CMAKE_INSTALL_INCLUDEDIR}/halden")  # includes are <halden/...>, <logger/...> below it
set(package_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/halden")
set(package_public_libraries protobuf::libprotobuf ZooKeeper::zookeeper_mt Boost::headers Threads::Threads)
set(package_private_libraries spdlog::spdlog tomlplusplus::tomlplusplus ZLIB::ZLIB)

function(halden_add_package_library target type)
  add_library(${target} ${type} ${package_objects})
  target_compile_features(${target} INTERFACE cxx_std_20)
  target_include_directories(${target} INTERFACE "$<INSTALL_INTERFACE:${package_include_dir}>")
  target_link_libraries(${target} PUBLIC ${package_public_libraries} PRIVATE ${package_private_libraries})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME halden
    LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/package"
    ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/package")
endfunction()

halden_add_package_library(halden_shared SHARED)
set(version_script "${CMAKE_CURRENT_LIST_DIR}/halden.map")
# Until 1.0 every minor version may change the interface.
set_target_properties(halden_shared PROPERTIES
  EXPORT_NAME shared VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
  LINK_DEPENDS "${version_script}")
target_link_options(halden_shared PRIVATE "LINKER:--version-script=${version_script}" "LINKER:--no-undefined")

halden_add_package_library(halden_static STATIC)
set_target_properties(halden_static PROPERTIES EXPORT_NAME static)

install(TARGETS halden_shared EXPORT haldenSharedTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT library NAMELINK_COMPONENT development)
install(TARGETS halden_static EXPORT haldenStaticTargets
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development)
foreach(kind IN ITEMS Shared Static)
  install(EXPORT halden${kind}Targets NAMESPACE halden:: DESTINATION "${package_cmake_dir}" COMPONENT development)
endforeach()

foreach(layer IN ITEMS halden/cpp zrstl misc/logger)
  install(DIRECTORY "${PROJECT_SOURCE_DIR}/${layer}/include/" DESTINATION "${package_include_dir}"
    COMPONENT development FILES_MATCHING PATTERN "*.h")
endforeach()
install(DIRECTORY "${PROJECT_BINARY_DIR}/generated/zr" DESTINATION "${package_include_dir}"
  COMPONENT development FILES_MATCHING PATTERN "*.h")
install(FILES "${PROJECT_SOURCE_DIR}/halden/proto/service.proto"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/halden" COMPONENT development)

configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/haldenConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/package/haldenConfig.cmake" INSTALL_DESTINATION "${package_cmake_dir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/package/haldenConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/package/haldenConfig.cmake"
  "${PROJECT_BINARY_DIR}/package/haldenConfigVersion.cmake" "${CMAKE_CURRENT_LIST_DIR}/FindZooKeeper.cmake"
  DESTINATION "${package_cmake_dir}" COMPONENT development)
file(RELATIVE_PATH prefix_from_pkgconfig "/x/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/x")  # it may be moved
configure_file("${CMAKE_CURRENT_LIST_DIR}/halden.pc.in" "${PROJECT_BINARY_DIR}/package/halden.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/package/halden.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

# Debian packages.
set(library_package "libhalden${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}")
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
  "libprotobuf-dev, libzookeeper-mt-dev, libboost1.81-dev | libboost-dev (>= 1.78)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS "libspdlog-dev, libtomlplusplus-dev, zlib1g-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "Service discovery over ZooKeeper, across data centres: headers, static library, CMake and pkg-config files")
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME halden)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION admin)
set(CPACK_COMPONENT_TOOL_DESCRIPTION
  "Service discovery over ZooKeeper, across data centres: the command to watch, list and publish instances")
include(CPack)
