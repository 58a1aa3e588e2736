// The report for a person and an entity's story.
#include <algorithm>
#include <cstdio>
#include <map>

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

// A cut summary is all that leaves an answer unknown.
std::string answerText(Answer answer) {
  return std::string(tools::answerWords(answer)) +
         (answer == Answer::UNKNOWN ? " (summary cut)" : "");
}

void printHeading(const Trace& trace, const CacheRecord& cache, std::size_t number,
                  std::ostream& out) {
  out << "Cache " << number;
  if (cache.pid) {
    out << " (pid " << *cache.pid << ")";
  }
  out << ": "
      << (cache.creationSeen ? "created " + when(trace, cache.created)
                             : "already running at " + when(trace, cache.firstSeen));
  out << ", "
      << (cache.destructionSeen ? "destroyed " + when(trace, cache.destroyed)
                                : "still running at " + when(trace, cache.lastSeen))
      << '\n';
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
  for (const EntityRecord& entity : cache.entities) {
    rows.push_back({&entity, entityFigures(entity, cache.endTime())});
    width = std::max(width, std::min<std::size_t>(tools::terminalWidth(entity.id), 40));
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
  out << "  " << terminalPadded("entity", width)
      << "  changes  flaps  unreachable  answers at the end\n";
  for (std::size_t i = 0; i < rows.size() && i < LISTED_ENTITIES; ++i) {
    const EntityFigures& figures = rows[i].figures;
    char numbers[64];
    std::snprintf(numbers, sizeof(numbers), "%7zu  %5zu  %11s", figures.changes, figures.flaps,
                  decimal(figures.unreachableSeconds, "s").c_str());
    out << "  " << terminalPadded(tools::shortened(rows[i].entity->id, 40), width) << "  "
        << numbers << "  " << answerText(figures.last) << '\n';
  }
  if (rows.size() > LISTED_ENTITIES) {
    out << "  ... and " << rows.size() - LISTED_ENTITIES
        << " more (--json lists them all, --entity ID tells one's story)\n";
  }
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

}  // namespace

void printReport(const Trace& trace, std::ostream& out) {
  out << trace.caches.size() << (trace.caches.size() == 1 ? " cache" : " caches") << " in "
      << trace.messages << " library lines";
  if (trace.bugReport) {
    out << " (the log sections of a bug report)";
  }
  if (trace.damagedLines > 0) {
    out << "; " << trace.damagedLines << " damaged lines skipped";
  }
  out << ".\n";
  if (trace.window.limits()) {
    out << "All that follows is of " << windowText(trace) << ".\n";
  }
  for (std::size_t i = 0; i < trace.caches.size(); ++i) {
    const CacheRecord& cache = trace.caches[i];
    out << '\n';
    printHeading(trace, cache, i + 1, out);
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
    const EntityFigures figures = entityFigures(entity, cache.endTime());
    out << terminalText(entityId) << " in cache " << i + 1;
    if (cache.pid) {
      out << " (pid " << *cache.pid << ")";
    }
    out << ": " << figures.changes << " changes, " << figures.flaps << " flaps, unreachable for "
        << decimal(figures.unreachableSeconds, "s") << "; endpoints:";
    for (const std::string& endpoint : entity.endpoints) {
      out << ' ' << terminalText(endpoint);
    }
    out << '\n';
    for (const ChangeRecord& change : entity.changes) {
      out << "\n"
          << when(trace, change.at) << "  " << terminalText(change.endpointId) << " -> "
          << (change.reachable ? "reachable" : "unreachable");
      if (!change.adapterName.empty()) {
        out << " (" << terminalText(change.adapterName) << ")";
      }
      out << '\n';
      for (const EvidenceLine& line : change.evidence) {
        printEvidence(line, out);
      }
    }
  }
  return found;
}

}  // namespace veranda::reachabilityCache::trace
