# What `cmake --install` puts in place besides the program (whose rule is in
# cli/CMakeLists.txt), and the Debian package that `cpack -G DEB` builds from
# the same rules.
include(GNUInstallDirs)

# The manual page, compressed at install time as Debian keeps them.
set(SONDEX_MAN_SOURCE "${PROJECT_SOURCE_DIR}/sondex.1")
set(SONDEX_MAN_GZ "${PROJECT_BINARY_DIR}/sondex.1.gz")
install(CODE "execute_process(COMMAND gzip -9 -n -c \"${SONDEX_MAN_SOURCE}\"
                              OUTPUT_FILE \"${SONDEX_MAN_GZ}\" RESULT_VARIABLE rc)
              if(NOT rc EQUAL 0)
                message(FATAL_ERROR \"gzip of the manual page failed\")
              endif()")
install(FILES "${SONDEX_MAN_GZ}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")

# The documentation in the layout of the source tree, so that its links hold,
# with what its examples use: the driver examples, the bundled samples and
# the yaw plot.
install(FILES README.md DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(FILES COPYRIGHT DESTINATION "${CMAKE_INSTALL_DOCDIR}" RENAME copyright)
install(DIRECTORY docs/ DESTINATION "${CMAKE_INSTALL_DOCDIR}/docs")
install(DIRECTORY samples/ DESTINATION "${CMAKE_INSTALL_DOCDIR}/samples")
install(PROGRAMS examples/driver.py examples/probe-archive.sh
        DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples")
install(PROGRAMS tools/plot_yaw.py DESTINATION "${CMAKE_INSTALL_DOCDIR}/tools")
# The statically linked FFmpeg's licence (LGPL 2.1 or later), Debian's
# copyright file for its source and the configure line it was built with.
if(SONDEX_FFMPEG STREQUAL "lean")
  install(DIRECTORY "${SONDEX_FFMPEG_DOC}/" DESTINATION "${CMAKE_INSTALL_DOCDIR}/ffmpeg")
endif()

set(CPACK_PACKAGE_NAME sondex)
set(CPACK_PACKAGE_VENDOR "Sondex")
set(CPACK_PACKAGE_CONTACT "Sondex developers <sondex@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "metadata probe for 360-degree camera movies and stills")
set(CPACK_PACKAGE_DESCRIPTION
    "Sondex reads MP4 movies, JPEG stills and DNG raw stills of a 360-degree camera and reports their metadata as one JSON line per file, on the command line or through a request stream on standard input. It also writes the camera's sensor logs (gravity with yaw, gyro, e-compass) as JSON files.")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps (dpkg-dev) turns the program's shared libraries into
# Depends: the C and C++ runtimes, and with -DSONDEX_FFMPEG=system Debian's
# FFmpeg libraries too. The default build links its FFmpeg statically
# (cmake/ffmpeg.cmake), so the package needs no FFmpeg package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The examples need Python 3 and GNU tools; the program itself does not.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3")

include(CPack)
