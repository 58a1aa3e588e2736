// The structure of the library's messages: "[label] context: key=value ...".
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace veranda::reachabilityCache::trace {

struct Field {
  std::string_view key;
  std::string_view value;
};

struct LibraryLine {
  std::string_view label;  // between the brackets; empty for a lambda
  std::vector<Field> fields;

  // The value of `key`, or nothing when the line has no such field.
  std::optional<std::string_view> get(std::string_view key) const;
  // True when the line has `key` with exactly `value`.
  bool has(std::string_view key, std::string_view value) const;
  // The value of `key` when it is wholly a decimal number that fits; else
  // nothing.
  std::optional<uint64_t> number(std::string_view key) const;
  std::optional<int64_t> signedNumber(std::string_view key) const;
};

// Splits a message. A value runs to the next " key=" (a key is a word of
// letters); "details" always runs to the end of the message, line feeds and
// all. Returns nothing for text that is not a library line.
std::optional<LibraryLine> parseLibraryLine(std::string_view text);

// One entry of a result summary's details:
// "    endpoint (entityId=entity[, adapter=name]): status".
struct SummaryEntry {
  std::string_view endpointId;
  std::string_view entityId;
  std::string_view adapterName;  // empty for events, which carry none
  bool reachable = false;
  bool changed = false;  // becameReachable or becameUnreachable
  bool insertFailed = false;
};

std::optional<SummaryEntry> parseSummaryEntry(std::string_view line);

}  // namespace veranda::reachabilityCache::trace
