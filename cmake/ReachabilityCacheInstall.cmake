# What `cmake --install` puts in place: the shared library with the platform
# stand-ins it needs at run time, the public headers with the platform headers
# they include, the test support for hosts, a CMake package
# (find_package(reachabilityCache CONFIG)) and pkg-config files.
include(CMakePackageConfigHelpers)

set(REACHABILITY_CACHE_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/reachabilityCache"
  CACHE STRING "Where the CMake package files are installed, relative to the prefix")
set(_rc_platform_includedir "${CMAKE_INSTALL_INCLUDEDIR}/reachabilityCache/platform")

install(TARGETS
    reachabilityCache
    reachabilityCacheTesting
    verandaPlatformHeaders
    verandaMetric
    verandaScheduling
    verandaTaskExecutor
    verandaApplianceDriver
  EXPORT reachabilityCacheTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")

install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/reachabilityCache"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/testing/include/reachabilityCache/testing"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/reachabilityCache"
  FILES_MATCHING PATTERN "*.h")
# Of the platform headers, only the driver's is part of the public API; the
# simulated driver exists on a host build only.
install(FILES "${PROJECT_SOURCE_DIR}/platform/applianceDriver/ApplianceDriver.h"
  DESTINATION "${_rc_platform_includedir}/applianceDriver")
if(REACHABILITY_CACHE_HOST_BUILD)
  install(FILES "${PROJECT_SOURCE_DIR}/platform/applianceDriver/SimulatedApplianceDriver.h"
    DESTINATION "${_rc_platform_includedir}/applianceDriver")
endif()

install(EXPORT reachabilityCacheTargets
  NAMESPACE reachabilityCache::
  FILE reachabilityCacheTargets.cmake
  DESTINATION "${REACHABILITY_CACHE_INSTALL_CMAKEDIR}")
configure_package_config_file(
  "${CMAKE_CURRENT_LIST_DIR}/reachabilityCacheConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/reachabilityCacheConfig.cmake"
  INSTALL_DESTINATION "${REACHABILITY_CACHE_INSTALL_CMAKEDIR}")
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/reachabilityCacheConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/reachabilityCacheConfig.cmake"
    "${PROJECT_BINARY_DIR}/reachabilityCacheConfigVersion.cmake"
    "${CMAKE_CURRENT_LIST_DIR}/ReachabilityCacheLiblog.cmake"
  DESTINATION "${REACHABILITY_CACHE_INSTALL_CMAKEDIR}")

# pkg-config: the prefix is found from the .pc file's own place, so that the
# files stay right for `cmake --install --prefix` and a moved prefix.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(_rc_pc_prefix "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _rc_pc_up "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  string(REGEX REPLACE "/$" "" _rc_pc_up "${_rc_pc_up}")
  set(_rc_pc_prefix "\${pcfiledir}/${_rc_pc_up}")
endif()
foreach(_rc_dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_rc_dir}}")
    set(_rc_pc_${_rc_dir} "${CMAKE_INSTALL_${_rc_dir}}")
  else()
    set(_rc_pc_${_rc_dir} "\${prefix}/${CMAKE_INSTALL_${_rc_dir}}")
  endif()
endforeach()
if(REACHABILITY_CACHE_HOST_BUILD)
  set(_rc_pc_testing_libs "-lreachabilityCacheTesting -lverandaScheduling -lverandaApplianceDriver")
else()
  set(_rc_pc_testing_libs "-lreachabilityCacheTesting -lverandaScheduling")
endif()
foreach(_rc_pc reachabilityCache reachabilityCache-testing)
  configure_file("${CMAKE_CURRENT_LIST_DIR}/${_rc_pc}.pc.in"
    "${PROJECT_BINARY_DIR}/${_rc_pc}.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/${_rc_pc}.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endforeach()
