// Parses JSON text into a document more strictly than the JSON library does
// by default: a key given twice in one object is an error, not "the last one
// wins".
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace veranda::reachabilityCache::sim {

// Parses `text` into `document`. On failure returns false and sets `error` to
// one line starting with `origin`: "origin:L:C: malformed JSON: ..." for a
// syntax error, "origin: path: duplicate key" for a repeated key, with the
// path written as "devices[2].entity". Quotes of the input in `error` are
// short excerpts. Nesting is limited only by memory: nothing here recurses.
bool parseJsonDocument(const std::string& text, const std::string& origin, nlohmann::json& document,
                       std::string& error);

}  // namespace veranda::reachabilityCache::sim
