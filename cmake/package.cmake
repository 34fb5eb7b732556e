# `cpack -G DEB` (make package): one Debian package with the libraries,
# headers, pkg-config and CMake files, the live555src plugin, qomm and the
# samples, and the Python package in Debian's /usr/lib/python3/dist-packages.
# Library dependencies come from dpkg-shlibdeps; what it cannot see is listed
# here: the GStreamer elements the pipelines are built from, the decoders of
# qomm's snapshots and of the Python Decoder, the interpreter the extension
# was built for with its NumPy, and the header the public headers include.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qosdkmm)
set(CPACK_PACKAGE_CONTACT "qosdkmm developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Media-input nodes (RTSP, V4L2, files) for the qo node framework")
set(CPACK_PACKAGE_DESCRIPTION
  "libqosdkmm and libqocore with their headers, pkg-config and CMake files,\n\
the live555src GStreamer element, the qomm command-line host and its samples,\n\
and the qosdkmm Python package (frames to NumPy without copies).")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad")
if(TARGET _qosdkmm)  # QO_PYTHON_ABI: python/CMakeLists.txt
  math(EXPR _qo_py_next "${QO_PYTHON_ABI_MINOR} + 1")
  string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", gstreamer1.0-libav, python3-numpy, "
         "python3 (>= 3.${QO_PYTHON_ABI_MINOR}~), python3 (<< 3.${_qo_py_next})")
endif()
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "gstreamer1.0-libav, libdlpack-dev")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "g++, pkg-config")
include(CPack)
