// What the trace knows of the library's lines beyond their shape: which
// component writes each label, and the fields a line must have to be whole.
#pragma once

#include <string_view>

#include "LibraryLine.h"

namespace veranda::reachabilityCache::trace {

// True when the library's component of `tag` writes lines with `label`.
bool isLabelOfTag(std::string_view label, std::string_view tag);

// True for a line that has every field its label and first field promise
// (a line that an id's line feed cut short has not).
bool isWhole(const LibraryLine& line);

}  // namespace veranda::reachabilityCache::trace
