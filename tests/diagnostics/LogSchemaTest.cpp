// The log schema against the lines the library really writes: a tour through
// every line of every component, then two checks. Every label, key and fixed
// value in a line is a name of the schema (a line built from a literal of its
// own fails), and every name of the schema is written by some line (a name
// nobody writes fails).
#include "diagnostics/LogSchema.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <initializer_list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "LogRecorder.h"
#include "LogTour.h"
#include "diagnostics/ReachabilityCacheMetrics.h"

namespace veranda::reachabilityCache {
namespace {

using namespace logSchema;
using test::LogLine;
using test::LogRecorder;

// ---- Reading the lines ----

struct Field {
  std::string key;
  std::string value;
};

// A line of the library: "[label]: key=value key=value", a value running to
// the next " key=" (a key is a word of letters) and details to the end.
struct ParsedLine {
  std::string label;
  std::string afterLabel;  // what follows "]" when it is not ": " and fields
  std::vector<Field> fields;

  std::optional<std::string> get(const std::string& key) const {
    for (const Field& field : fields) {
      if (field.key == key) {
        return field.value;
      }
    }
    return std::nullopt;
  }
};

std::size_t keyLength(std::string_view text) {
  std::size_t length = 0;
  while (length < text.size() && std::isalpha(static_cast<unsigned char>(text[length])) != 0) {
    ++length;
  }
  return length > 0 && length < text.size() && text[length] == '=' ? length : 0;
}

ParsedLine parse(std::string_view text) {
  ParsedLine line;
  const std::size_t close = text.find(']');
  if (text.empty() || text[0] != '[' || close == std::string_view::npos) {
    line.afterLabel = std::string(text);
    return line;
  }
  line.label = std::string(text.substr(1, close - 1));
  std::string_view rest = text.substr(close + 1);
  if (rest.empty()) {
    return line;
  }
  if (rest.substr(0, 2) != ": ") {
    line.afterLabel = std::string(rest);
    return line;
  }
  rest.remove_prefix(2);
  while (!rest.empty()) {
    const std::size_t key = keyLength(rest);
    if (key == 0) {
      line.afterLabel = std::string(rest);
      return line;
    }
    Field field{std::string(rest.substr(0, key)), ""};
    rest.remove_prefix(key + 1);
    std::size_t length = rest.size();
    if (field.key != key::DETAILS) {
      for (std::size_t at = rest.find(' '); at != std::string_view::npos;
           at = rest.find(' ', at + 1)) {
        if (keyLength(rest.substr(at + 1)) > 0) {
          length = at;
          break;
        }
      }
    }
    field.value = std::string(rest.substr(0, length));
    line.fields.push_back(std::move(field));
    rest.remove_prefix(length == rest.size() ? length : length + 1);
  }
  return line;
}

template <std::size_t N>
std::set<std::string> names(const char* const (&list)[N]) {
  return {std::begin(list), std::end(list)};
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
    parts.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  parts.push_back(text.substr(start));
  return parts;
}

// What the lines used, per group of names.
struct Usage {
  std::set<std::string> tags, labels, keys, events, actions, statuses, results, reasons,
      summaryStatuses, prefixes, metrics;
  std::vector<std::string> strangers;  // what no group of the schema names

