# `cpack` in the build directory makes a Debian package of what Install.cmake
# installs, under /usr, with its dependencies found by dpkg-shlibdeps.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quorvel-avformat)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Container-level media operations on top of FFmpeg, and the quorvel-avformat tool")
set(CPACK_PACKAGE_DESCRIPTION
    "libQuorvel_AVFormat remuxes, demultiplexes, multiplexes and concatenates media containers without re-encoding, on worker threads with progress, pause and stop. The package holds the library, its header, pkg-config and CMake files, and the quorvel-avformat command-line tool.")
set(CPACK_PACKAGE_CONTACT "libQuorvel_AVFormat developers <quorvel-avformat@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool needs the package's own library, which no installed package knows yet.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_STRIP_FILES ON)
include(CPack)
