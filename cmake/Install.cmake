# What `cmake --install` puts in place: the library with its versioned soname,
# the public header, the tool, a pkg-config file and a CMake package whose
# target is Quorvel::AVFormat. Every path is relative to the prefix, so the
# same build installs into any prefix (`cmake --install build --prefix DIR`).
include(CMakePackageConfigHelpers)

set(QUORVEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QuorvelAVFormat)

set_target_properties(Quorvel_AVFormat PROPERTIES EXPORT_NAME AVFormat)
install(TARGETS Quorvel_AVFormat EXPORT QuorvelAVFormatTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/Quorvel_AVFormat.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

if(TARGET quorvel-avformat)
  # The installed tool finds the library beside it, wherever the prefix is.
  set_target_properties(quorvel-avformat PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS quorvel-avformat RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(EXPORT QuorvelAVFormatTargets NAMESPACE Quorvel:: DESTINATION ${QUORVEL_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/QuorvelAVFormatConfig.cmake.in
  ${PROJECT_BINARY_DIR}/QuorvelAVFormatConfig.cmake INSTALL_DESTINATION ${QUORVEL_CMAKE_DIR})
# The soname changes with the major version, and so does compatibility.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QuorvelAVFormatConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QuorvelAVFormatConfig.cmake ${PROJECT_BINARY_DIR}/QuorvelAVFormatConfigVersion.cmake
  DESTINATION ${QUORVEL_CMAKE_DIR})

# pkg-config finds the prefix from the .pc file's own place (${pcfiledir}).
set(QUORVEL_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH QUORVEL_PC_TO_PREFIX /prefix/${QUORVEL_PKGCONFIG_DIR} /prefix)
string(REGEX REPLACE "/$" "" QUORVEL_PC_TO_PREFIX "${QUORVEL_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/quorvel-avformat.pc.in ${PROJECT_BINARY_DIR}/quorvel-avformat.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quorvel-avformat.pc DESTINATION ${QUORVEL_PKGCONFIG_DIR})
