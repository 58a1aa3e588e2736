#include "JsonDocument.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <utility>
#include <vector>

#include "Excerpt.h"

namespace veranda::reachabilityCache::sim {
namespace {

using nlohmann::json;

// Path components shown at each end of a path too deep to show whole.
constexpr std::size_t PATH_ENDS = 3;

// Turns the parser's "[json.exception...] parse error at line L, column C: text"
// into "origin:L:C: malformed JSON: text", with the input that the parser quotes
// after "last read: " cut to its end.
std::string syntaxError(const std::string& origin, const std::string& message) {
  unsigned long line = 0;
  unsigned long column = 0;
  const std::size_t at = message.find("at line ");
  const std::size_t colon = message.find(": ", at == std::string::npos ? 0 : at);
  if (at == std::string::npos || colon == std::string::npos ||
      std::sscanf(message.c_str() + at, "at line %lu, column %lu", &line, &column) != 2) {
    return origin + ": malformed JSON: " + tools::tailExcerpt(message);
  }
  std::string text = message.substr(colon + 2);
  const std::string lastRead = "last read: ";
  const std::size_t quoted = text.find(lastRead);
  if (quoted != std::string::npos) {
    const std::size_t from =
        quoted + lastRead.size() + (text[quoted + lastRead.size()] == '\'' ? 1 : 0);
    text = text.substr(0, from) + tools::tailExcerpt(text.substr(from));
  }
  return origin + ":" + std::to_string(line) + ":" + std::to_string(column) +
         ": malformed JSON: " + text;
}

bool isPlainKey(const std::string& key) {
  if (key.empty() || key.size() > tools::EXCERPT_LENGTH ||
      std::isdigit(static_cast<unsigned char>(key[0])) != 0) {
    return false;
  }
  return std::all_of(key.begin(), key.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
  });
}

// Builds the document from the parser's events, as the library's own builder
// does, and stops at the first key that its object already has.
class DocumentBuilder {
 public:
  // The parser's event interface, with the names it asks for.
  // NOLINTBEGIN(readability-identifier-naming)
  using number_integer_t = json::number_integer_t;
  using number_unsigned_t = json::number_unsigned_t;
  using number_float_t = json::number_float_t;
  using string_t = json::string_t;
  using binary_t = json::binary_t;

  explicit DocumentBuilder(json& root) : root_(root) {}

  bool null() { return add(nullptr) != nullptr; }
  bool boolean(bool value) { return add(value) != nullptr; }
  bool number_integer(number_integer_t value) { return add(value) != nullptr; }
  bool number_unsigned(number_unsigned_t value) { return add(value) != nullptr; }
  bool number_float(number_float_t value, const string_t& /*text*/) {
    return add(value) != nullptr;
  }
  bool string(string_t& value) { return add(std::move(value)) != nullptr; }
  bool binary(binary_t& value) { return add(json(std::move(value))) != nullptr; }

  bool start_object(std::size_t /*size*/) {
    open_.push_back({add(json::object()), {}});
    return true;
  }
  bool key(string_t& key) {
    Open& object = open_.back();
    if (object.node->contains(key)) {
      error_ = path(key) + ": duplicate key";
      return false;
    }
    object.key = std::move(key);
    return true;
  }
  bool end_object() {
    open_.pop_back();
    return true;
  }
  bool start_array(std::size_t /*size*/) {
    open_.push_back({add(json::array()), {}});
    return true;
  }
  bool end_array() {
    open_.pop_back();
    return true;
  }

  bool parse_error(std::size_t /*position*/, const std::string& /*lastToken*/,
                   const nlohmann::detail::exception& error) {
    syntaxError_ = error.what();
    return false;
  }
  // NOLINTEND(readability-identifier-naming)

  // Set once the parse has failed: the syntax error as the library words it,
  // or the duplicate key's path (without the origin).
  const std::string& syntaxError() const { return syntaxError_; }
  const std::string& error() const { return error_; }

 private:
  // An object or array whose end has not been read yet.
  struct Open {
    json* node;
    std::string key;  // an object's key for the value that comes next
  };

  // Places `value` where the text has it and returns where it now lives.
  json* add(json&& value) {
    if (open_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    Open& parent = open_.back();
    if (parent.node->is_array()) {
      parent.node->push_back(std::move(value));
      return &parent.node->back();
    }
    json& slot = (*parent.node)[parent.key];
    slot = std::move(value);
    return &slot;
  }

  // "devices[2].entity" for `key` in the innermost open object; a path
  // deeper than twice PATH_ENDS shows its ends only.
  std::string path(const std::string& key) const {
    std::vector<std::size_t> shown;
    for (std::size_t level = 0; level < open_.size(); ++level) {
      if (level < PATH_ENDS || level + PATH_ENDS >= open_.size()) {
        shown.push_back(level);
      }
    }
    std::string text;
    for (std::size_t i = 0; i < shown.size(); ++i) {
      if (i > 0 && shown[i] != shown[i - 1] + 1) {
        text += "...";
      }
      const Open& level = open_[shown[i]];
      const bool innermost = shown[i] + 1 == open_.size();
      if (level.node->is_array()) {
        text += "[" + std::to_string(level.node->size() - 1) + "]";
      } else {
        const std::string& name = innermost ? key : level.key;
        const bool dot = !text.empty() && text.back() != '.';  // none after "..."
        text += isPlainKey(name) ? (dot ? "." : "") + name : "[" + tools::quotedExcerpt(name) + "]";
      }
    }
    return text;
  }

  json& root_;
  std::vector<Open> open_;
  std::string syntaxError_;
  std::string error_;
};

}  // namespace

bool parseJsonDocument(const std::string& text, const std::string& origin, json& document,
                       std::string& error) {
  DocumentBuilder builder(document);
  if (json::sax_parse(text, &builder)) {
    return true;
  }
  error = builder.syntaxError().empty() ? origin + ": " + builder.error()
                                        : syntaxError(origin, builder.syntaxError());
  document = json();
  return false;
}

}  // namespace veranda::reachabilityCache::sim
