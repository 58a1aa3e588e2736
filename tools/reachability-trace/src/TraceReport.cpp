// The report for a person and an entity's story.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <set>

#include "CaptureReader.h"
#include "SafeText.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace {
namespace {

using tools::terminalPadded;
using tools::terminalText;

constexpr std::size_t LISTED_ENTITIES = 25;

const std::map<std::string, const char*>& problemTexts() {
  static const std::map<std::string, const char*> TEXTS = {
      {CACHE_FULL, "the store was full and refused a new entity"},
      {INSERT_FAILED, "a record was refused (empty entity or endpoint id)"},
      {CHECK_START_FAILED, "a reachability check could not be started"},
      {SUBSCRIPTION_FAILED, "the proactive subscription was refused"},
      {PROVIDER_NULL, "no provider: periodic refresh stopped for good"},
      {PROVIDER_EMPTY, "the provider named no endpoint"},
      {DUPLICATE_CHAIN, "a second periodic chain: cycles twice per interval"},
      {UNKNOWN_ENDPOINT, "an event for an endpoint the cache did not know"},
      {INTERVAL_DRIFT, "a gap between cycles strayed from the interval"},
      {SUMMARY_CUT, "a result summary was cut by the platform (details lost)"},
  };
  return TEXTS;
}

}  // namespace

const char* problemText(const std::string& kind) {
  const auto text = problemTexts().find(kind);
  return text == problemTexts().end() ? "" : text->second;
}

