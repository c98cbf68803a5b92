# Debian packages through CPack (cpack -G DEB in the build folder): a runtime
# package with the library, the tools, the udev rule and the licence, and a
# development package with the header, the link-time symlink, the CMake
# package and kmio.pc, which depends on the runtime package of the same version.
set(CPACK_PACKAGE_NAME kalometio)
set(CPACK_PACKAGE_VENDOR "The KalometIO authors")
set(CPACK_PACKAGE_CONTACT "The KalometIO authors")
# The binaries go into the packages without their debugging sections.
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Device input/output library for positioning controllers and sensors")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "KalometIO runtime: libkmio.so.2, the kmio tool, the kmio-sim device simulator and a udev rule for FTDI devices")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "KalometIO development files: kmio/kmio.h, the CMake package KalometIO and kmio.pc for pkg-config")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME kalometio)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME kalometio-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# Depends of the runtime package come from the binaries (libc6, libstdc++6,
# libgcc-s1); the shlibs file lets other packages depend on this one the same way.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
