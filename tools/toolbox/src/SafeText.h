// Text from logs and scenario files made safe for the places it is shown:
// XML documents and terminals. Input is any byte string; it need not be
// valid UTF-8.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace veranda::reachabilityCache::tools {

// `text` as XML character data or attribute value: &, <, >, " and ' are
// escaped, control characters are dropped, and bytes that are not valid
// UTF-8 (and the two code points XML forbids) become U+FFFD. The result is
// always well-formed XML.
std::string xmlText(std::string_view text);

// At most `maxCharacters` characters of `text` (counted in UTF-8 code points,
// each invalid byte counting as one): longer text keeps its first
// maxCharacters - 3 characters followed by "...". Never cuts inside a
// character.
std::string shortened(std::string_view text, std::size_t maxCharacters);

// `text` for a terminal: control characters and invalid UTF-8 bytes are
// written as visible escapes (\x1b, \u0085), so that nothing in a log or a
// scenario can move the cursor, change colours or ring the bell.
std::string terminalText(std::string_view text);

// `text` as a JSON string, quotes included: '"' and '\' and control
// characters escaped, bytes that are not valid UTF-8 as U+FFFD.
std::string jsonQuoted(std::string_view text);

// The number of characters `text` takes on a terminal once made safe, for
// padding columns.
std::size_t terminalWidth(std::string_view text);

// terminalText(text) padded with blanks to at least `width` characters.
std::string terminalPadded(std::string_view text, std::size_t width);

}  // namespace veranda::reachabilityCache::tools
