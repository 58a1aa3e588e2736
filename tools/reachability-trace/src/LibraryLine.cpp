#include "LibraryLine.h"

#include <cctype>
#include <charconv>
#include <string>

#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache::trace {
namespace {

bool isKeyCharacter(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }

// The length of the key at the start of `text` when a "=" follows it, else 0.
std::size_t keyLength(std::string_view text) {
  std::size_t length = 0;
  while (length < text.size() && isKeyCharacter(text[length])) {
    ++length;
  }
  return length > 0 && length < text.size() && text[length] == '=' ? length : 0;
}

// Where the value that starts at `text` ends: before the next " key=".
std::size_t valueLength(std::string_view text) {
  for (std::size_t at = text.find(' '); at != std::string_view::npos; at = text.find(' ', at + 1)) {
    if (keyLength(text.substr(at + 1)) > 0) {
      return at;
    }
  }
  return text.size();
}

// The whole of `text` as an integer of type T; nothing when it is missing,
// empty, or not entirely such a number.
template <typename T>
std::optional<T> integer(std::optional<std::string_view> text) {
  T value = 0;
  if (!text || text->empty()) {
    return std::nullopt;
  }
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (error != std::errc() || end != text->data() + text->size()) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

std::optional<std::string_view> LibraryLine::get(std::string_view key) const {
  for (const Field& field : fields) {
    if (field.key == key) {
      return field.value;
    }
  }
  return std::nullopt;
}

bool LibraryLine::has(std::string_view key, std::string_view value) const {
  const std::optional<std::string_view> found = get(key);
  return found && *found == value;
}

std::optional<uint64_t> LibraryLine::number(std::string_view key) const {
  return integer<uint64_t>(get(key));
}

std::optional<int64_t> LibraryLine::signedNumber(std::string_view key) const {
  return integer<int64_t>(get(key));
}

std::optional<LibraryLine> parseLibraryLine(std::string_view text) {
  if (text.empty() || text[0] != '[') {
    return std::nullopt;
  }
  const std::size_t close = text.find(']');
  if (close == std::string_view::npos) {
    return std::nullopt;
  }
  LibraryLine line;
  line.label = text.substr(1, close - 1);
  const std::size_t colon = text.find(": ", close);
  if (colon == std::string_view::npos) {
    return line;  // a label (and context) alone
  }
  std::string_view rest = text.substr(colon + 2);
  while (!rest.empty()) {
    const std::size_t key = keyLength(rest);
    if (key == 0) {
      return std::nullopt;
    }
    Field field{rest.substr(0, key), {}};
    rest.remove_prefix(key + 1);
    const std::size_t length =
        field.key == logSchema::key::DETAILS ? rest.size() : valueLength(rest);
    field.value = rest.substr(0, length);
    line.fields.push_back(field);
    rest.remove_prefix(length);
    if (!rest.empty()) {
      rest.remove_prefix(1);  // the blank before the next key
    }
  }
  return line;
}

std::optional<SummaryEntry> parseSummaryEntry(std::string_view line) {
  using namespace logSchema;  // the names the entry is read with
  // "    endpoint (entityId=entity[, adapter=name]): status"
  static const std::string INDENT = std::string(summary::ENTRY_START).substr(1);
  static const std::string ENTITY = std::string(" (") + key::ENTITY_ID + "=";
  static const std::string ADAPTER = std::string(", ") + key::ADAPTER + "=";
  if (line.substr(0, INDENT.size()) != INDENT) {
    return std::nullopt;
  }
  line.remove_prefix(INDENT.size());
  const std::size_t entity = line.find(ENTITY);
  const std::size_t status = line.rfind("): ");
  if (entity == std::string_view::npos || status == std::string_view::npos || status < entity) {
    return std::nullopt;
  }
  SummaryEntry entry;
  entry.endpointId = line.substr(0, entity);
  std::string_view ids = line.substr(entity + ENTITY.size(), status - entity - ENTITY.size());
  const std::size_t adapter = ids.rfind(ADAPTER);
  if (adapter != std::string_view::npos) {
    entry.adapterName = ids.substr(adapter + ADAPTER.size());
    ids = ids.substr(0, adapter);
  }
  entry.entityId = ids;
  const std::string_view word = line.substr(status + 3);
  if (word == summary::REACHABLE) {
    entry.reachable = true;
  } else if (word == summary::BECAME_REACHABLE) {
    entry.reachable = entry.changed = true;
  } else if (word == summary::REACHABLE_INSERT_FAILED) {
    entry.reachable = entry.insertFailed = true;
  } else if (word == summary::BECAME_UNREACHABLE) {
    entry.changed = true;
  } else if (word == summary::UNREACHABLE_INSERT_FAILED) {
    entry.insertFailed = true;
  } else if (word != summary::ALREADY_UNREACHABLE) {
    return std::nullopt;
  }
  return entry;
}

}  // namespace veranda::reachabilityCache::trace
