# Provides the imported target reachabilityCache::liblog: the NDK's log
# library on Android, the system liblog (Debian android-liblog-dev) on a host.
#
# Used by the project's own build and by the installed package's config file.
# Inside find_package() a missing liblog marks the package as not found, with a
# message, instead of stopping the configure step.
if(TARGET reachabilityCache::liblog)
  return()
endif()

if(ANDROID)
  find_library(REACHABILITY_CACHE_LIBLOG log)
  if(REACHABILITY_CACHE_LIBLOG)
    add_library(reachabilityCache::liblog INTERFACE IMPORTED)
    target_link_libraries(reachabilityCache::liblog INTERFACE ${REACHABILITY_CACHE_LIBLOG})
  else()
    set(_reachability_cache_liblog_missing "the NDK's log library was not found")
  endif()
else()
  find_path(REACHABILITY_CACHE_LIBLOG_INCLUDE_DIR android/log.h
    PATHS /usr/include/android
    NO_DEFAULT_PATH)
  find_library(REACHABILITY_CACHE_LIBLOG log
    PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android
    NO_DEFAULT_PATH)
  if(REACHABILITY_CACHE_LIBLOG_INCLUDE_DIR AND REACHABILITY_CACHE_LIBLOG)
    add_library(reachabilityCache::liblog UNKNOWN IMPORTED)
    set_target_properties(reachabilityCache::liblog PROPERTIES
      IMPORTED_LOCATION "${REACHABILITY_CACHE_LIBLOG}"
      INTERFACE_INCLUDE_DIRECTORIES "${REACHABILITY_CACHE_LIBLOG_INCLUDE_DIR}")
  else()
    set(_reachability_cache_liblog_missing
      "liblog not found: install Debian's android-liblog-dev "
      "(headers in /usr/include/android, library in the multiarch android/ directory)")
  endif()
endif()

if(DEFINED _reachability_cache_liblog_missing)
  string(CONCAT _reachability_cache_liblog_missing ${_reachability_cache_liblog_missing})
  if(CMAKE_FIND_PACKAGE_NAME)
    set(${CMAKE_FIND_PACKAGE_NAME}_NOT_FOUND_MESSAGE "${_reachability_cache_liblog_missing}")
    set(${CMAKE_FIND_PACKAGE_NAME}_FOUND FALSE)
  else()
    message(FATAL_ERROR "${_reachability_cache_liblog_missing}")
  endif()
  unset(_reachability_cache_liblog_missing)
endif()
