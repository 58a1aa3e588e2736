# The tools' toolbox: the command-line set-up, the answer type, safe text and
# excerpts, and the timeline picture that reachability-sim and
# reachability-trace share. Included by this directory and by tests/fuzz,
# whose build has no tools.
include_guard(GLOBAL)
find_package(CLI11 2 CONFIG REQUIRED)
find_package(nlohmann_json 3 REQUIRED)

set(_toolbox_dir ${CMAKE_CURRENT_LIST_DIR}/src)
add_library(reachabilityToolbox STATIC
  ${_toolbox_dir}/Answer.cpp
  ${_toolbox_dir}/CommandLine.cpp
  ${_toolbox_dir}/Excerpt.cpp
  ${_toolbox_dir}/SafeText.cpp
  ${_toolbox_dir}/TextCutter.cpp
  ${_toolbox_dir}/TimelineSvg.cpp
  ${_toolbox_dir}/Utf8.cpp)
target_include_directories(reachabilityToolbox PUBLIC ${_toolbox_dir})
target_link_libraries(reachabilityToolbox PUBLIC CLI11::CLI11 nlohmann_json::nlohmann_json)
reachability_cache_set_warnings(reachabilityToolbox)
