# SPDX-License-Identifier: Apache-2.0
# Installation, the CMake package and pkg-config file for integrators, and the
# Debian package. Reference vendor libraries go to their own directory so
# that a host points TALVO_VENDOR_PATH there and never confuses them with a
# real vendor's.
include(CMakePackageConfigHelpers)

install(TARGETS kxcamera talvo LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
install(TARGETS kxcamera_abi EXPORT KXCameraTargets)
install(EXPORT KXCameraTargets NAMESPACE KXCamera:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KXCamera COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/KXCameraConfig.cmake.in
  ${CMAKE_BINARY_DIR}/KXCameraConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KXCamera)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/KXCameraConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/KXCameraConfig.cmake ${CMAKE_BINARY_DIR}/KXCameraConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KXCamera COMPONENT dev)
# The .pc file finds its prefix from where it lies, so the tree can move.
file(RELATIVE_PATH KXCAMERA_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_CURRENT_LIST_DIR}/kxcamera.pc.in ${CMAKE_BINARY_DIR}/kxcamera.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/kxcamera.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
install(FILES ${CMAKE_SOURCE_DIR}/LICENSE ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_PACKAGE_NAME kxcamera)
set(CPACK_PACKAGE_VENDOR "kxcamera developers")
set(CPACK_PACKAGE_CONTACT "kxcamera developers <dev@kxcamera.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Camera plugin for a distributed-device framework, with its host tools")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_SOURCE_DIR}/LICENSE)
include(CPack)
