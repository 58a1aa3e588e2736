# The simulator's scenario model and its JSON loader: a library of its own, so
# that the fuzz build, which builds no tools, can fuzz the loader without the
# rest of the simulator. Included by this directory and by tests/fuzz.
include_guard(GLOBAL)
include(${CMAKE_CURRENT_LIST_DIR}/../toolbox/Toolbox.cmake)  # reachabilityToolbox

set(_sim_scenario_dir ${CMAKE_CURRENT_LIST_DIR})

# The default home is the scenario file compiled in, so both stay the same.
set(_sim_default_home ${_sim_scenario_dir}/scenarios/default-home.json)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${_sim_default_home})
file(READ ${_sim_default_home} DEFAULT_HOME_JSON)
configure_file(${_sim_scenario_dir}/src/DefaultHome.cpp.in
  ${CMAKE_CURRENT_BINARY_DIR}/DefaultHome.cpp @ONLY)

add_library(reachabilitySimScenario STATIC
  ${_sim_scenario_dir}/src/Scenario.cpp
  ${_sim_scenario_dir}/src/ScenarioLoader.cpp
  ${_sim_scenario_dir}/src/JsonDocument.cpp
  ${CMAKE_CURRENT_BINARY_DIR}/DefaultHome.cpp)
target_include_directories(reachabilitySimScenario PUBLIC ${_sim_scenario_dir}/src)
target_link_libraries(reachabilitySimScenario PUBLIC
  verandaPlatformHeaders reachabilityToolbox)
reachability_cache_set_warnings(reachabilitySimScenario)
