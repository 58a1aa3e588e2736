// The log schema against the lines the library really writes: a tour through
// every line of every component, then two checks. Every label, key and fixed
// value in a line is a name of the schema (a line built from a literal of its
// own fails), and every name of the schema is written by some line (a name
// nobody writes fails).
#include "diagnostics/LogSchema.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "LogRecorder.h"
#include "diagnostics/ReachabilityCacheMetrics.h"
#include "reachabilityCache/ApplianceDriverReachabilityChecker.h"
#include "reachabilityCache/EntityReachabilityTracker.h"
#include "reachabilityCache/ReachabilityCache.h"
#include "reachabilityCache/testing/FakeChrProvider.h"
#include "reachabilityCache/testing/FakeReachabilityChecker.h"
#include "reachabilityCache/testing/VirtualTime.h"
#include "store/CacheCore.h"
#include "updater/ReachabilityUpdater.h"

namespace veranda::reachabilityCache {
namespace {

using namespace logSchema;
using applianceDriver::ApplianceDriverType;
using applianceDriver::DiscoveredDevice;
using std::chrono::milliseconds;
using std::chrono::seconds;
using test::LogLine;
using test::LogRecorder;

constexpr const char* ZIGBEE = "PROT_ZIGBEE-ADAPTER";
const CapabilitySet POWER{{"PowerController", "powerState"}};

// A driver that answers as the test says: refusing, or keeping each
// discovery's callback and the subscription's for the test to call.
class ScriptedDriver : public applianceDriver::IUnifiedApplianceDriver {
 public:
  bool getReachableDevices(const std::string& /*requestId*/, DevicesCallback onDevices) override {
    discovery = std::move(onDevices);
    return !refuse;
  }
  bool subscribeStateChanges(const std::vector<std::string>& /*endpointIds*/,
                             const std::string& /*subscriptionId*/,
                             StateChangeCallback onStateChange,
                             SubscriptionErrorCallback /*onSubscriptionError*/) override {
    stateChange = std::move(onStateChange);
    return !refuse;
  }
  bool unsubscribeStateChanges(const std::string& /*subscriptionId*/) override { return !refuse; }

