# Installation (cmake --install), the CMake package and pkg-config file that applications find
# it by, and the Debian packages (cpack -G DEB):
#   libserverclient      the shared library (a BUILD_SHARED_LIBS=ON build)
#   libserverclient-dev  headers, the CMake package, pkg-config, the emulator library
#   serverclient-tools   kel and kel-emulator
include(CMakePackageConfigHelpers)

set(kel_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ServerClient)

install(TARGETS ServerClient EXPORT ServerClientTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/ServerClient DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development FILES_MATCHING PATTERN "*.h")

if(TARGET KelEmulator)
  install(TARGETS KelEmulator EXPORT ServerClientTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/tools/emulator
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ServerClientEmulator COMPONENT development
    FILES_MATCHING PATTERN "*.h")
endif()
foreach(tool kel-emulator kel)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  endif()
endforeach()

install(EXPORT ServerClientTargets NAMESPACE ServerClient:: DESTINATION ${kel_cmake_dir}
  COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ServerClientConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ServerClientConfig.cmake INSTALL_DESTINATION ${kel_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ServerClientConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ServerClientConfig.cmake
  ${PROJECT_BINARY_DIR}/ServerClientConfigVersion.cmake
  DESTINATION ${kel_cmake_dir} COMPONENT development)
configure_file(${PROJECT_SOURCE_DIR}/cmake/serverclient.pc.in
  ${PROJECT_BINARY_DIR}/serverclient.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/serverclient.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# --- Debian packages -----------------------------------------------------------------------
set(CPACK_PACKAGE_NAME serverclient)
set(CPACK_PACKAGE_VENDOR "ServerClient")
set(CPACK_PACKAGE_CONTACT "ServerClient developers <serverclient@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Client SDK for the Kel unified-communications server")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libserverclient)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "Client SDK for the Kel unified-communications server: shared library\n Signs a user in over HTTPS, keeps the session token in the Secret Service and holds\n one authenticated WebSocket to the server.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libserverclient-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libboost1.81-dev, libboost-url1.81-dev, libssl-dev, nlohmann-json3-dev, libspdlog-dev, libsecret-1-dev, pkg-config")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "Client SDK for the Kel unified-communications server: development files\n Headers, the CMake package (find_package(ServerClient)), the pkg-config file and the\n server emulator library for an application's tests.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME serverclient-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "Client SDK for the Kel unified-communications server: tools\n kel, a command-line client, and kel-emulator, a server for development and tests.")

include(CPack)
