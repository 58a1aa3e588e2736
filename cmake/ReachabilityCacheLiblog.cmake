# Provides the imported target reachabilityCache::liblog: the NDK's log
# library on Android, the system liblog (Debian android-liblog-dev) on a host.
if(TARGET reachabilityCache::liblog)
  return()
endif()

if(ANDROID)
  find_library(REACHABILITY_CACHE_LIBLOG log REQUIRED)
  add_library(reachabilityCache::liblog INTERFACE IMPORTED)
  target_link_libraries(reachabilityCache::liblog INTERFACE ${REACHABILITY_CACHE_LIBLOG})
else()
  find_path(REACHABILITY_CACHE_LIBLOG_INCLUDE_DIR android/log.h
    PATHS /usr/include/android
    NO_DEFAULT_PATH)
  find_library(REACHABILITY_CACHE_LIBLOG log
    PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android
    NO_DEFAULT_PATH)
  if(NOT REACHABILITY_CACHE_LIBLOG_INCLUDE_DIR OR NOT REACHABILITY_CACHE_LIBLOG)
    message(FATAL_ERROR
      "liblog not found: install Debian's android-liblog-dev "
      "(headers in /usr/include/android, library in the multiarch android/ directory)")
  endif()
  add_library(reachabilityCache::liblog UNKNOWN IMPORTED)
  set_target_properties(reachabilityCache::liblog PROPERTIES
    IMPORTED_LOCATION "${REACHABILITY_CACHE_LIBLOG}"
    INTERFACE_INCLUDE_DIRECTORIES "${REACHABILITY_CACHE_LIBLOG_INCLUDE_DIR}")
endif()
