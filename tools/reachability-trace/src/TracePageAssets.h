// The page's template, style and script (tools/reachability-trace/page/),
// written into the tool at build time.
#pragma once

#include <string_view>

namespace veranda::reachabilityCache::trace {

// The template holds the markers that writeTracePage() replaces: the title,
// the style, the script and the data.
extern const std::string_view PAGE_HTML;
extern const std::string_view PAGE_CSS;
extern const std::string_view PAGE_JS;

}  // namespace veranda::reachabilityCache::trace
