# `cpack -G DEB` (make package): one Debian package with the libraries,
# headers, pkg-config and CMake files, the live555src plugin, qomm and the
# samples. Library dependencies come from dpkg-shlibdeps; what it cannot see
# is listed here: the GStreamer elements the pipelines are built from, the
# decoders of qomm's snapshots and the header the public headers include.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qosdkmm)
set(CPACK_PACKAGE_CONTACT "qosdkmm developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Media-input nodes (RTSP, V4L2, files) for the qo node framework")
set(CPACK_PACKAGE_DESCRIPTION
  "libqosdkmm and libqocore with their headers, pkg-config and CMake files,\n\
the live555src GStreamer element, the qomm command-line host and its samples.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "gstreamer1.0-libav, libdlpack-dev")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "g++, pkg-config")
include(CPack)