namespace {

std::string when(const Trace& trace, Micros at) {
  return at == NO_TIME ? std::string(trace.hasTime ? "unknown time" : "no time in the capture")
                       : trace.clock.format(at);
}

std::string decimal(double value, const char* unit) {
  char text[48];
  std::snprintf(text, sizeof(text), value < 10 ? "%.2f %s" : "%.1f %s", value, unit);
  return text;
}

// What the words in brackets after an answer mean.
void printAnswerNotes(const std::set<UnknownReason>& reasons, bool inferred, std::ostream& out) {
  for (UnknownReason reason : reasons) {
    // What the limits left out is told of once, for the whole capture.
    if (reason != UnknownReason::NONE && reason != UnknownReason::LEFT_OUT) {
      out << "  unknown (" << unknownReasonWords(reason) << "): " << unknownReasonMeaning(reason)
          << '\n';
    }
  }
  if (inferred) {
    out << "  inferred: a check's or the host's record is taken to make its endpoint reachable "
           "(the log names no driver type)\n";
  }
}

// How the cache's life ends in the capture.
std::string endOf(const Trace& trace, const CacheRecord& cache) {
  if (cache.destructionSeen) {
    return "destroyed " + when(trace, cache.destroyed);
  }
  if (cache.replacedBy) {
    return "ended after its last line at " + when(trace, cache.lastSeen) +
           ": a new cache started later in pid " + std::to_string(*cache.replacedBy) +
           ", its process was most likely replaced";
  }
  return "still running at " + when(trace, cache.lastSeen);
}

void printHeading(const Trace& trace, const CacheRecord& cache, std::size_t number,
                  std::ostream& out) {
  out << 'C' << cacheName(cache, number - 1).substr(1) << ": "
      << (cache.creationSeen ? "created " + when(trace, cache.created)
                             : "already running at " + when(trace, cache.firstSeen));
  out << ", " << endOf(trace, cache) << '\n';
  out << "  capacity ";
  out << (cache.maxCacheSize ? std::to_string(*cache.maxCacheSize) : std::string("unknown"));
  if (cache.storeCapacity && cache.storeCapacity != cache.maxCacheSize) {
    out << " (the store holds " << *cache.storeCapacity << ")";
  }
  if (cache.periodicUpdates == false) {
    out << "; periodic refresh off";
  } else if (cache.intervalSeconds) {
    out << "; periodic refresh every " << *cache.intervalSeconds << " s, the first after "
        << cache.initialDelayMs.value_or(0) << " ms";
  }
  out << '\n';
  out << "  proactive updates: "
      << (cache.callbackId ? "subscribed as " + terminalText(*cache.callbackId)
                           : std::string("no subscription seen"))
      << "; " << cache.eventsReceived << " connectivity events passed on, " << cache.eventsApplied
      << " applied\n";
  out << "  " << cache.entities.size() << " entities, " << cache.changes
      << " changes told to listeners";
  if (cache.unseenChanges() > 0) {
    out << " (" << cache.unseenChanges() << " of them lost from the capture)";
  }
  out << ", " << cache.cycles.size() << " periodic cycles, " << cache.manualChecks.size()
      << " manual checks\n";
}

// What the capture lost of the cache's lines, and lines it cannot take at
// their word.
void printLosses(const Trace& trace, const CacheRecord& cache, std::ostream& out) {
  if (cache.rateLimitNotices > 0) {
    out << "  The platform's rate limiter dropped lines of its process: " << cache.rateLimitNotices
        << " notices (" << cache.expiredLines << " lines expired, " << cache.identicalLines
        << " identical lines), the first at " << when(trace, cache.firstRateLimit)
        << "; answers are unknown after each until a line tells\n";
  }
  if (cache.ambiguousLines > 0) {
    out << "  " << cache.ambiguousLines
        << " ambiguous lines, not taken at their word (an id holding a line feed or \" "
           "key=value\" could have written them):\n";
    for (const AmbiguousLine& line : cache.ambiguous) {
      out << "    " << when(trace, line.at) << ": " << terminalText(line.why) << ": "
          << terminalText(tools::shortened(line.line, 100)) << '\n';
    }
  }
}

void printProblems(const Trace& trace, const CacheRecord& cache, std::ostream& out) {
  if (cache.problems.empty()) {
    out << "  No problems.\n";
    return;
  }
  out << "  Problems:\n";
  for (const auto& [kind, problem] : cache.problems) {
    out << "    " << terminalPadded(kind, 24) << ' ' << std::to_string(problem.count)
        << " x, first " << when(trace, problem.first) << ": " << problemText(kind) << '\n';
  }
}

void printEntities(const CacheRecord& cache, std::ostream& out) {
  if (cache.entities.empty()) {
    return;
  }
  struct Row {
    const EntityRecord* entity;
    EntityFigures figures;
  };
  std::vector<Row> rows;
  std::size_t width = 6;
  bool unknown = false;
  for (const EntityRecord& entity : cache.entities) {
    rows.push_back({&entity, entityFigures(entity, cache.endTime(), answerBefore(cache))});
    width = std::max(width, std::min<std::size_t>(tools::terminalWidth(entity.id), 40));
    unknown = unknown || rows.back().figures.unknownSeconds > 0 ||
              rows.back().figures.last.answer == Answer::UNKNOWN;
  }
  // The most troubled first: flaps, then time unreachable, then changes.
  std::stable_sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
    if (a.figures.flaps != b.figures.flaps) {
      return a.figures.flaps > b.figures.flaps;
    }
    if (a.figures.unreachableSeconds != b.figures.unreachableSeconds) {
      return a.figures.unreachableSeconds > b.figures.unreachableSeconds;
    }
    return a.figures.changes > b.figures.changes;
  });
  // The unknown time only where the capture leaves answers unknown.
  out << "  " << terminalPadded("entity", width) << "  changes  flaps  unreachable"
      << (unknown ? "    unknown" : "") << "  answers at the end\n";
  std::set<UnknownReason> reasons;
  bool inferred = false;
  for (std::size_t i = 0; i < rows.size() && i < LISTED_ENTITIES; ++i) {
    const EntityFigures& figures = rows[i].figures;
    char numbers[64];
    std::snprintf(numbers, sizeof(numbers), "%7zu  %5zu  %11s", figures.changes, figures.flaps,
                  decimal(figures.unreachableSeconds, "s").c_str());
    std::string unknownTime;
    if (unknown) {
      char text[32];
      std::snprintf(text, sizeof(text), "  %9s", decimal(figures.unknownSeconds, "s").c_str());
      unknownTime = text;
    }
    out << "  " << terminalPadded(tools::shortened(rows[i].entity->id, 40), width) << "  "
        << numbers << unknownTime << "  " << answerText(figures.last) << '\n';
    reasons.insert(figures.last.reason);
    inferred = inferred || figures.last.inferred;
  }
  if (rows.size() > LISTED_ENTITIES) {
    out << "  ... and " << rows.size() - LISTED_ENTITIES
        << " more (--json lists them all, --entity ID tells one's story)\n";
  }
  printAnswerNotes(reasons, inferred, out);
}

void printCycles(const Trace& trace, const CacheRecord& cache, std::ostream& out) {
  std::size_t unanswered = 0;
  std::size_t notStarted = 0;
  for (const CheckRecord& check : cache.cycles) {
    unanswered += check.started && !check.answered ? 1 : 0;
    notStarted += check.startFailed ? 1 : 0;
  }
  out << "  Cycles: " << cache.cycles.size() << " periodic";
  const std::vector<double> gaps = cycleGapsSeconds(cache);
  if (!gaps.empty()) {
    out << ", observed every " << decimal(percentile(gaps, 0.5), "s");
    if (cache.intervalSeconds) {
      out << " (configured " << *cache.intervalSeconds << " s)";
    }
  }
  out << "; " << notStarted << " not started, " << unanswered << " never answered\n";
  const std::vector<double> latencies = answerLatenciesMs(cache);
  if (!latencies.empty()) {
    out << "  Answer latency: median " << decimal(percentile(latencies, 0.5), "ms") << ", p99 "
        << decimal(percentile(latencies, 0.99), "ms") << ", max " << decimal(latencies.back(), "ms")
        << " over " << latencies.size() << " checks"
        << (trace.clock.resolution() >= 1000000 ? " (the timestamps have whole seconds only)" : "")
        << '\n';
  }
}

