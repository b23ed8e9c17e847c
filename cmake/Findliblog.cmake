# Finds the Android log library and defines the target liblog::liblog. On Android it is part of the
# system. On a Linux host it is searched where Debian's android-liblog-dev installs it: in folders
# named android below those of the system's libraries and headers.
if(ANDROID)
  set(liblog_LIBRARY log)
else()
  find_library(liblog_LIBRARY log PATH_SUFFIXES android)
  find_path(liblog_INCLUDE_DIR android/log.h PATH_SUFFIXES android)
  mark_as_advanced(liblog_LIBRARY liblog_INCLUDE_DIR)
  set(liblog_headers liblog_INCLUDE_DIR)
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(liblog DEFAULT_MSG liblog_LIBRARY ${liblog_headers})

if(liblog_FOUND AND NOT TARGET liblog::liblog)
  add_library(liblog::liblog INTERFACE IMPORTED)
  target_link_libraries(liblog::liblog INTERFACE ${liblog_LIBRARY})
  if(liblog_INCLUDE_DIR)
    target_include_directories(liblog::liblog INTERFACE ${liblog_INCLUDE_DIR})
  endif()
endif()
