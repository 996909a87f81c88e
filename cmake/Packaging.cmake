# SPDX-License-Identifier: Apache-2.0
# Installation, the CMake package and pkg-config file for integrators, and the
# Debian packages (`cpack` in a build directory configured for prefix /usr).
# Each component is one Debian package, split the way Debian splits a library:
#   talvo     libtalvo1                   the framework layer, libtalvo.so.1
#   plugin    kxcamera                    the plugin, in its own directory
#   dev       kxcamera-dev                headers, libtalvo.so, CMake package, .pc
#   tools     kxcamera-tools              camhost and kxprobe
#   reference kxcamera-reference-vendors  the reference vendor libraries (GPL)
include(CMakePackageConfigHelpers)

# The framework function set's ABI: bump the soname when it breaks.
set_target_properties(talvo PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 1 EXPORT_NAME libtalvo)
install(TARGETS talvo EXPORT KXCameraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT talvo NAMELINK_COMPONENT dev)
install(TARGETS kxcamera LIBRARY DESTINATION ${KXCAMERA_PLUGIN_INSTALL_DIR} COMPONENT plugin)

# Explicit list: the test controls in the source tree must never ship.
install(FILES
  ${CMAKE_SOURCE_DIR}/include/kxcamera/abi_check.h
  ${CMAKE_SOURCE_DIR}/include/kxcamera/camera_handler.h
  ${CMAKE_SOURCE_DIR}/include/kxcamera/color_convert.h
  ${CMAKE_SOURCE_DIR}/include/kxcamera/plugin.h
  ${CMAKE_SOURCE_DIR}/include/kxcamera/types.h
  ${CMAKE_SOURCE_DIR}/include/kxcamera/video_encoder.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kxcamera COMPONENT dev)
install(FILES ${CMAKE_SOURCE_DIR}/include/talvo/talvo.h ${CMAKE_SOURCE_DIR}/include/talvo/securec.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/talvo COMPONENT dev)

# A host that only loads the plugin calls nothing of libtalvo itself, and the
# linker's --as-needed would drop the library whose functions the plugin
# takes from the host process. KXCamera::talvo keeps it.
add_library(kxcamera_talvo_host INTERFACE)
target_link_libraries(kxcamera_talvo_host INTERFACE -Wl,--push-state,--no-as-needed talvo -Wl,--pop-state)
set_target_properties(kxcamera_talvo_host PROPERTIES EXPORT_NAME talvo)
install(TARGETS kxcamera_abi kxcamera_talvo_host EXPORT KXCameraTargets)
install(EXPORT KXCameraTargets NAMESPACE KXCamera:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KXCamera COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/KXCameraConfig.cmake.in
  ${CMAKE_BINARY_DIR}/KXCameraConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KXCamera
  PATH_VARS KXCAMERA_PLUGIN_INSTALL_DIR KXCAMERA_VENDOR_INSTALL_DIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/KXCameraConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/KXCameraConfig.cmake ${CMAKE_BINARY_DIR}/KXCameraConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KXCamera COMPONENT dev)
# The .pc file finds its prefix from where it lies, so the tree can move.
file(RELATIVE_PATH KXCAMERA_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_CURRENT_LIST_DIR}/kxcamera.pc.in ${CMAKE_BINARY_DIR}/kxcamera.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/kxcamera.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

set(components talvo plugin dev)
if(TARGET camhost)
  # Relative, so that the programs run from any prefix as from /usr.
  set_target_properties(camhost kxprobe PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS camhost kxprobe RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(TARGETS kxcamera_camera_handler LIBRARY DESTINATION ${KXCAMERA_VENDOR_INSTALL_DIR}/camera COMPONENT reference)
  install(TARGETS kxcamera_video_encoder LIBRARY DESTINATION ${KXCAMERA_VENDOR_INSTALL_DIR}/encoder COMPONENT reference)
  list(APPEND components tools reference)
  find_program(HELP2MAN help2man)
  if(HELP2MAN)
    add_custom_command(OUTPUT camhost.1.gz
      COMMAND ${HELP2MAN} --no-info --version-string=${PROJECT_VERSION}
        --name=drive\ the\ camera\ plugin\ and\ record\ its\ streams --output=camhost.1 $<TARGET_FILE:camhost>
      COMMAND gzip -9nf camhost.1
      DEPENDS camhost)
    add_custom_command(OUTPUT kxprobe.1.gz
      COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_CURRENT_LIST_DIR}/debian/kxprobe.1 kxprobe.1
      COMMAND gzip -9nf kxprobe.1
      DEPENDS ${CMAKE_CURRENT_LIST_DIR}/debian/kxprobe.1)
    add_custom_target(kxcamera_manpages ALL DEPENDS camhost.1.gz kxprobe.1.gz)
    install(FILES ${CMAKE_BINARY_DIR}/camhost.1.gz ${CMAKE_BINARY_DIR}/kxprobe.1.gz
      DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  endif()
endif()

# Every package carries the copyright file and the changelog in its own
# documentation directory.
add_custom_command(OUTPUT changelog.Debian.gz
  COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_CURRENT_LIST_DIR}/debian/changelog changelog.Debian
  COMMAND gzip -9nf changelog.Debian
  DEPENDS ${CMAKE_CURRENT_LIST_DIR}/debian/changelog)
add_custom_target(kxcamera_changelog ALL DEPENDS changelog.Debian.gz)
set(KXCAMERA_DEB_talvo libtalvo1)
set(KXCAMERA_DEB_plugin kxcamera)
set(KXCAMERA_DEB_dev kxcamera-dev)
set(KXCAMERA_DEB_tools kxcamera-tools)
set(KXCAMERA_DEB_reference kxcamera-reference-vendors)
foreach(component IN LISTS components)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${KXCAMERA_DEB_${component}})
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${CMAKE_BINARY_DIR}/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${KXCAMERA_DEB_${component}} COMPONENT ${component})
  set(overrides ${CMAKE_CURRENT_LIST_DIR}/debian/${KXCAMERA_DEB_${component}}.lintian-overrides)
  if(NOT EXISTS ${overrides})
    set(overrides ${CMAKE_CURRENT_LIST_DIR}/debian/lintian-overrides)
  endif()
  install(FILES ${overrides} RENAME ${KXCAMERA_DEB_${component}}
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides COMPONENT ${component})
endforeach()

include(${CMAKE_CURRENT_LIST_DIR}/debian/cpack.cmake)
