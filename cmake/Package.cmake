# SPDX-License-Identifier: MIT
# `cpack` in the build directory makes three Debian packages of what
# Install.cmake installs, under /usr: the runtime library
# (libquorvel-avformat0), the development files (libquorvel-avformat-dev) and
# the tool (quorvel-avformat); their dependencies on FFmpeg are found by
# dpkg-shlibdeps.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quorvel-avformat)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "libQuorvel_AVFormat developers <quorvel-avformat@localhost>")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tool)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool needs the package's own library, which no installed package knows yet.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_STRIP_FILES ON)
set(QUORVEL_EXACT_RUNTIME "${QUORVEL_PACKAGE_runtime} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${QUORVEL_PACKAGE_runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Container-level media operations on top of FFmpeg (library)
 libQuorvel_AVFormat remuxes, demultiplexes, multiplexes and concatenates media
 containers without re-encoding, on worker threads with progress, pause and stop.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${QUORVEL_PACKAGE_development})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${QUORVEL_EXACT_RUNTIME}")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Container-level media operations on top of FFmpeg (development files)
 The header, the pkg-config file and the CMake package (Quorvel::AVFormat) of
 libQuorvel_AVFormat.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME ${QUORVEL_PACKAGE_tool})
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${QUORVEL_EXACT_RUNTIME}")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "Remux, cut, extract, multiplex and join media files without re-encoding
 quorvel-avformat drives libQuorvel_AVFormat from a shell, with its man page
 and bash completion.")
include(CPack)