  void expectIn(const std::set<std::string>& known, std::set<std::string>& used,
                const std::string& name, const std::string& where) {
    if (known.count(name) == 0) {
      strangers.push_back(name + " in " + where);
    }
    used.insert(name);
  }
};

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

void readSummaryDetails(const std::string& details, const std::string& where, Usage& usage) {
  const std::vector<std::string> entries = splitLines(details);
  // The details open with a line break: the first part is empty.
  if (!entries.front().empty()) {
    usage.strangers.push_back("text before the first entry in " + where);
  }
  const std::string entityField = std::string(" (") + key::ENTITY_ID + "=";
  const std::string adapterField = std::string(", ") + key::ADAPTER + "=";
  for (std::size_t i = 1; i < entries.size(); ++i) {
    const std::string entry = std::string("\n") + entries[i];
    const std::size_t entity = entry.find(entityField);
    const std::size_t status = entry.rfind("): ");
    if (!startsWith(entry, summary::ENTRY_START) || entity == std::string::npos ||
        status == std::string::npos) {
      usage.strangers.push_back("entry \"" + entries[i] + "\" in " + where);
      continue;
    }
    usage.keys.insert(key::ENTITY_ID);
    if (entry.find(adapterField, entity) != std::string::npos) {
      usage.keys.insert(key::ADAPTER);
    }
    usage.expectIn(names(summary::ALL), usage.summaryStatuses, entry.substr(status + 3), where);
  }
}

void readRequestDetails(const std::string& details, const std::string& where, Usage& usage) {
  const std::vector<std::string> entries = splitLines(details);
  const ParsedLine head = parse("[]: " + entries.front());
  const std::vector<std::string> keys{key::REQUEST_ID, key::COUNT};
  if (head.fields.size() != 2 || head.fields[0].key != keys[0] || head.fields[1].key != keys[1]) {
    usage.strangers.push_back("head \"" + entries.front() + "\" in " + where);
  }
  usage.keys.insert(keys.begin(), keys.end());
  for (std::size_t i = 1; i < entries.size(); ++i) {
    if (!startsWith("\n" + entries[i], request::ENTRY_START) ||
        entries[i].find(request::MAPS_TO) == std::string::npos) {
      usage.strangers.push_back("entry \"" + entries[i] + "\" in " + where);
    }
  }
}

void readLibraryLine(const LogLine& logLine, Usage& usage) {
  const std::string where = "\"" + logLine.text + "\"";
  const ParsedLine line = parse(logLine.text);
  if (!line.afterLabel.empty()) {
    usage.strangers.push_back("unparsed \"" + line.afterLabel + "\" in " + where);
  }
  usage.expectIn(names(label::ALL), usage.labels, line.label, where);
  const std::map<std::string, std::pair<std::set<std::string>, std::set<std::string>*>> valued{
      {key::EVENT, {names(event::ALL), &usage.events}},
      {key::ACTION, {names(action::ALL), &usage.actions}},
      {key::STATUS, {names(status::ALL), &usage.statuses}},
      {key::RESULT, {names(result::ALL), &usage.results}},
      {key::REASON, {names(reason::ALL), &usage.reasons}},
  };
  for (const Field& field : line.fields) {
    usage.expectIn(names(key::ALL), usage.keys, field.key, where);
    if (const auto found = valued.find(field.key); found != valued.end()) {
      usage.expectIn(found->second.first, *found->second.second, field.value, where);
    }
    if (field.key == key::REQUEST_ID || field.key == key::CALLBACK_ID) {
      for (const char* prefix : requestIdPrefix::ALL) {
        if (startsWith(field.value, prefix)) {
          usage.prefixes.insert(prefix);
        }
      }
    }
  }
  if (const auto details = line.get(key::DETAILS)) {
    if (line.label == label::PROCESS_REACHABILITY_RESULTS) {
      readSummaryDetails(*details, where, usage);
    } else {
      readRequestDetails(*details, where, usage);
    }
  }
}

void readMetricLine(const LogLine& logLine, Usage& usage) {
  const std::string where = "\"" + logLine.text + "\"";
  const ParsedLine line = parse(logLine.text);
  const std::set<std::string> dimensions{metric::DIMENSION_METRIC_NAME, metric::DIMENSION_MAX_SIZE,
                                         metric::DIMENSION_REASON, metric::DIMENSION_UPDATE_TYPE,
                                         metric::DIMENSION_ACTION};
  ASSERT_GE(line.fields.size(), 3u) << where;
  // The recorder's own routing fields close the line.
  const std::size_t dimensionCount = line.fields.size() - 2;
  EXPECT_EQ(line.fields[dimensionCount].value, metric::PROGRAM_ID) << where;
  EXPECT_EQ(line.fields[dimensionCount + 1].value, metric::SOURCE_ID) << where;
  std::set<std::string> unused;
  for (std::size_t i = 0; i < dimensionCount; ++i) {
    const Field& field = line.fields[i];
    usage.expectIn(dimensions, unused, field.key, where);
    if (field.key == metric::DIMENSION_METRIC_NAME) {
      usage.expectIn(names(metric::ALL), usage.metrics, field.value, where);
    } else if (field.key == metric::DIMENSION_REASON) {
      usage.expectIn(names(reason::ALL), usage.reasons, field.value, where);
    } else if (field.key == metric::DIMENSION_UPDATE_TYPE) {
      usage.expectIn({metric::UPDATE_TYPE_PERIODIC, metric::UPDATE_TYPE_MANUAL}, unused,
                     field.value, where);
    } else if (field.key == metric::DIMENSION_ACTION) {
      usage.expectIn({metric::ACTION_ENABLE}, unused, field.value, where);
    }
  }
}

class LogSchemaTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    LogRecorder::instance().clear();
    test::writeEveryLine();
    writtenLines = new std::vector<LogLine>(LogRecorder::instance().take());
  }
  static void TearDownTestSuite() { delete writtenLines; }

