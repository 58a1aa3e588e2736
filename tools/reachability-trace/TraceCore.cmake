# Everything of reachability-trace but main(), so that tests and the fuzz
# build (which has no tools) can link it. Included by this directory and by
# tests/fuzz.
include_guard(GLOBAL)
include(${CMAKE_CURRENT_LIST_DIR}/../toolbox/Toolbox.cmake)  # reachabilityToolbox

set(_trace_dir ${CMAKE_CURRENT_LIST_DIR}/src)

# The page's template, style and script, written into the tool.
set(_page_dir ${CMAKE_CURRENT_LIST_DIR}/page)
set(_page_assets ${_page_dir}/trace-page.html ${_page_dir}/trace-page.css ${_page_dir}/trace-page.js)
add_custom_command(
  OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/TracePageAssets.cpp
  COMMAND ${CMAKE_COMMAND} -DOUTPUT=${CMAKE_CURRENT_BINARY_DIR}/TracePageAssets.cpp
    -DHTML=${_page_dir}/trace-page.html -DCSS=${_page_dir}/trace-page.css
    -DJS=${_page_dir}/trace-page.js -P ${_page_dir}/EmbedPageAssets.cmake
  DEPENDS ${_page_assets} ${_page_dir}/EmbedPageAssets.cmake
  COMMENT "Writing the page's assets into the tool")

add_library(reachabilityTraceCore STATIC
  ${_trace_dir}/CaptureLine.cpp
  ${_trace_dir}/CaptureSource.cpp
  ${_trace_dir}/ArchiveSource.cpp
  ${_trace_dir}/Utf16Source.cpp
  ${_trace_dir}/CaptureReader.cpp
  ${_trace_dir}/WordSearch.cpp
  ${_trace_dir}/CaptureClock.cpp
  ${_trace_dir}/LogMessage.cpp
  ${_trace_dir}/LibraryLine.cpp
  ${_trace_dir}/LineRules.cpp
  ${_trace_dir}/TraceModel.cpp
  ${_trace_dir}/Problems.cpp
  ${_trace_dir}/Evidence.cpp
  ${_trace_dir}/CheckReader.cpp
  ${_trace_dir}/CauseReader.cpp
  ${_trace_dir}/EventReader.cpp
  ${_trace_dir}/EntityAnswers.cpp
  ${_trace_dir}/ChangeReader.cpp
  ${_trace_dir}/TraceBuilder.cpp
  ${_trace_dir}/TraceWindow.cpp
  ${_trace_dir}/TraceFigures.cpp
  ${_trace_dir}/TraceReport.cpp
  ${_trace_dir}/TraceJson.cpp
  ${_trace_dir}/TracePicture.cpp
  ${_trace_dir}/TraceOptions.cpp
  ${_trace_dir}/CaptureMoment.cpp
  ${_trace_dir}/AnswerAt.cpp
  ${_trace_dir}/TracePage.cpp
  ${CMAKE_CURRENT_BINARY_DIR}/TracePageAssets.cpp
  ${_trace_dir}/CaptureTrace.cpp)
target_include_directories(reachabilityTraceCore PUBLIC ${_trace_dir})
# Bug reports come zipped, captures gzipped: libarchive unpacks them.
find_package(LibArchive 3 REQUIRED)
target_link_libraries(reachabilityTraceCore PUBLIC
  reachabilityToolbox reachabilityCacheLogSchema LibArchive::LibArchive)
reachability_cache_set_warnings(reachabilityTraceCore)
