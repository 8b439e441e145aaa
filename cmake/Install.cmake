# SPDX-License-Identifier: MIT
# What `cmake --install` puts in place, in three components that become three
# packages: runtime (the library with its versioned soname), development (the
# public header, a pkg-config file, a CMake package whose target is
# Quorvel::AVFormat) and tool (quorvel-avformat, its man page and bash
# completion); each with a copyright file. Every path is relative to the
# prefix, so the same build installs into any prefix
# (`cmake --install build --prefix DIR`).
include(CMakePackageConfigHelpers)

set(QUORVEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QuorvelAVFormat)

set_target_properties(Quorvel_AVFormat PROPERTIES EXPORT_NAME AVFormat)
install(TARGETS Quorvel_AVFormat EXPORT QuorvelAVFormatTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/Quorvel_AVFormat.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)

# The package names, also the folders of their copyright files.
set(QUORVEL_PACKAGE_runtime libquorvel-avformat${PROJECT_VERSION_MAJOR})
set(QUORVEL_PACKAGE_development libquorvel-avformat-dev)
set(QUORVEL_PACKAGE_tool quorvel-avformat)
file(READ ${PROJECT_SOURCE_DIR}/LICENSE QUORVEL_LICENSE_TEXT)
# Debian's copyright format: the license text indented, blank lines as " .".
string(REGEX REPLACE "\n\n" "\n.\n" QUORVEL_LICENSE_TEXT "${QUORVEL_LICENSE_TEXT}")
string(REGEX REPLACE "\n\n" "\n.\n" QUORVEL_LICENSE_TEXT "${QUORVEL_LICENSE_TEXT}")
string(REGEX REPLACE "\n$" "" QUORVEL_LICENSE_TEXT "${QUORVEL_LICENSE_TEXT}")
string(REPLACE "\n" "\n " QUORVEL_LICENSE_TEXT " ${QUORVEL_LICENSE_TEXT}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/copyright.in ${PROJECT_BINARY_DIR}/copyright @ONLY)
foreach(component runtime development tool)
  install(FILES ${PROJECT_BINARY_DIR}/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${QUORVEL_PACKAGE_${component}}
    COMPONENT ${component})
endforeach()

if(TARGET quorvel-avformat)
  # The installed tool finds the library beside it, wherever the prefix is.
  set_target_properties(quorvel-avformat PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS quorvel-avformat RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/quorvel-avformat/completion.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME quorvel-avformat COMPONENT tool)
  # The man page is the tool's own help, made by help2man at build time.
  find_program(QUORVEL_HELP2MAN help2man)
  if(QUORVEL_HELP2MAN)
    set(QUORVEL_MAN_PAGE ${PROJECT_BINARY_DIR}/quorvel-avformat.1)
    add_custom_command(OUTPUT ${QUORVEL_MAN_PAGE}
      COMMAND ${QUORVEL_HELP2MAN} --no-info --section=1 --version-string=${PROJECT_VERSION}
              --name=remux,\ cut,\ extract,\ multiplex\ and\ join\ media\ files\ without\ re-encoding
              --output=${QUORVEL_MAN_PAGE} $<TARGET_FILE:quorvel-avformat>
      DEPENDS quorvel-avformat VERBATIM)
    add_custom_target(quorvel-avformat-man ALL DEPENDS ${QUORVEL_MAN_PAGE})
    install(FILES ${QUORVEL_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
  else()
    message(STATUS "help2man not found: no man page for quorvel-avformat (apt-get install help2man)")
  endif()
endif()

install(EXPORT QuorvelAVFormatTargets NAMESPACE Quorvel:: DESTINATION ${QUORVEL_CMAKE_DIR} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/QuorvelAVFormatConfig.cmake.in
  ${PROJECT_BINARY_DIR}/QuorvelAVFormatConfig.cmake INSTALL_DESTINATION ${QUORVEL_CMAKE_DIR})
# The soname changes with the major version, and so does compatibility.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QuorvelAVFormatConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QuorvelAVFormatConfig.cmake ${PROJECT_BINARY_DIR}/QuorvelAVFormatConfigVersion.cmake
  DESTINATION ${QUORVEL_CMAKE_DIR} COMPONENT development)

# pkg-config finds the prefix from the .pc file's own place (${pcfiledir}).
set(QUORVEL_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH QUORVEL_PC_TO_PREFIX /prefix/${QUORVEL_PKGCONFIG_DIR} /prefix)
string(REGEX REPLACE "/$" "" QUORVEL_PC_TO_PREFIX "${QUORVEL_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/quorvel-avformat.pc.in ${PROJECT_BINARY_DIR}/quorvel-avformat.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quorvel-avformat.pc DESTINATION ${QUORVEL_PKGCONFIG_DIR} COMPONENT development)