  static Usage read() {
    Usage usage;
    std::set<std::string> tags = names(tag::ALL);
    tags.insert(tag::METRIC);
    for (const LogLine& line : *writtenLines) {
      usage.expectIn(tags, usage.tags, line.tag, "the tags");
      if (line.tag == tag::METRIC) {
        readMetricLine(line, usage);
      } else {
        readLibraryLine(line, usage);
      }
    }
    return usage;
  }

  static std::vector<LogLine>* writtenLines;
};

std::vector<LogLine>* LogSchemaTest::writtenLines = nullptr;

// The names of `known` that no line used, but for `exempt`.
std::set<std::string> unwritten(const std::set<std::string>& known,
                                const std::set<std::string>& used,
                                std::initializer_list<const char*> exempt = {}) {
  std::set<std::string> missing;
  for (const std::string& name : known) {
    if (used.count(name) == 0 && std::find(exempt.begin(), exempt.end(), name) == exempt.end()) {
      missing.insert(name);
    }
  }
  return missing;
}

TEST_F(LogSchemaTest, EveryLineIsMadeOfTheSchemasNames) {
  const Usage usage = read();
  EXPECT_GT(writtenLines->size(), 100u);
  EXPECT_EQ(usage.strangers, std::vector<std::string>{});
}

TEST_F(LogSchemaTest, EveryNameOfTheSchemaIsWritten) {
  const Usage usage = read();
  std::set<std::string> tags = names(tag::ALL);
  tags.insert(tag::METRIC);
  std::set<std::string> keys = names(key::ALL);
  keys.insert({key::ADAPTER, key::COUNT});
  const std::set<std::string> none;
  EXPECT_EQ(unwritten(tags, usage.tags), none);
  EXPECT_EQ(unwritten(names(label::ALL), usage.labels), none);
  EXPECT_EQ(unwritten(keys, usage.keys), none);
  EXPECT_EQ(unwritten(names(event::ALL), usage.events), none);
  EXPECT_EQ(unwritten(names(action::ALL), usage.actions), none);
  EXPECT_EQ(unwritten(names(status::ALL), usage.statuses), none);
  EXPECT_EQ(unwritten(names(result::ALL), usage.results), none);
  // A cycle finds periodic updates stopped only when a stop races with the
  // cycle re-arming itself, which no test can arrange.
  EXPECT_EQ(unwritten(names(reason::ALL), usage.reasons, {reason::PERIODIC_UPDATES_DISABLED}),
            none);
  EXPECT_EQ(unwritten(names(summary::ALL), usage.summaryStatuses), none);
  EXPECT_EQ(unwritten(names(requestIdPrefix::ALL), usage.prefixes), none);
  EXPECT_EQ(unwritten(names(metric::ALL), usage.metrics), none);
}

}  // namespace
}  // namespace veranda::reachabilityCache
