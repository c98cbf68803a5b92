# Install rules, the CMake package (find_package(KalometIO)), the pkg-config
# file and the Debian packages built by CPack. Included last from the top-level
# CMakeLists.txt, once every target exists; targets are named here, not in
# their own folders, so that moving sources around never touches packaging.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KMIO_PACKAGE_SOURCE_DIR ${PROJECT_SOURCE_DIR}/packaging)
set(KMIO_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/KalometIO)
set(KMIO_INSTALL_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/kalometio)
# Libraries that only KalometIO's own tools and tests load go below here, out
# of the linker's and the loader's search paths, so that none of them can ever
# stand in for a real driver of the same name.
set(KMIO_INSTALL_PRIVATE_LIBDIR ${CMAKE_INSTALL_LIBDIR}/kalometio)
# udev reads rules from <prefix>/lib/udev/rules.d for /usr and /usr/local.
set(KMIO_INSTALL_UDEVDIR lib/udev/rules.d)

# Installs a private shared library under lib/kalometio/SUBDIR, keeping the
# file name the loader asks for (for the USB driver simulator that is the
# driver's own name, so only a program pointed at this folder picks it up).
function(kmio_install_private_library target subdir)
  install(TARGETS ${target}
    LIBRARY DESTINATION ${KMIO_INSTALL_PRIVATE_LIBDIR}/${subdir} COMPONENT runtime NAMELINK_COMPONENT runtime)
endfunction()

# The library: the SONAME file and the real file at run time, the unversioned
# link only for development.
install(TARGETS kmio EXPORT KalometIOTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/kmio/kmio.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kmio COMPONENT development)

# The tools. The command-line tool finds the library next to it in any prefix.
set_target_properties(kmio-cli PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
install(TARGETS kmio-cli kmio-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)

# The USB driver simulator is loaded by the driver's own file name, so it goes
# to a private folder that no loader searches unless the user names it in
# LD_LIBRARY_PATH: it never shadows a real driver.
if(TARGET ftdi-sim)
  kmio_install_private_library(ftdi-sim ftdi-sim)
  kmio_install_private_library(ftdi-sim-chipid ftdi-sim-chipid)
endif()

install(FILES ${KMIO_PACKAGE_SOURCE_DIR}/udev/70-kalometio-ftdi.rules
  DESTINATION ${KMIO_INSTALL_UDEVDIR} COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/README.md
  DESTINATION ${KMIO_INSTALL_DOCDIR} COMPONENT runtime)

# CMake package: KalometIO::kmio with its include folder.
install(EXPORT KalometIOTargets NAMESPACE KalometIO::
  DESTINATION ${KMIO_INSTALL_CMAKEDIR} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KalometIOConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KalometIOConfig.cmake
  INSTALL_DESTINATION ${KMIO_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KalometIOConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KalometIOConfig.cmake ${PROJECT_BINARY_DIR}/KalometIOConfigVersion.cmake
  DESTINATION ${KMIO_INSTALL_CMAKEDIR} COMPONENT development)

# pkg-config: paths relative to the .pc file, so that a staged or moved
# prefix still works.
file(RELATIVE_PATH KMIO_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" KMIO_PC_TO_PREFIX "${KMIO_PC_TO_PREFIX}")
configure_file(${KMIO_PACKAGE_SOURCE_DIR}/kmio.pc.in ${PROJECT_BINARY_DIR}/kmio.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kmio.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

include(${CMAKE_CURRENT_LIST_DIR}/KmioPackage.cmake)
