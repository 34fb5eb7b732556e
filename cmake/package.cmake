# `cpack -G DEB` (make package): two Debian packages, split as Debian splits a
# library:
#   qosdkmm      the runtime component: libqosdkmm and libqocore (versioned
#                names), the live555src plugin, qomm and its samples, and the
#                Python package in Debian's /usr/lib/python3/dist-packages;
#   qosdkmm-dev  the dev component: headers, the unversioned library links,
#                qosdkmm.pc and the CMake package.
# The runtime's library dependencies come from dpkg-shlibdeps; what it cannot
# see is listed here: the GStreamer elements the pipelines are built from, the
# decoders of qomm's snapshots and of the Python Decoder, and the interpreter
# the extension was built for with its NumPy. The dev package brings what
# building a host against it reads: the .pc files named by qosdkmm.pc's
# Requires.private and the header the public headers include.

# An install() without a component would land in neither package.
get_cmake_property(_qo_components COMPONENTS)
list(REMOVE_ITEM _qo_components runtime dev)
if(_qo_components)
  message(FATAL_ERROR "install() rules without COMPONENT runtime or dev: ${_qo_components}")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qosdkmm)
set(CPACK_PACKAGE_CONTACT "qosdkmm developers")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# dev depends on runtime at exactly this version.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME qosdkmm)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "Media-input nodes (RTSP, V4L2, files) for the qo node framework\n\
libqosdkmm and libqocore, the live555src GStreamer element, the qomm\n\
command-line host and its samples, and the qosdkmm Python package (frames\n\
to NumPy without copies).")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
  "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad")
if(TARGET _qosdkmm)  # QO_PYTHON_ABI: python/CMakeLists.txt
  math(EXPR _qo_py_next "${QO_PYTHON_ABI_MINOR} + 1")
  string(APPEND CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS ", gstreamer1.0-libav, python3-numpy, "
         "python3 (>= 3.${QO_PYTHON_ABI_MINOR}~), python3 (<< 3.${_qo_py_next})")
endif()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "gstreamer1.0-libav")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME qosdkmm-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_DESCRIPTION
  "Media-input nodes for the qo node framework: development files\n\
Headers, pkg-config file and CMake package for building hosts against\n\
libqosdkmm and libqocore.")
# libgstreamer1.0-dev: gstreamer-1.0, gstreamer-base-1.0;
# libgstreamer-plugins-base1.0-dev: gstreamer-{app,video,rtsp,rtp,sdp}-1.0;
# libglib2.0-dev: gio-2.0, gobject-2.0, glib-2.0; libdlpack-dev:
# <dlpack/dlpack.h>, included by core/qo_dlpack.h.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libgstreamer1.0-dev (>= 1.20), libgstreamer-plugins-base1.0-dev (>= 1.20), libglib2.0-dev, libdlpack-dev")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "g++")
include(CPack)
