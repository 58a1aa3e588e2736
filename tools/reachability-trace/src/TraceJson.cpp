// The JSON document for scripts.
#include <nlohmann/json.hpp>

#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace {
namespace {

using nlohmann::json;

json time(const Trace& trace, Micros at) {
  return at == NO_TIME ? json(nullptr) : json(trace.clock.format(at));
}

template <typename T>
json optional(const std::optional<T>& value) {
  return value ? json(*value) : json(nullptr);
}

json checkJson(const Trace& trace, const CheckRecord& check) {
  json result = {{"requestId", check.requestId.empty() ? json(nullptr) : json(check.requestId)},
                 {"start", time(trace, check.start)},
                 {"endpointCount", optional(check.endpointCount)},
                 {"started", check.started},
                 {"answered", check.answered},
                 {"answerMs", nullptr},
                 {"reachable", nullptr},
                 {"unreachable", nullptr},
                 {"changed", nullptr}};
  if (check.answered && check.answeredAt != NO_TIME && check.start != NO_TIME) {
    result["answerMs"] = static_cast<double>(check.answeredAt - check.start) / 1000;
  }
  if (check.summarised) {
    result["reachable"] = check.reachable;
    result["unreachable"] = check.unreachable;
    result["changed"] = check.changed;
  }
  if (check.providerEmpty) {
    result["providerEmpty"] = true;
  }
  return result;
}

json entityJson(const Trace& trace, const EntityRecord& entity, Micros cacheEnd) {
  json changes = json::array();
  for (const ChangeRecord& change : entity.changes) {
    json item = {{"time", time(trace, change.at)},
                 {"endpointId", change.endpointId},
                 {"reachable", change.reachable}};
    if (!change.adapterName.empty()) {
      item["adapter"] = change.adapterName;
    }
    changes.push_back(std::move(item));
  }
  json answers = json::array();
  for (const AnswerRecord& answer : entity.answers) {
    answers.push_back(
        {{"time", time(trace, answer.at)}, {"answer", tools::answerName(answer.answer)}});
  }
  const EntityFigures figures = entityFigures(entity, cacheEnd);
  return {{"changes", std::move(changes)},
          {"flaps", figures.flaps},
          {"lastReachable", figures.last == Answer::REACHABLE     ? json(true)
                            : figures.last == Answer::UNREACHABLE ? json(false)
                                                                  : json(nullptr)},
          {"lastAnswer", tools::answerName(figures.last)},
          {"answers", std::move(answers)},
          {"unreachableSeconds", trace.hasTime ? json(figures.unreachableSeconds) : json(nullptr)},
          {"endpoints", entity.endpoints},
          {"adapters", entity.adapters}};
}

json statisticsJson(const CacheRecord& cache) {
  const std::vector<double> gaps = cycleGapsSeconds(cache);
  const std::vector<double> latencies = answerLatenciesMs(cache);
  std::size_t unanswered = 0;
  for (const CheckRecord& check : cache.cycles) {
    unanswered += check.started && !check.answered ? 1 : 0;
  }
  json result = {
      {"cycles", cache.cycles.size()},
      {"observedIntervalSeconds", gaps.empty() ? json(nullptr) : json(percentile(gaps, 0.5))},
      {"answerMs", nullptr},
      {"unanswered", unanswered}};
  if (!latencies.empty()) {
    result["answerMs"] = {{"median", percentile(latencies, 0.5)},
                          {"p99", percentile(latencies, 0.99)},
                          {"max", latencies.back()}};
  }
  return result;
}

json cacheJson(const Trace& trace, const CacheRecord& cache) {
  json cycles = json::array();
  for (const CheckRecord& check : cache.cycles) {
    cycles.push_back(checkJson(trace, check));
  }
  json manual = json::array();
  for (const CheckRecord& check : cache.manualChecks) {
    manual.push_back(checkJson(trace, check));
  }
  json entities = json::object();
  for (const EntityRecord& entity : cache.entities) {
    entities[entity.id] = entityJson(trace, entity, cache.endTime());
  }
  json problems = json::array();
  for (const auto& [kind, problem] : cache.problems) {
    problems.push_back(
        {{"kind", kind}, {"count", problem.count}, {"first", time(trace, problem.first)}});
  }
  return {{"pid", optional(cache.pid)},
          {"maxCacheSize", optional(cache.maxCacheSize)},
          {"storeCapacity", optional(cache.storeCapacity)},
          {"periodicUpdates", optional(cache.periodicUpdates)},
          {"intervalSeconds", optional(cache.intervalSeconds)},
          {"initialDelayMs", optional(cache.initialDelayMs)},
          {"created", cache.creationSeen ? time(trace, cache.created) : json(nullptr)},
          {"destroyed", cache.destructionSeen ? time(trace, cache.destroyed) : json(nullptr)},
          {"cycles", std::move(cycles)},
          {"manualChecks", std::move(manual)},
          {"cycleStatistics", statisticsJson(cache)},
          {"proactive",
           {{"callbackId", optional(cache.callbackId)},
            {"eventsReceived", cache.eventsReceived},
            {"eventsApplied", cache.eventsApplied}}},
          {"changes", cache.changes},
          {"unseenChanges", cache.unseenChanges()},
          {"entities", std::move(entities)},
          {"problems", std::move(problems)},
          {"metrics", cache.metrics}};
}

}  // namespace

std::string traceJson(const Trace& trace) {
  json caches = json::array();
  for (const CacheRecord& cache : trace.caches) {
    caches.push_back(cacheJson(trace, cache));
  }
  json document = {{"caches", std::move(caches)},
                   {"messages", trace.messages},
                   {"damagedLines", trace.damagedLines},
                   {"bytes", trace.bytes},
                   {"bugReport", trace.bugReport}};
  if (trace.window.limits()) {
    document["window"] = {{"from", time(trace, trace.window.from)},
                          {"to", time(trace, trace.window.to)}};
  }
  // Text from the capture need not be valid UTF-8: replace what is not.
  return document.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace veranda::reachabilityCache::trace
