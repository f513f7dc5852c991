# The FFmpeg that describes movies (report/movie_description.cpp), as the
# imported target sondex::ffmpeg.
#
#   -DSONDEX_FFMPEG=lean    (default) a static FFmpeg of this project's own
#                           configuration: MP4 demuxer, file protocol and a
#                           handful of video decoders, nothing else. It is
#                           built from Debian's source package by
#                           scripts/build-ffmpeg.sh, once per machine, into a
#                           cache outside the build folders.
#   -DSONDEX_FFMPEG=system  Debian's shared libavformat, libavcodec and
#                           libavutil, found with pkg-config (the -dev
#                           packages must be installed).
set(SONDEX_FFMPEG lean CACHE STRING "FFmpeg to link: lean (static, built by scripts/build-ffmpeg.sh) or system")
set_property(CACHE SONDEX_FFMPEG PROPERTY STRINGS lean system)
find_package(PkgConfig REQUIRED)

add_library(sondex::ffmpeg INTERFACE IMPORTED GLOBAL)
if(SONDEX_FFMPEG STREQUAL "lean")
  set(_script "${PROJECT_SOURCE_DIR}/scripts/build-ffmpeg.sh")
  set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${_script}")
  # Quick when the cache holds the build already; otherwise it says that it
  # is building, and takes minutes.
  execute_process(COMMAND bash "${_script}" OUTPUT_VARIABLE _out RESULT_VARIABLE _rc
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "scripts/build-ffmpeg.sh failed: see its messages above")
  endif()
  string(REGEX REPLACE ".*\n" "" _prefix "${_out}")
  foreach(_file lib/libavformat.a lib/libavcodec.a lib/libavutil.a share/doc/ffmpeg/COPYING.LGPLv2.1)
    if(NOT EXISTS "${_prefix}/${_file}")
      message(FATAL_ERROR "scripts/build-ffmpeg.sh gave '${_prefix}', which holds no ${_file}")
    endif()
  endforeach()
  # Its licence, copyright file and configure line, for cmake/packaging.cmake.
  set(SONDEX_FFMPEG_DOC "${_prefix}/share/doc/ffmpeg")
  # What the static libraries need besides each other, as the built tree's
  # pkg-config files say (the maths library, threads, ...).
  execute_process(COMMAND "${CMAKE_COMMAND}" -E env "PKG_CONFIG_PATH=${_prefix}/lib/pkgconfig"
                          "${PKG_CONFIG_EXECUTABLE}" --static --libs libavformat libavcodec libavutil
                  OUTPUT_VARIABLE _flags RESULT_VARIABLE _rc OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT _rc EQUAL 0)
    message(FATAL_ERROR "pkg-config found no FFmpeg in ${_prefix}/lib/pkgconfig")
  endif()
  separate_arguments(_flags UNIX_COMMAND "${_flags}")
  set(_libs "${_prefix}/lib/libavformat.a" "${_prefix}/lib/libavcodec.a" "${_prefix}/lib/libavutil.a")
  # A cache emptied since then makes the build configure again, and so
  # build FFmpeg again.
  set_property(DIRECTORY "${PROJECT_SOURCE_DIR}" APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${_libs})
  set(_options)
  foreach(_flag IN LISTS _flags)
    if(_flag MATCHES "^-L" OR _flag MATCHES "^-lav(format|codec|util)$")
      continue()
    elseif(_flag MATCHES "^-l")
      list(APPEND _libs "${_flag}")
    else()
      list(APPEND _options "${_flag}")
    endif()
  endforeach()
  set_target_properties(sondex::ffmpeg PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${_prefix}/include"
    INTERFACE_LINK_LIBRARIES "${_libs}"
    INTERFACE_LINK_OPTIONS "${_options}")
  message(STATUS "FFmpeg: lean, static, from ${_prefix}")
elseif(SONDEX_FFMPEG STREQUAL "system")
  pkg_check_modules(SONDEX_LIBAV REQUIRED IMPORTED_TARGET GLOBAL libavformat libavcodec libavutil)
  set_target_properties(sondex::ffmpeg PROPERTIES INTERFACE_LINK_LIBRARIES PkgConfig::SONDEX_LIBAV)
  message(STATUS "FFmpeg: the system's shared libraries ${SONDEX_LIBAV_libavformat_VERSION}")
else()
  message(FATAL_ERROR "SONDEX_FFMPEG must be lean or system, not '${SONDEX_FFMPEG}'")
endif()