// What the trace's limits left out, to keep its memory bounded.
void printLeftOut(const Trace& trace, std::ostream& out) {
  const LeftOut& left = trace.leftOut;
  const TraceLimits& limits = trace.limits;
  const std::pair<uint64_t, std::string> items[] = {
      {left.processLines, "lines of processes past the first " + std::to_string(limits.caches)},
      {left.entityLines, "lines about entities past the first " + std::to_string(limits.entities)},
      {left.endpointLines,
       "lines about endpoints past an entity's first " + std::to_string(limits.endpointsPerEntity)},
      {left.checks, "checks past the first " + std::to_string(limits.checks) + " (counted)"},
      {left.pendingChecks, "checks forgotten while " + std::to_string(limits.pendingChecks) +
                               " newer ones awaited their answer"},
      {left.answers, "answers past the first " + std::to_string(limits.answers) +
                         " kept for --json and the picture (the figures count them)"},
      {left.changes, "changes past the first " + std::to_string(limits.changes) +
                         " kept for --json and the picture (the figures count them)"},
      {left.storyChanges,
       "changes of the story past its first " + std::to_string(limits.storyChanges)},
  };
  bool first = true;
  for (const auto& [count, what] : items) {
    if (count > 0) {
      out << (first ? "Past the trace's limits, left out: " : ", ") << count << ' ' << what;
      first = false;
    }
  }
  if (!first) {
    out << ".\n";
  }
}

// What was read, and what of it was skipped.
void printCapture(const Trace& trace, std::ostream& out) {
  out << trace.caches.size() << (trace.caches.size() == 1 ? " cache" : " caches") << " in "
      << trace.messages << " library lines";
  if (trace.bugReport) {
    out << " (the log sections of a bug report)";
  }
  if (!trace.archive.empty()) {
    out << ", read from the " << trace.archive
        << (trace.entry.empty() ? "" : " entry " + terminalText(trace.entry));
  }
  if (trace.encoding != "UTF-8") {
    out << ", " << trace.encoding;
  }
  std::vector<std::string> skipped;
  if (trace.damagedLines > 0) {
    skipped.push_back(std::to_string(trace.damagedLines) + " damaged lines");
  }
  if (trace.overLongLines > 0) {
    skipped.push_back(std::to_string(trace.overLongLines) + " lines longer than " +
                      std::to_string(MAX_LINE_BYTES >> 10) + " KiB");
  }
  if (trace.nulBytes > 0) {
    skipped.push_back(std::to_string(trace.nulBytes) + " NUL bytes");
  }
  for (std::size_t i = 0; i < skipped.size(); ++i) {
    out << (i == 0 ? "; skipped " : i + 1 == skipped.size() ? " and " : ", ") << skipped[i];
  }
  out << ".\n";
  printLeftOut(trace, out);
  const std::vector<ClockStep>& steps = trace.clock.steps();
  if (!steps.empty()) {
    Micros largest = 0;
    for (const ClockStep& step : steps) {
      largest = std::max(largest, step.back);
    }
    out << "The device's clock went back " << steps.size()
        << (steps.size() == 1 ? " time" : " times") << ", by up to "
        << CaptureClock::formatDuration(largest) << ", first at " << when(trace, steps.front().at)
        << ": times are shown as the device wrote them, durations follow the lines' order.\n";
  }
  if (trace.window.limits()) {
    out << "All that follows is of " << windowText(trace) << ".\n";
  }
}

}  // namespace

std::string answerText(const AnswerRecord& answer) {
  std::string text = tools::answerWords(answer.answer);
  if (answer.answer == Answer::UNKNOWN && answer.reason != UnknownReason::NONE) {
    text += std::string(" (") + unknownReasonWords(answer.reason) + ")";
  }
  return answer.inferred ? text + " (inferred)" : text;
}

const char* unknownReasonMeaning(UnknownReason reason) {
  switch (reason) {
    case UnknownReason::CAPTURE_START:
      return "the capture starts after the cache: no line has told it yet";
    case UnknownReason::SUMMARY_CUT:
      return "the platform cut a result summary that held its entry";
    case UnknownReason::LINES_DROPPED:
      return "the platform's rate limiter dropped lines of the cache";
    case UnknownReason::CONTRADICTED:
      return "a later line contradicts the earlier ones, so lines are missing";
    case UnknownReason::AMBIGUOUS:
      return "a line about it can be read two ways";
    case UnknownReason::LEFT_OUT:
      return "a line about it was past the trace's limits";
    case UnknownReason::NONE:
      break;
  }
  return "";
}

