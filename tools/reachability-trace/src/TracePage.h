// The page: one self-contained HTML file that shows a trace in any browser,
// offline. Its style and script are the tool's own, written into the file;
// the trace is embedded as JSON, and every text from the capture reaches
// the page as data, never as markup.
#pragma once

#include <cstddef>
#include <string>

#include "TraceModel.h"

namespace veranda::reachabilityCache::trace {

// The page of `trace` (which has times), showing cache `selectedCache`
// first; `captureName` names the capture in its title and in the commands
// it suggests.
std::string tracePage(const Trace& trace, std::size_t selectedCache,
                      const std::string& captureName);

// The page's data alone: the JSON document that the page embeds.
std::string tracePageData(const Trace& trace, std::size_t selectedCache,
                          const std::string& captureName);

// Writes tracePage() to `path`; on failure returns false and sets `error` to
// one line.
bool writeTracePage(const Trace& trace, std::size_t selectedCache, const std::string& captureName,
                    const std::string& path, std::string& error);

}  // namespace veranda::reachabilityCache::trace