  bool refuse = false;
  DevicesCallback discovery;
  StateChangeCallback stateChange;
};

void writeStoreLines() {
  CacheCore store(1);
  store.insertEndpoint(CachedEndpoint("lamp-1", "", ZIGBEE, ApplianceDriverType::NATIVE, POWER));
  store.insertEndpoint(CachedEndpoint("", "lamp", ZIGBEE, ApplianceDriverType::NATIVE, POWER));
  store.insertEndpoint(
      CachedEndpoint("lamp-1", "lamp", ZIGBEE, ApplianceDriverType::NATIVE, POWER));
  store.insertEndpoint(CachedEndpoint("lamp-2", "lamp", "", ApplianceDriverType::NO_DRIVER, {}));
  store.insertEndpoint(
      CachedEndpoint("lamp-1", "lamp", ZIGBEE, ApplianceDriverType::CONNECTED, {}));
  store.insertEndpoint(CachedEndpoint("plug-1", "plug", ZIGBEE, ApplianceDriverType::NATIVE, {}));

  store.isEntityPresent("lamp");
  store.isEntityReachable("plug");
  store.isEntityReachable("lamp");
  store.isCapabilityReachable("plug", *POWER.begin());
  store.isCapabilityReachable("lamp", *POWER.begin());
  store.isCapabilityReachable("lamp", {"Other", ""});
  store.isCapabilityReachableByDriver("plug", *POWER.begin(), ApplianceDriverType::NATIVE);
  store.isCapabilityReachableByDriver("lamp", *POWER.begin(), ApplianceDriverType::NATIVE);
  store.isCapabilityReachableByDriver("lamp", *POWER.begin(), ApplianceDriverType::CONNECTED);
  store.getEndpointIdForEntity("lamp");
  store.getEndpointIdForEntity("plug");
  store.getEntityIdForEndpoint("lamp-1");
  store.getEntityIdForEndpoint("plug-1");

  ASSERT_TRUE(store.registerReachabilityListener("ui", [](auto&&...) {}));
  store.registerReachabilityListener("ui", [](auto&&...) {});
  store.notifyReachabilityListeners("lamp-1", "lamp", true);
  store.unregisterReachabilityListener("ui");
  store.unregisterReachabilityListener("ui");

  store.clearEndpointCapabilities("plug", "plug-1");
  store.clearEndpointCapabilities("lamp", "lamp-9");
  store.clearEndpointCapabilities("lamp", "lamp-1");
  store.isEntityReachable("lamp");
  store.removeEndpoint("plug", "plug-1");
  store.removeEndpoint("lamp", "lamp-9");
  store.removeEndpoint("lamp", "lamp-2");
  store.removeEndpoint("lamp", "lamp-1");
  store.removeEntity("lamp");
  store.insertEndpoint(CachedEndpoint("plug-1", "plug", ZIGBEE, ApplianceDriverType::NATIVE, {}));
  store.removeEntity("plug");
  store.clear();
}

void writeCheckerLines() {
  ScriptedDriver driver;
  ApplianceDriverReachabilityChecker checker(driver);
  const auto ignore = [](const std::vector<ReachabilityCheckResult>& /*results*/) {};
  const EndpointInfo lamp("lamp-1", "lamp", ZIGBEE, POWER);
  const EndpointInfo plug("plug-1", "plug", "PROT_OTHER-ADAPTER", {});

  checker.checkReachability({}, "manual_1", ignore);
  driver.refuse = true;
  checker.checkReachability({lamp}, "periodic_2", ignore);
  driver.refuse = false;
  checker.checkReachability({lamp, plug}, "periodic_3", ignore);
  DiscoveredDevice lampDevice{
      "lamp-1", "lamp", ZIGBEE, "Lamp", true, {}, ApplianceDriverType::NATIVE};
  DiscoveredDevice plugDevice{"plug-1", "plug", "PROT_OTHER-ADAPTER",       "Plug",
                              true,     {},     ApplianceDriverType::NATIVE};
  driver.discovery({lampDevice, plugDevice});

  const auto onResult = [](const ReachabilityCheckResult& /*result*/) {};
  checker.registerReachabilityUpdateCallback("", onResult);
  checker.registerReachabilityUpdateCallback("reachability_updater_4", nullptr);
  driver.refuse = true;
  checker.registerReachabilityUpdateCallback("reachability_updater_4", onResult);
  driver.refuse = false;
  checker.registerReachabilityUpdateCallback("reachability_updater_4", onResult);
  checker.registerReachabilityUpdateCallback("reachability_updater_4", onResult);
  driver.stateChange({"lamp-1", "Veyra.Brightness", "", "brightness", "40"});
  driver.stateChange({"lamp-1", "Veyra.EndpointHealth", "", "connectivity", "OK"});

  checker.unregisterReachabilityUpdateCallback("");
  checker.unregisterReachabilityUpdateCallback("reachability_updater_9");
  driver.refuse = true;
  checker.unregisterReachabilityUpdateCallback("reachability_updater_4");
  driver.refuse = false;
  checker.unregisterReachabilityUpdateCallback("reachability_updater_4");
}

ReachabilityCheckResult result(const std::string& endpointId, const std::string& entityId,
                               const std::string& adapter, bool reachable) {
  return {endpointId,
          entityId,
          adapter,
          reachable,
          reachable ? POWER : CapabilitySet(),
          reachable ? ApplianceDriverType::NATIVE : ApplianceDriverType::NO_DRIVER};
}

void writeUpdaterLines() {
  test::VirtualTime time;  // before the updaters, which run on it
  auto store = std::make_shared<CacheCore>(10);
  store->registerReachabilityListener("ui", [](auto&&...) {});
  {
    ReachabilityUpdater withoutProvider(store, nullptr, nullptr);
    withoutProvider.startPeriodicUpdates(seconds(60), milliseconds(0));
    time.runUntilIdle();
    withoutProvider.enableProactiveUpdates();  // no checker to subscribe with
  }

  auto checker = std::make_shared<test::FakeReachabilityChecker>();
  test::FakeChrProvider provider;
  ReachabilityUpdater updater(store, checker, &provider);
  updater.startPeriodicUpdates(seconds(60), milliseconds(0));
  time.runUntilIdle();  // the provider names nothing yet

  const EndpointInfo lamp("lamp-1", "lamp", ZIGBEE, POWER);
  provider.setEndpoints({lamp});
  checker->setRefuseChecks(true);
  time.advance(seconds(60));
  updater.triggerUpdate({});
  updater.triggerUpdate({lamp});
  time.runUntilIdle();
  checker->setRefuseChecks(false);

  ASSERT_TRUE(updater.enableProactiveUpdates());
  updater.enableProactiveUpdates();
  time.advance(seconds(60));
  // Every status of a result summary, with and without an adapter.
  ASSERT_TRUE(checker->completeNextCheck({
      result("lamp-1", "lamp", ZIGBEE, true),   // became reachable
      result("lamp-1", "lamp", ZIGBEE, true),   // reachable
      result("ghost", "", ZIGBEE, true),        // refused: no entity id
      result("plug-1", "plug", "", false),      // already unreachable
      result("lamp-9", "lamp", ZIGBEE, false),  // not stored: nothing to clear
      result("lamp-1", "lamp", ZIGBEE, false),  // became unreachable
  }));
  checker->deliverEvent(result("lamp-1", "", "", true));
  time.runUntilIdle();
  updater.disableProactiveUpdates();
  updater.stopPeriodicUpdates();
}

void writeFacadeLines() {
  ReachabilityCache cache(nullptr, {10, seconds(60), false, nullptr});
  cache.getPreferredEndpoint("nobody", ZIGBEE);
}

// The tracker writes only when a host callback throws.
void writeTrackerLines() {
  auto guard =
      std::make_shared<ReachabilityCheckerGuard>(std::make_shared<test::FakeReachabilityChecker>());
  ReachabilityCache cache(nullptr, {10, seconds(60), false, guard});
  EntityReachabilityTracker::Options options;
  options.onChange = [](const std::string& /*entityId*/, bool /*reachable*/) {
    throw std::runtime_error("thrown");
  };
  options.onStateChange = [](const TrackedEntityState& /*state*/) { throw 0; };
  EntityReachabilityTracker tracker(cache, guard, std::move(options));
  tracker.updateEndpoints(
      {CachedEndpoint("lamp-1", "lamp", ZIGBEE, ApplianceDriverType::NATIVE, POWER)});
  tracker.close();
  guard->close();
}

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
    writeStoreLines();
    writeCheckerLines();
    writeUpdaterLines();
    writeFacadeLines();
    writeTrackerLines();
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
