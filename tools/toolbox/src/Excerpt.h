// Short, printable quotations of input for one-line error messages.
//
// An excerpt is at most EXCERPT_LENGTH characters: a longer one is cut at a
// whole character or escape and ends in "...". Control characters (C0, DEL,
// C1) are written as JSON escapes and bytes that are not UTF-8 as \xNN, so an
// excerpt never breaks a line or reaches a terminal as a command. Making one
// reads only as much of the input as it shows, however long or deeply nested
// the input is.
#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace veranda::reachabilityCache::tools {

inline constexpr std::size_t EXCERPT_LENGTH = 40;

// `value` as compact JSON ("[1,2]", "\"kitchen\"", "{\"a\":[[[[..."), cut to
// an excerpt.
std::string excerpt(const nlohmann::json& value);

// `text` as a JSON string ("\"kitchen\""), cut to an excerpt.
std::string quotedExcerpt(const std::string& text);

// The end of `text` unquoted, escaped as above, with "..." in front when cut.
std::string tailExcerpt(const std::string& text);

}  // namespace veranda::reachabilityCache::tools
