# SPDX-License-Identifier: Apache-2.0
# The Debian packages, one per install component (see ../Packaging.cmake).
# lintian reports no error; the warnings it would give are overridden, each
# with its reason, in the *lintian-overrides files here. At the info level it
# notes the .comment section strip leaves, libtalvo's missing symbols file
# (the shlibs file is enough for now), and misspellings in the plugin's log
# messages, whose texts are fixed.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kxcamera)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
# lintian accepts the reserved .invalid domain (it only checks the syntax),
# and it says plainly that the address is not a mailbox.
set(CPACK_PACKAGE_CONTACT "kxcamera developers <maintainers@kxcamera.invalid>")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# No -dbgsym packages: CPack 3.25 writes their md5sums with build-tree paths,
# which lintian rightly reports as errors.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps finds libtalvo.so.1 in the build tree; the dependency on its
# package comes from the component dependencies below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_TALVO_PACKAGE_SECTION libs)
# Only libtalvo has a versioned soname; the loaded-by-path libraries give
# CPack's harmless "missing soname" notes.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_TALVO_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers)
set(CPACK_DEBIAN_TALVO_DESCRIPTION "framework function set for the kxcamera camera plugin
libtalvo implements the function set that the kxcamera plugin imports from
its host process: memory, mutexes, threads, lists, event queues, dynamic
loading of the vendor libraries, logging and bounds-checked text functions.
A host links it and then loads the plugin.")

set(CPACK_DEBIAN_PLUGIN_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_PLUGIN_DEPENDS talvo)
set(CPACK_DEBIAN_PLUGIN_DESCRIPTION "camera plugin for a distributed-device framework
kxcamera offers the cameras of a device as services to other devices. A host
loads the plugin by path and takes its table of entry points; the plugin
loads the vendor's camera handler and video encoder libraries at run time and
converts and encodes raw frames itself when a camera does not encode.")

set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS talvo plugin)
set(CPACK_DEBIAN_DEV_DESCRIPTION "development files for the kxcamera camera plugin
The plugin's ABI headers (records and tables exchanged with the framework and
the vendor libraries), the framework function set's headers, libtalvo.so, a
CMake package (find_package(KXCamera): KXCamera::abi, KXCamera::talvo) and a
pkg-config file (kxcamera) that also names the plugin's directory.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_COMPONENT_TOOLS_DEPENDS talvo plugin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS kxcamera-reference-vendors)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "host programs for the kxcamera camera plugin
camhost plays the framework end to end: it loads the plugin, lists the
cameras and their abilities, negotiates, and records what the cameras stream
into files. kxprobe loads the plugin and prints its version.")

set(CPACK_DEBIAN_REFERENCE_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_REFERENCE_DESCRIPTION "reference vendor libraries for the kxcamera camera plugin
A virtual camera handler library with a moving test pattern and self-encoding
cameras, and a video encoder library backed by x264. They link x264 and x265
and are therefore distributed under the GPL, version 2 or later.")

include(CPack)
