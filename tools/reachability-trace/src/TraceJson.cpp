// The JSON document for scripts, written as it goes: however big the trace,
// the document is never held whole in memory.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "SafeText.h"
#include "Saturating.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace {
namespace {

// Writes one JSON document: values, objects and arrays in order, commas
// and quotes where they belong.
class JsonWriter {
 public:
  explicit JsonWriter(std::ostream& out) : out_(out) {}

  void beginObject() { open('{'); }
  void endObject() { close('}'); }
  void beginArray() { open('['); }
  void endArray() { close(']'); }

  // The key of the next value in an object.
  JsonWriter& key(std::string_view name) {
    separate();
    out_ << tools::jsonQuoted(name) << ':';
    keyed_ = true;
    return *this;
  }

  void null() { raw("null"); }
  void value(bool flag) { raw(flag ? "true" : "false"); }
  void value(std::string_view text) { raw(tools::jsonQuoted(text)); }
  void value(const char* text) { value(std::string_view(text)); }
  void value(uint64_t number) { raw(std::to_string(number)); }
  void value(int64_t number) { raw(std::to_string(number)); }
  void value(double number) {
    char text[32];
    const auto result = std::to_chars(text, text + sizeof(text), number);
    raw(std::string_view(text, static_cast<std::size_t>(result.ptr - text)));
  }
  template <typename T>
  void value(const std::optional<T>& maybe) {
    if (maybe) {
      value(*maybe);
    } else {
      null();
    }
  }

  // key(name) then value(v).
  template <typename T>
  void field(std::string_view name, const T& v) {
    key(name);
    value(v);
  }

 private:
  void separate() {
    if (keyed_) {
      keyed_ = false;
      return;
    }
    if (!first_.empty() && !first_.back()) {
      out_ << ',';
    }
    if (!first_.empty()) {
      first_.back() = false;
    }
  }
  void raw(std::string_view text) {
    separate();
    out_ << text;
  }
  void open(char bracket) {
    separate();
    out_ << bracket;
    first_.push_back(true);
  }
  void close(char bracket) {
    first_.pop_back();
    out_ << bracket;
  }

