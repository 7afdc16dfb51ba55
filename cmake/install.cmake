# Installation: the library, its headers under include/ktfront/, a CMake package
# (ktfront::ktfront), ktfront.pc, and the Debian packages cpack -G DEB builds from them.
# Components: Runtime (the shared library), Development (the rest), Tool (bin/ktfront).
set(KTFRONT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ktfront)
# Installed to /usr the library sits in a folder the loader searches: no RPATH there.
if(CMAKE_INSTALL_PREFIX MATCHES "^/usr/?$")
  set(CMAKE_SKIP_INSTALL_RPATH ON)
endif()

install(TARGETS ktfront EXPORT ktfrontTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)
install(FILES ${KTFRONT_PUBLIC_HEADERS} ${KTFRONT_BUILD_INCLUDE_DIR}/ktfront/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ktfront COMPONENT Development)

install(EXPORT ktfrontTargets NAMESPACE ktfront::
  DESTINATION ${KTFRONT_CMAKE_DIR} COMPONENT Development)
configure_package_config_file(cmake/ktfrontConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/ktfrontConfig.cmake INSTALL_DESTINATION ${KTFRONT_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ktfrontConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ktfrontConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/ktfrontConfigVersion.cmake
  DESTINATION ${KTFRONT_CMAKE_DIR} COMPONENT Development)

# ktfront.pc names the prefix the files land in, which --prefix or a package may change
# after configuration: it is written at install time. A static library needs the C++
# runtime when a C host links it.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KTFRONT_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(KTFRONT_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(KTFRONT_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(KTFRONT_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
set(KTFRONT_PC_PREFIX "@KTFRONT_PC_PREFIX@")  # kept for the install step
configure_file(cmake/ktfront.pc.in ${CMAKE_CURRENT_BINARY_DIR}/ktfront.pc.in @ONLY)
install(CODE "
  file(READ \"${CMAKE_CURRENT_BINARY_DIR}/ktfront.pc.in\" pc)
  string(REPLACE \"@KTFRONT_PC_PREFIX@\" \"\${CMAKE_INSTALL_PREFIX}\" pc \"\${pc}\")
  file(WRITE \"${CMAKE_CURRENT_BINARY_DIR}/ktfront.pc\" \"\${pc}\")"
  COMPONENT Development)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ktfront.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

# Debian packages: libktfront<SOVERSION>, libktfront-dev and ktfront (the tool). Build
# them from a tree configured with -DCMAKE_INSTALL_PREFIX=/usr, so that the library
# lands in the multiarch folder (lib/x86_64-linux-gnu).
set(CPACK_PACKAGE_NAME ktfront)
set(CPACK_PACKAGE_VENDOR ktfront)
set(CPACK_PACKAGE_CONTACT "ktfront developers <ktfront@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "speech front end: voice activity detection and gain control")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Runtime Development)
if(KTFRONT_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL Tool)
endif()
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool's own libktfront is found in the build; its dependency is the component's.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libktfront${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION_SUMMARY} (shared library)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libktfront-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "${CPACK_PACKAGE_DESCRIPTION_SUMMARY} (headers, pkg-config file, CMake package)")
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ktfront)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_TOOL_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION_SUMMARY} (command-line tool)")
# Packages of one build go together; the tool's other dependencies come from shlibdeps.
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS Runtime)
set(CPACK_COMPONENT_TOOL_DEPENDS Runtime)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
include(CPack)
