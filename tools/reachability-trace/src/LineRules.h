// What the trace knows of the library's lines beyond their shape: which
// component writes each label, and the fields a line must have to be whole.
#pragma once

#include <optional>
#include <string_view>

#include "LibraryLine.h"

namespace veranda::reachabilityCache::trace {

// True when the library's component of `tag` writes lines with `label`.
bool isLabelOfTag(std::string_view label, std::string_view tag);

// True for a line that has every field its label and first field promise
// (a line that an id's line feed cut short has not).
bool isWhole(const LibraryLine& line);

// True for the four tags of the library.
bool isLibraryTag(std::string_view tag);

// The name of the cache's metric that a metric line's text records, or
// nothing for another metric.
std::optional<std::string_view> cacheMetricName(std::string_view text);

// True when the trace knows the lines of `label` under `tag`: those of
// the library it reads, and those it knows it need not read.
bool knowsLabel(std::string_view label, std::string_view tag);

}  // namespace veranda::reachabilityCache::trace
