# What `cmake --install` puts in place, in three install components that are
# also the CMake package's components and pkg-config modules:
#
#   library     libreachabilityCache.so.<major>, its public headers, the CMake
#               package (find_package(reachabilityCache CONFIG)), the licence
#               and the changelog. pkg-config: reachabilityCache.
#   simulation  a host build only: the platform stand-ins the library runs on
#               there (metric recorder, task executor, the clock they share)
#               and the simulated appliance driver with the stand-ins'
#               headers. pkg-config: reachabilityCache-simulation.
#   testing     a host build only: fakes, virtual time and log capture for a
#               host's tests.
#               pkg-config: reachabilityCache-testing.
#
# On a host the library needs the simulation at run time, since there it is
# the platform; an Android build installs the library alone, for the
# platform's own libraries and headers.
include(CMakePackageConfigHelpers)

set(REACHABILITY_CACHE_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/reachabilityCache"
  CACHE STRING "Where the CMake package files are installed, relative to the prefix")

# reachability_cache_install_export(<export set> <component>)
function(reachability_cache_install_export export component)
  install(EXPORT ${export}
    NAMESPACE reachabilityCache::
    FILE ${export}.cmake
    DESTINATION "${REACHABILITY_CACHE_INSTALL_CMAKEDIR}"
    COMPONENT ${component})
endfunction()

set(_rc_library_destinations
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")

# ---- library ----
if(REACHABILITY_CACHE_HOST_BUILD)
  install(TARGETS reachabilityCache EXPORT reachabilityCacheTargets
    ${_rc_library_destinations} COMPONENT library)
else()
  # On Android the platform headers' target says where the kit's headers are.
  install(TARGETS reachabilityCache verandaPlatformHeaders EXPORT reachabilityCacheTargets
    ${_rc_library_destinations} COMPONENT library)
endif()
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/reachabilityCache"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  COMPONENT library
  FILES_MATCHING PATTERN "*.h")
install(FILES "${PROJECT_BINARY_DIR}/include/reachabilityCache/Version.h"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/reachabilityCache"
  COMPONENT library)
install(FILES "${PROJECT_SOURCE_DIR}/LICENSE" "${PROJECT_SOURCE_DIR}/CHANGELOG.md"
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT library)
reachability_cache_install_export(reachabilityCacheTargets library)

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
  DESTINATION "${REACHABILITY_CACHE_INSTALL_CMAKEDIR}"
  COMPONENT library)

# ---- simulation and testing (host only) ----
if(REACHABILITY_CACHE_HOST_BUILD)
  install(TARGETS
      verandaPlatformHeaders
      verandaScheduling
      verandaMetric
      verandaTaskExecutor
      verandaApplianceDriver
    EXPORT reachabilityCacheSimulationTargets
    ${_rc_library_destinations} COMPONENT simulation)
  # Of the stand-ins' headers, only the driver's interface (which the
  # library's public headers include) and the simulated driver's are API.
  install(FILES
      "${PROJECT_SOURCE_DIR}/platform/applianceDriver/ApplianceDriver.h"
      "${PROJECT_SOURCE_DIR}/platform/applianceDriver/SimulatedApplianceDriver.h"
    DESTINATION "${REACHABILITY_CACHE_SIMULATION_INCLUDEDIR}/applianceDriver"
    COMPONENT simulation)
  reachability_cache_install_export(reachabilityCacheSimulationTargets simulation)

  install(TARGETS reachabilityCacheTesting EXPORT reachabilityCacheTestingTargets
    ${_rc_library_destinations} COMPONENT testing)
  install(DIRECTORY "${PROJECT_SOURCE_DIR}/testing/include/reachabilityCache/testing"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/reachabilityCache"
    COMPONENT testing
    FILES_MATCHING PATTERN "*.h")
  reachability_cache_install_export(reachabilityCacheTestingTargets testing)
endif()

# ---- pkg-config ----
# The prefix is found from the .pc file's own place, so that the files stay
# right for `cmake --install --prefix` and a moved prefix.
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
  file(RELATIVE_PATH _rc_pc_simulation_subdir "/prefix/${CMAKE_INSTALL_INCLUDEDIR}"
    "/prefix/${REACHABILITY_CACHE_SIMULATION_INCLUDEDIR}")
  set(_rc_pc_platform_cflags "-idirafter\${includedir}/${_rc_pc_simulation_subdir}")
  set(_rc_pc_modules reachabilityCache reachabilityCache-simulation reachabilityCache-testing)
else()
  set(_rc_pc_platform_cflags "")
  foreach(_rc_dir IN LISTS REACHABILITY_CACHE_PLATFORM_INCLUDE_DIR)
    string(APPEND _rc_pc_platform_cflags " -I${_rc_dir}")
  endforeach()
  set(_rc_pc_modules reachabilityCache)
endif()
set(_rc_pc_component_reachabilityCache library)
set(_rc_pc_component_reachabilityCache-simulation simulation)
set(_rc_pc_component_reachabilityCache-testing testing)
foreach(_rc_pc IN LISTS _rc_pc_modules)
  configure_file("${CMAKE_CURRENT_LIST_DIR}/${_rc_pc}.pc.in"
    "${PROJECT_BINARY_DIR}/${_rc_pc}.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/${_rc_pc}.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
    COMPONENT ${_rc_pc_component_${_rc_pc}})
endforeach()