  std::ostream& out_;
  std::vector<bool> first_;  // per open object or array: nothing written in it yet
  bool keyed_ = false;       // a key waits for its value
};

void time(JsonWriter& out, const Trace& trace, std::string_view name, Micros at) {
  out.key(name);
  if (at == NO_TIME) {
    out.null();
  } else {
    out.value(trace.clock.format(at));
  }
}

void checkJson(JsonWriter& out, const Trace& trace, const CheckRecord& check) {
  out.beginObject();
  out.key("requestId");
  if (check.requestId.empty()) {
    out.null();
  } else {
    out.value(check.requestId);
  }
  time(out, trace, "start", check.start);
  out.field("endpointCount", check.endpointCount);
  out.field("started", check.started);
  out.field("answered", check.answered);
  out.key("answerMs");
  if (check.answered && check.answeredAt != NO_TIME && check.start != NO_TIME) {
    out.value(static_cast<double>(saturatingSub(check.answeredAt, check.start)) / 1000);
  } else {
    out.null();
  }
  for (const auto& [name, count] : {std::pair<const char*, uint64_t>{"reachable", check.reachable},
                                    {"unreachable", check.unreachable},
                                    {"changed", check.changed}}) {
    out.key(name);
    if (check.summarised) {
      out.value(count);
    } else {
      out.null();
    }
  }
  if (check.providerEmpty) {
    out.field("providerEmpty", true);
  }
  out.endObject();
}

void answerFields(JsonWriter& out, const AnswerRecord& answer) {
  out.field("answer", tools::answerName(answer.answer));
  if (answer.inferred) {
    out.field("inferred", true);
  }
  if (answer.reason != UnknownReason::NONE) {
    out.field("unknownBecause", unknownReasonName(answer.reason));
  }
}

void names(JsonWriter& out, std::string_view key, std::vector<std::string> list) {
  std::sort(list.begin(), list.end());
  out.key(key);
  out.beginArray();
  for (const std::string& name : list) {
    out.value(name);
  }
  out.endArray();
}

void entityJson(JsonWriter& out, const Trace& trace, const EntityRecord& entity, Micros cacheEnd,
                const AnswerRecord& before) {
  out.beginObject();
  out.key("changes");
  out.beginArray();
  for (const ChangeRecord& change : entity.changes) {
    out.beginObject();
    time(out, trace, "time", change.at);
    out.field("endpointId", entity.endpointOf(change));
    out.field("reachable", change.reachable);
    if (!entity.adapterOf(change).empty()) {
      out.field("adapter", entity.adapterOf(change));
    }
    out.endObject();
  }
  out.endArray();
  if (entity.changesLeftOut > 0) {
    out.field("changesLeftOut", entity.changesLeftOut);
  }
  const EntityFigures figures = entityFigures(entity, cacheEnd, before);
  out.field("changeCount", static_cast<uint64_t>(figures.changes));
  out.field("flaps", static_cast<uint64_t>(figures.flaps));
  out.key("lastReachable");
  if (figures.last.answer == Answer::REACHABLE || figures.last.answer == Answer::UNREACHABLE) {
    out.value(figures.last.answer == Answer::REACHABLE);
  } else {
    out.null();
  }
  out.field("lastAnswer", tools::answerName(figures.last.answer));
  if (figures.last.inferred) {
    out.field("lastInferred", true);
  }
  if (figures.last.reason != UnknownReason::NONE) {
    out.field("lastUnknownBecause", unknownReasonName(figures.last.reason));
  }
  out.key("answers");
  out.beginArray();
  for (std::size_t i = 0; i < entity.answers.size(); ++i) {
    if (i == entity.answersGap && entity.answersLeftOut > 0) {
      out.beginObject();
      time(out, trace, "time", entity.answersLeftOutFrom);
      out.field("answersLeftOut", entity.answersLeftOut);
      out.endObject();
    }
    out.beginObject();
    time(out, trace, "time", entity.answers[i].at);
    answerFields(out, entity.answers[i]);
    out.endObject();
  }
  out.endArray();
  out.key("unreachableSeconds");
  if (trace.hasTime) {
    out.value(figures.unreachableSeconds);
  } else {
    out.null();
  }
  out.key("unknownSeconds");
  if (trace.hasTime) {
    out.value(figures.unknownSeconds);
  } else {
    out.null();
  }
  names(out, "endpoints", entity.endpoints);
  names(out, "adapters", entity.adapters);
  out.endObject();
}

void statisticsJson(JsonWriter& out, const CacheRecord& cache) {
  const std::vector<double> gaps = cycleGapsSeconds(cache);
  const std::vector<double> latencies = answerLatenciesMs(cache);
  uint64_t unanswered = 0;
  for (const CheckRecord& check : cache.cycles) {
    unanswered += check.started && !check.answered ? 1 : 0;
  }
  out.beginObject();
  out.field("cycles", static_cast<uint64_t>(cache.cycles.size()) + cache.cyclesLeftOut);
  out.key("observedIntervalSeconds");
  if (gaps.empty()) {
    out.null();
  } else {
    out.value(percentile(gaps, 0.5));
  }
  out.key("answerMs");
  if (latencies.empty()) {
    out.null();
  } else {
    out.beginObject();
    out.field("median", percentile(latencies, 0.5));
    out.field("p99", percentile(latencies, 0.99));
    out.field("max", latencies.back());
    out.endObject();
  }
  out.field("unanswered", unanswered);
  out.endObject();
}

void checksJson(JsonWriter& out, const Trace& trace, std::string_view key,
                const std::vector<CheckRecord>& checks) {
  out.key(key);
  out.beginArray();
  for (const CheckRecord& check : checks) {
    checkJson(out, trace, check);
  }
  out.endArray();
}

void lifeJson(JsonWriter& out, const Trace& trace, const CacheRecord& cache) {
  out.field("pid", cache.pid);
  if (!cache.section.empty()) {
    out.field("section", cache.section);
    out.field("previousBoot", cache.previousBoot);
  }
  out.field("maxCacheSize", cache.maxCacheSize);
  out.field("storeCapacity", cache.storeCapacity);
  out.field("periodicUpdates", cache.periodicUpdates);
  out.field("intervalSeconds", cache.intervalSeconds);
  out.field("initialDelayMs", cache.initialDelayMs);
  time(out, trace, "created", cache.creationSeen ? cache.created : NO_TIME);
  time(out, trace, "destroyed", cache.destructionSeen ? cache.destroyed : NO_TIME);
  time(out, trace, "firstLine", cache.firstSeen);
  time(out, trace, "lastLine", cache.lastSeen);
  if (cache.replacedBy) {
    out.field("replacedBy", cache.replacedBy);
  }
}

void lossesJson(JsonWriter& out, const Trace& trace, const CacheRecord& cache) {
  out.key("rateLimiter");
  out.beginObject();
  out.field("notices", cache.rateLimitNotices);
  out.field("expiredLines", cache.expiredLines);
  out.field("identicalLines", cache.identicalLines);
  time(out, trace, "first", cache.firstRateLimit);
  out.endObject();
  out.field("ambiguousLines", cache.ambiguousLines);
  out.key("ambiguous");
  out.beginArray();
  for (const AmbiguousLine& line : cache.ambiguous) {
    out.beginObject();
    time(out, trace, "time", line.at);
    out.field("why", line.why);
    out.field("line", line.line);
    out.endObject();
  }
  out.endArray();
}

void cacheJson(JsonWriter& out, const Trace& trace, const CacheRecord& cache) {
  out.beginObject();
  lifeJson(out, trace, cache);
  checksJson(out, trace, "cycles", cache.cycles);
  checksJson(out, trace, "manualChecks", cache.manualChecks);
  if (cache.cyclesLeftOut + cache.manualChecksLeftOut > 0) {
    out.field("cyclesLeftOut", cache.cyclesLeftOut);
    out.field("manualChecksLeftOut", cache.manualChecksLeftOut);
  }
  out.key("cycleStatistics");
  statisticsJson(out, cache);
  out.key("proactive");
  out.beginObject();
  out.field("callbackId", cache.callbackId);
  out.field("eventsReceived", cache.eventsReceived);
  out.field("eventsApplied", cache.eventsApplied);
  out.endObject();
  out.field("changes", cache.changes);
  out.field("unseenChanges", cache.unseenChanges());
  out.key("entities");
  out.beginObject();
  for (const EntityRecord& entity : cache.entities) {
    out.key(entity.id);
    entityJson(out, trace, entity, cache.endTime(), answerBefore(cache));
  }
  out.endObject();
  out.key("problems");
  out.beginArray();
  for (const auto& [kind, problem] : cache.problems) {
    out.beginObject();
    out.field("kind", kind);
    out.field("count", problem.count);
    time(out, trace, "first", problem.first);
    out.endObject();
  }
  out.endArray();
  out.key("metrics");
  out.beginObject();
  for (const auto& [name, count] : cache.metrics) {
    out.field(name, count);
  }
  out.endObject();
  lossesJson(out, trace, cache);
  out.endObject();
}

void captureJson(JsonWriter& out, const Trace& trace) {
  out.field("messages", trace.messages);
  out.field("damagedLines", trace.damagedLines);
  if (trace.damagedLines > 0) {
    out.field("firstDamagedLine", trace.firstDamaged);
  }
  out.field("bytes", trace.bytes);
  out.field("nulBytes", trace.nulBytes);
  out.field("overLongLines", trace.overLongLines);
  out.field("bugReport", trace.bugReport);
  out.field("encoding", trace.encoding);
  if (!trace.archive.empty()) {
    out.field("archive", trace.archive);
    out.field("archiveEntry", trace.entry);
  }
  out.key("clockSteps");
  out.beginArray();
  for (const ClockStep& step : trace.clock.steps()) {
    out.beginObject();
    time(out, trace, "at", step.at);
    out.field("backSeconds", static_cast<double>(step.back) / 1e6);
    out.endObject();
  }
  out.endArray();
  if (trace.window.limits()) {
    out.key("window");
    out.beginObject();
    time(out, trace, "from", trace.window.from);
    time(out, trace, "to", trace.window.to);
    out.endObject();
  }
  const LeftOut& left = trace.leftOut;
  out.key("leftOut");
  out.beginObject();
  out.field("processLines", left.processLines);
  out.field("entityLines", left.entityLines);
  out.field("endpointLines", left.endpointLines);
  out.field("checks", left.checks);
  out.field("pendingChecks", left.pendingChecks);
  out.field("answers", left.answers);
  out.field("changes", left.changes);
  out.field("storyChanges", left.storyChanges);
  out.endObject();
}

}  // namespace

void writeTraceJson(const Trace& trace, std::ostream& stream) {
  JsonWriter out(stream);
  out.beginObject();
  out.key("caches");
  out.beginArray();
  for (const CacheRecord& cache : trace.caches) {
    cacheJson(out, trace, cache);
  }
  out.endArray();
  captureJson(out, trace);
  out.endObject();
  stream << '\n';
}

std::string traceJson(const Trace& trace) {
  std::ostringstream out;
  writeTraceJson(trace, out);
  return out.str();
}

}  // namespace veranda::reachabilityCache::trace
