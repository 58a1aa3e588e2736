// Fuzzes the extraction of function labels and the label a LogBuilder writes,
// against a reference written from the rules of the format.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "FuzzCheck.h"
#include "diagnostics/LogBuilder.h"

namespace {

using veranda::commonLog::LogBuilder;

constexpr std::size_t LONGEST_LABEL = 255;

bool isNameCharacter(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

// The label for `text`: empty for anything holding "operator()"; the name
// before the parameter list that the last ")" closes; `text` itself when
// there is no such name.
std::string referenceLabel(const std::string& text) {
  if (text.find("operator()") != std::string::npos) {
    return "";
  }
  const std::size_t close = text.rfind(')');
  if (close == std::string::npos || close == 0) {
    return text;
  }
  long open = static_cast<long>(close);
  for (int depth = 1; depth > 0;) {
    if (--open < 0) {
      return text;
    }
    depth += text[open] == ')' ? 1 : text[open] == '(' ? -1 : 0;
  }
  long last = open - 1;
  while (last >= 0 && (text[last] == ' ' || text[last] == '\t')) {
    --last;
  }
  if (last < 0) {
    return text;
  }
  long first = last;
  while (first > 0 && isNameCharacter(text[first - 1])) {
    --first;
  }
  return text.substr(first, std::min<std::size_t>(last - first + 1, LONGEST_LABEL));
}

}  // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the name libFuzzer calls.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  // The first byte picks the context; the rest, up to a NUL, is the function.
  const uint8_t choice = data[0] % 4;
  std::string function(reinterpret_cast<const char*>(data + 1), size - 1);
  function.resize(std::strlen(function.c_str()));

  const std::string expected = referenceLabel(function);
  const std::string label = LogBuilder::extractFunctionName(function.c_str());
  FUZZ_CHECK(label == expected);
  FUZZ_CHECK(label.size() <= LONGEST_LABEL || label == function);

  const char* contexts[] = {nullptr, "", expected.c_str(), "stateChangeCallback"};
  const char* context = contexts[choice];
  std::string line = "[";
  if (expected.empty()) {
    line += std::string(context == nullptr ? "" : context) + "]";
  } else {
    line += expected + "]";
    if (context != nullptr && *context != '\0' && expected != context) {
      line += std::string(" ") + context;
    }
  }
  line += ": key=%s n=-1";
  LogBuilder builder(function.c_str(), context);
  builder.d("key", "%s").d("n", -1);
  FUZZ_CHECK(builder.str() == line);
  return 0;
}
