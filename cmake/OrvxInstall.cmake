# What is installed, in parts: the shared library (runtime), what a build against the library needs
# (development, with the test kit), and the tools and the service, which install themselves. A shared
# build can be packed as Debian packages, one for each part.

include(CMakePackageConfigHelpers)

set(name OrvxServiceRegistryClient)
set(package_folder "${CMAKE_INSTALL_LIBDIR}/cmake/${name}")

install(TARGETS OrvxServiceRegistryClient EXPORT ${name}
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE COMPONENT development
  FILE_SET HEADERS COMPONENT development)
install(TARGETS orvx_test_kit OrvxServiceRegistryClientTestKit EXPORT ${name}TestKit
  ARCHIVE COMPONENT development
  FILE_SET HEADERS COMPONENT development)
# A package, or `cmake --install --strip`, which strips programs and shared libraries only: the kit would carry 58 MB.
if(CMAKE_STRIP)
  install(CODE "
    if(CMAKE_INSTALL_DO_STRIP)
      cmake_path(APPEND kit \"\${CMAKE_INSTALL_PREFIX}\" \"${CMAKE_INSTALL_LIBDIR}\" $<TARGET_FILE_NAME:orvx_test_kit>)
      execute_process(COMMAND \"${CMAKE_STRIP}\" -g \"\$ENV{DESTDIR}\${kit}\" COMMAND_ERROR_IS_FATAL ANY)
    endif()" COMPONENT development)
endif()
foreach(export ${name} ${name}TestKit)
  install(EXPORT ${export} FILE ${export}Targets.cmake NAMESPACE Orvx::
    DESTINATION "${package_folder}" COMPONENT development)
endforeach()

# The library's path is found from the file's own, so that the installed tree can be moved.
file(RELATIVE_PATH ORVX_UP_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
# A static library says what it is linked with, the shared libraries themselves: as requirements they
# would bring along, for a link of everything static, more than their development packages install.
if(NOT BUILD_SHARED_LIBS)
  set(ORVX_PRIVATE_LIBS "-lssl -lcrypto -lfmt -pthread -l${CMAKE_DL_LIBS}")
endif()
configure_package_config_file(cmake/${name}Config.cmake.in ${name}Config.cmake
  INSTALL_DESTINATION "${package_folder}"
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${name}ConfigVersion.cmake COMPATIBILITY SameMinorVersion)
configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
install(FILES
  "${PROJECT_BINARY_DIR}/${name}Config.cmake"
  "${PROJECT_BINARY_DIR}/${name}ConfigVersion.cmake"
  DESTINATION "${package_folder}" COMPONENT development)
install(FILES "${PROJECT_BINARY_DIR}/${name}.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)

if(NOT BUILD_SHARED_LIBS OR NOT ORVX_TOP_LEVEL)  # the packages of another project are its own
  return()
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_SOURCE_DIR}/cmake/OrvxPackage.cmake")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")  # not the folder that cpack is called in
set(CPACK_PACKAGE_VENDOR "Orvx")
set(CPACK_PACKAGE_CONTACT "Orvx maintainers <maintainers@orvx.example>" CACHE STRING
  "Who maintains the packages")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # the first line of each package's own description
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime development)
if(ORVX_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools service)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/src")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

set(runtime_package liborvxserviceregistryclient0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Client of a service registry (shared library)
Announces the services of a process at a central registry over HTTP, checks the
entries while the process runs, and withdraws them again.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME liborvxserviceregistryclient-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS libspdlog-dev)  # the test kit is linked with it
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Client of a service registry (development files)
Headers, a CMake package and a pkg-config file for programs that use the shared
library, and a test kit that runs the client in simulated time and network.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME orvx-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Service registry to develop and test against
orvx-registry is a small service registry with a page for browsers and faults on
demand. orvx-announce announces any command at a registry while it runs.")
set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME orvx-registry)
set(CPACK_DEBIAN_SERVICE_PACKAGE_SECTION net)
set(CPACK_DEBIAN_SERVICE_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS "orvx-tools (= ${PROJECT_VERSION}), systemd")
set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(service_folder "${PROJECT_SOURCE_DIR}/tools/registry/service")
set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA
  "${service_folder}/conffiles;${service_folder}/postinst;${service_folder}/prerm;${service_folder}/postrm")
set(CPACK_COMPONENT_SERVICE_DESCRIPTION "Service registry as a service of systemd
A unit that runs orvx-registry as a user of its own. It is neither enabled nor
started by the installation.")
include(CPack)