std::string cacheName(const CacheRecord& cache, std::size_t index) {
  std::string name = "cache " + std::to_string(index + 1);
  if (cache.pid || !cache.section.empty()) {
    name += " (" + (cache.pid ? "pid " + std::to_string(*cache.pid) : std::string("no pid"));
    if (!cache.section.empty()) {
      name += ", " + terminalText(cache.section) + (cache.previousBoot ? ": the boot before" : "");
    }
    name += ")";
  }
  return name;
}

std::size_t defaultCache(const Trace& trace) {
  for (std::size_t i = trace.caches.size(); i > 0; --i) {
    if (!trace.caches[i - 1].previousBoot) {
      return i - 1;
    }
  }
  return trace.caches.size() - 1;
}

void printReport(const Trace& trace, std::ostream& out) {
  printCapture(trace, out);
  for (std::size_t i = 0; i < trace.caches.size(); ++i) {
    const CacheRecord& cache = trace.caches[i];
    out << '\n';
    printHeading(trace, cache, i + 1, out);
    printLosses(trace, cache, out);
    printProblems(trace, cache, out);
    printEntities(cache, out);
    printCycles(trace, cache, out);
  }
}

std::string windowText(const Trace& trace) {
  const TraceWindow& window = trace.window;
  if (!window.limits()) {
    return "";
  }
  return "the window from " +
         (window.from == NO_TIME ? std::string("the capture's start") : when(trace, window.from)) +
         " to " + (window.to == NO_TIME ? std::string("its end") : when(trace, window.to));
}

void printEvidence(const EvidenceLine& line, std::ostream& out) {
  out << "    line " << line.number << ": " << terminalText(*line.text) << '\n';
}

namespace {

// The changes told to listeners, each with its lines, and between them what
// isEntityReachable answered, in capture order.
void printStory(const Trace& trace, const EntityRecord& entity, std::ostream& out) {
  std::set<UnknownReason> reasons;
  bool inferred = false;
  auto answer = entity.answers.begin();
  const auto printAnswersUntil = [&](uint64_t message) {
    for (; answer != entity.answers.end() && answer->message <= message; ++answer) {
      out << when(trace, answer->at) << "  isEntityReachable answers " << answerText(*answer)
          << '\n';
      reasons.insert(answer->reason);
      inferred = inferred || answer->inferred;
    }
  };
  for (std::size_t i = 0; i < entity.changes.size(); ++i) {
    const ChangeRecord& change = entity.changes[i];
    printAnswersUntil(change.message - 1);
    out << "\n"
        << when(trace, change.at) << "  " << terminalText(entity.endpointOf(change)) << " -> "
        << (change.reachable ? "reachable" : "unreachable");
    if (!entity.adapterOf(change).empty()) {
      out << " (" << terminalText(entity.adapterOf(change)) << ")";
    }
    out << '\n';
    if (i < entity.evidence.size()) {
      for (const EvidenceLine& line : entity.evidence[i]) {
        printEvidence(line, out);
      }
    }
    printAnswersUntil(change.message);
  }
  printAnswersUntil(UINT64_MAX);
  if (entity.changesLeftOut > 0) {
    out << "\n... and " << entity.changesLeftOut
        << " more changes, past the limit of those the story keeps\n";
  }
  reasons.erase(UnknownReason::NONE);
  if (!reasons.empty() || inferred) {
    out << '\n';
    printAnswerNotes(reasons, inferred, out);
  }
}

}  // namespace

bool printEntityStory(const Trace& trace, const std::string& entityId, std::ostream& out) {
  bool found = false;
  if (trace.window.limits()) {
    out << "In " << windowText(trace) << ":\n";
  }
  for (std::size_t i = 0; i < trace.caches.size(); ++i) {
    const CacheRecord& cache = trace.caches[i];
    const auto index = cache.entityIndex.find(entityId);
    if (index == cache.entityIndex.end()) {
      continue;
    }
    found = true;
    const EntityRecord& entity = cache.entities[index->second];
    const EntityFigures figures = entityFigures(entity, cache.endTime(), answerBefore(cache));
    out << terminalText(entityId) << " in " << cacheName(cache, i) << ": " << figures.changes
        << " changes, " << figures.flaps << " flaps, unreachable for "
        << decimal(figures.unreachableSeconds, "s") << "; endpoints:";
    std::vector<std::string> endpoints = entity.endpoints;
    std::sort(endpoints.begin(), endpoints.end());
    for (const std::string& endpoint : endpoints) {
      out << ' ' << terminalText(endpoint);
    }
    out << '\n';
    printStory(trace, entity, out);
  }
  return found;
}

}  // namespace veranda::reachabilityCache::trace
