// Draws a TimelinePicture as an SVG document. Used by reachability-sim and
// reachability-trace, so that both show the same picture.
#pragma once

#include <cstddef>
#include <string>

#include "TimelinePicture.h"

namespace veranda::reachabilityCache::tools {

// Pictures with more rows than this get a counting band and a selection of
// rows instead of one row each.
inline constexpr std::size_t MAX_SVG_ROWS = 120;
// Rows drawn for such pictures: those with the most spans.
inline constexpr std::size_t SELECTED_SVG_ROWS = 100;

// The colour that shows `answer` in pictures (as "#rrggbb"): unknown
// shares the colour of not cached, and pictures that show it apart mark it
// otherwise.
const char* answerColour(Answer answer);

// The SVG document: one row per entity with its spans and marks, the cycles
// as dashed lines (thinned where they would lie closer than a few pixels), a
// legend and labelled axes. Every text of the picture is
// escaped, so the document is well-formed XML whatever the labels hold.
std::string timelineSvg(const TimelinePicture& picture);

// Writes timelineSvg(picture) to `path`; on failure returns false and sets
// `error` to one line.
bool writeTimelineSvg(const TimelinePicture& picture, const std::string& path, std::string& error);

}  // namespace veranda::reachabilityCache::tools
