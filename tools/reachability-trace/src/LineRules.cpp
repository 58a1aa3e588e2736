#include "LineRules.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <string>

#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache::trace {
namespace {

using namespace logSchema;  // the names the lines are read with

struct LabelRule {
  const char* label;
  const char* tag;
  // Fields every line with the label has when its first field is `when`
  // (whatever its first field when null).
  const char* when;
  std::initializer_list<const char*> keys;
};

// Every label the library writes, with the component that writes it; the
// fields of those lines the trace reads that it needs whole.
const LabelRule RULES[] = {
    {label::REACHABILITY_CACHE,
     tag::FACADE,
     key::EVENT,
     {key::EVENT, key::MAX_CACHE_SIZE, key::PERIODIC_UPDATES}},
    {label::REACHABILITY_CACHE_DESTRUCTOR, tag::FACADE, key::EVENT, {key::EVENT, key::CACHE_SIZE}},
    {label::GET_PREFERRED_ENDPOINT, tag::FACADE, nullptr, {}},
    {label::CACHE_CORE, tag::STORE, nullptr, {key::MAX_SIZE}},
    {label::INSERT_ENDPOINT,
     tag::STORE,
     key::ACTION,
     {key::ACTION, key::ENTITY_ID, key::ENDPOINT_ID}},
    {label::INSERT_ENDPOINT, tag::STORE, nullptr, {}},
    {label::REMOVE_ENDPOINT,
     tag::STORE,
     key::ACTION,
     {key::ACTION, key::ENTITY_ID, key::ENDPOINT_ID}},
    {label::REMOVE_ENTITY, tag::STORE, nullptr, {key::ENTITY_ID}},
    {label::CLEAR, tag::STORE, key::ACTION, {key::ACTION, key::PREVIOUS_SIZE}},
    {label::CLEAR_ENDPOINT_CAPABILITIES,
     tag::STORE,
     key::ACTION,
     {key::ACTION, key::ENTITY_ID, key::ENDPOINT_ID}},
    {label::IS_ENTITY_PRESENT, tag::STORE, nullptr, {}},
    {label::IS_ENTITY_REACHABLE, tag::STORE, key::ENTITY_ID, {key::ENTITY_ID, key::REACHABLE}},
    {label::IS_CAPABILITY_REACHABLE, tag::STORE, nullptr, {}},
    {label::IS_CAPABILITY_REACHABLE_BY_DRIVER, tag::STORE, nullptr, {}},
    {label::GET_ENDPOINT_ID_FOR_ENTITY, tag::STORE, nullptr, {}},
    {label::GET_ENTITY_ID_FOR_ENDPOINT, tag::STORE, nullptr, {}},
    {label::REGISTER_REACHABILITY_LISTENER, tag::STORE, nullptr, {}},
    {label::UNREGISTER_REACHABILITY_LISTENER, tag::STORE, nullptr, {}},
    {label::NOTIFY_REACHABILITY_LISTENERS,
     tag::STORE,
     key::ACTION,
     {key::ACTION, key::ENDPOINT_ID, key::ENTITY_ID, key::IS_REACHABLE, key::LISTENER_COUNT}},
    {label::REACHABILITY_UPDATER, tag::UPDATER, nullptr, {}},
    {label::REACHABILITY_UPDATER_DESTRUCTOR, tag::UPDATER, nullptr, {}},
    {label::START_PERIODIC_UPDATES, tag::UPDATER, nullptr, {}},
    {label::STOP_PERIODIC_UPDATES, tag::UPDATER, nullptr, {}},
    {label::PERFORM_PERIODIC_UPDATE, tag::UPDATER, nullptr, {}},
    {label::MANUAL_TRIGGER, tag::UPDATER, nullptr, {}},
    {label::PROCESS_REACHABILITY_RESULTS,
     tag::UPDATER,
     key::REACHABLE,
     {key::REACHABLE, key::UNREACHABLE, key::CHANGED, key::DETAILS}},
    {label::ENABLE_PROACTIVE_UPDATES, tag::UPDATER, nullptr, {}},
    {label::DISABLE_PROACTIVE_UPDATES, tag::UPDATER, nullptr, {}},
    {label::APPLIANCE_DRIVER_REACHABILITY_CHECKER, tag::CHECKER, nullptr, {}},
    {label::CHECK_REACHABILITY, tag::CHECKER, nullptr, {}},
    {label::PROCESS_DISCOVERED_DEVICES,
     tag::CHECKER,
     key::REQUEST_ID,
     {key::REQUEST_ID, key::DEVICE_COUNT, key::RESULT_COUNT}},
    {label::UPDATE_RESULT_WITH_DISCOVERED_DEVICE, tag::CHECKER, nullptr, {}},
    {label::VALIDATE_CALLBACK_PARAMS, tag::CHECKER, nullptr, {}},
    {label::REGISTER_REACHABILITY_UPDATE_CALLBACK, tag::CHECKER, nullptr, {}},
    {label::UNREGISTER_REACHABILITY_UPDATE_CALLBACK, tag::CHECKER, nullptr, {}},
    {label::STATE_CHANGE_CALLBACK, tag::CHECKER, nullptr, {}},
    {label::DELIVER, tag::TRACKER, nullptr, {}},
};

const LabelRule* ruleOf(std::string_view label) {
  for (const LabelRule& rule : RULES) {
    if (rule.label == label) {
      return &rule;
    }
  }
  return nullptr;
}

}  // namespace

bool isLabelOfTag(std::string_view label, std::string_view tag) {
  const LabelRule* rule = ruleOf(label);
  return rule == nullptr || rule->tag == tag;
}

bool knowsLabel(std::string_view label, std::string_view tag) {
  const LabelRule* rule = ruleOf(label);
  return rule != nullptr && rule->tag == tag;
}

bool isWhole(const LibraryLine& line) {
  const std::string_view first = line.fields.empty() ? "" : line.fields.front().key;
  for (const LabelRule& rule : RULES) {
    if (rule.label != line.label || (rule.when != nullptr && rule.when != first)) {
      continue;
    }
    return std::all_of(rule.keys.begin(), rule.keys.end(),
                       [&line](const char* key) { return line.get(key).has_value(); });
  }
  return true;
}

bool isLibraryTag(std::string_view tag) {
  return std::find(std::begin(tag::ALL), std::end(tag::ALL), tag) != std::end(tag::ALL);
}

std::optional<std::string_view> cacheMetricName(std::string_view text) {
  static const std::string KEY = std::string(" ") + metric::DIMENSION_METRIC_NAME + "=";
  const std::size_t at = text.find(KEY);
  if (at == std::string_view::npos) {
    return std::nullopt;
  }
  std::string_view name = text.substr(at + KEY.size());
  name = name.substr(0, name.find(' '));
  if (std::find(std::begin(metric::ALL), std::end(metric::ALL), name) == std::end(metric::ALL)) {
    return std::nullopt;
  }
  return name;
}

}  // namespace veranda::reachabilityCache::trace
