#include "TracePage.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

#include "AnswerAt.h"
#include "SafeText.h"
#include "TimelineSvg.h"
#include "TraceOutput.h"
#include "TracePageAssets.h"

namespace veranda::reachabilityCache::trace {
namespace {

constexpr int64_t NO_INDEX = -1;
constexpr Micros MICROS_PER_MS = 1000;
// Added to a span's reason where its answer is inferred.
constexpr int INFERRED = 16;

// Text from the capture as a JSON string that is safe inside a <script>
// element: no '<' or '>' can end it or open a comment.
std::string jsonText(const std::string& text) {
  const std::string quoted =
      nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  std::string safe;
  safe.reserve(quoted.size());
  for (const char c : quoted) {
    if (c == '<') {
      safe += "\\u003c";
    } else if (c == '>') {
      safe += "\\u003e";
    } else {
      safe += c;
    }
  }
  return safe;
}

// Writes the page's data as it goes: the trace's caches with times in
// milliseconds since the page's origin, and the causes and lines they
// refer to, each once.
class DataWriter {
 public:
  DataWriter(const Trace& trace, std::ostream& out) : trace_(trace), out_(out) {
    for (const CacheRecord& cache : trace.caches) {
      origin_ = std::min(origin_, cache.startTime());
    }
  }

  void write(std::size_t selectedCache, const std::string& captureName) {
    out_ << "{\"capture\":" << jsonText(captureName) << ",\"clock\":";
    clock();
    out_ << ",\"origin\":" << origin_ / MICROS_PER_MS << ",\"selected\":" << selectedCache
         << ",\"leftOut\":" << jsonText(leftOutText()) << ",\"window\":";
    if (trace_.window.limits()) {
      out_ << '[' << time(trace_.window.from) << ',' << time(trace_.window.to) << ']';
    } else {
      out_ << "null";
    }
    out_ << ",\"evidenceLostFrom\":" << time(trace_.evidenceLostFrom) << ",\"answers\":[";
    for (Answer answer :
         {Answer::ABSENT, Answer::REACHABLE, Answer::UNREACHABLE, Answer::UNKNOWN}) {
      out_ << (answer == Answer::ABSENT ? "" : ",")
           << "{\"words\":" << jsonText(tools::answerWords(answer)) << ",\"colour\":\""
           << tools::answerColour(answer) << "\"}";
    }
    out_ << "],\"reasons\":[";
    for (int reason = 0; reason <= static_cast<int>(UnknownReason::LEFT_OUT); ++reason) {
      const auto why = static_cast<UnknownReason>(reason);
      out_ << (reason == 0 ? "" : ",") << "[" << jsonText(unknownReasonWords(why)) << ","
           << jsonText(unknownReasonMeaning(why)) << "]";
    }
    out_ << "],\"notes\":{\"unconfirmed\":" << jsonText(UNCONFIRMED_NOTE)
         << ",\"removal\":" << jsonText(REMOVAL_NOTE) << "},\"caches\":[";
    for (std::size_t i = 0; i < trace_.caches.size(); ++i) {
      out_ << (i == 0 ? "" : ",");
      cache(i);
    }
    out_ << "],\"causes\":[";
    for (std::size_t i = 0; i < causes_.size(); ++i) {
      out_ << (i == 0 ? "" : ",") << causes_[i];
    }
    out_ << "],\"lines\":{";
    bool first = true;
    for (const auto& [number, text] : lines_) {
      out_ << (first ? "" : ",") << '"' << number << "\":" << jsonText(*text);
      first = false;
    }
    out_ << "}}";
  }

 private:
  // How the page writes times as the device wrote them: dates (with the
  // year or not) or seconds since boot, and where the device's clock went
  // back, [time on the page, ms to take out] from there on.
  void clock() {
    const CaptureClock& clock = trace_.clock;
    out_ << "{\"sinceBoot\":" << (clock.kind() == ClockReading::Kind::MONOTONIC ? "true" : "false")
         << ",\"year\":" << (clock.sawYear() ? "true" : "false") << ",\"steps\":[";
    bool first = true;
    for (const ClockStep& step : clock.steps()) {
      out_ << (first ? "" : ",") << '[' << time(step.at) << ',' << step.offset / MICROS_PER_MS
           << ']';
      first = false;
    }
    out_ << "]}";
  }

  // What the trace's limits left out, in words; empty when nothing was.
  std::string leftOutText() const {
    const LeftOut& left = trace_.leftOut;
    if (!left.any()) {
      return "";
    }
    std::string text = "The trace's limits left out";
    const std::pair<uint64_t, const char*> parts[] = {
        {left.answers, " answers (hatched: past the limits)"},
        {left.changes + left.storyChanges, " changes told to listeners"},
        {left.entityLines, " lines about entities past the limit of entities"},
        {left.endpointLines, " lines about endpoints past an entity's limit"},
        {left.processLines, " lines of processes past the limit of caches"},
        {left.checks, " checks"},
    };
    bool first = true;
    for (const auto& [count, what] : parts) {
      if (count > 0) {
        text += (first ? " " : ", ") + std::to_string(count) + what;
        first = false;
      }
    }
    return text +
           "; memory stays bounded (see --help). A page of a window (--from, --to) "
           "counts from the window's start.";
  }

  // Milliseconds since the origin, or null.
  std::string time(Micros at) const {
    return at == NO_TIME ? "null" : std::to_string((at - origin_) / MICROS_PER_MS);
  }

  // A cause of the page: its words and its lines; returns its index.
  int64_t addCause(const std::string& words, const std::vector<EvidenceLine>& lines) {
    std::string cause = "[" + jsonText(words) + ",[";
    for (std::size_t i = 0; i < lines.size(); ++i) {
      cause += (i == 0 ? "" : ",") + std::to_string(lines[i].number);
      lines_.emplace(lines[i].number, lines[i].text.get());
    }
    causes_.push_back(cause + "]]");
    return static_cast<int64_t>(causes_.size() - 1);
  }

  int64_t answerCause(const EntityRecord& entity, const AnswerRecord& answer) {
    if (answer.cause >= entity.causes.size()) {
      return NO_INDEX;
    }
    const AnswerCause& cause = entity.causes[answer.cause];
    return addCause(cause.kind == CauseKind::LOST ? std::string() : causeText(cause), cause.lines);
  }

  int64_t changeCause(const EntityRecord& entity, std::size_t change) {
    return change < entity.evidence.size() && !entity.evidence[change].empty()
               ? addCause("", entity.evidence[change])
               : NO_INDEX;
  }

  // Before an entity's first line: not cached in a cache the capture saw
  // created; unknown in one it shows already running.
  int64_t beforeEvidence(const CacheRecord& cache) {
    if (cache.creationSeen) {
      return NO_INDEX;
    }
    if (midRun_ == NO_INDEX) {
      midRun_ = addCause(
          "the capture starts with the cache already running, and no line tells of the entity "
          "before this",
          {});
    }
    return midRun_;
  }

  // An entity's spans as [start, answer, cause, why] (why: the reason of an
  // unknown answer, plus INFERRED for an inferred one), and its changes told
  // to listeners as [time, reachable, cause, endpoint].
  void entity(const CacheRecord& cache, const EntityRecord& entity) {
    const Micros start = cache.startTime();
    out_ << "{\"id\":" << jsonText(entity.id) << ",\"a\":[";
    bool first = true;
    for (const EntitySpan& span :
         entitySpans(entity, start, cache.endTime(), answerBefore(cache))) {
      const int64_t cause =
          span.record == nullptr
              ? (span.reason == UnknownReason::CAPTURE_START ? beforeEvidence(cache) : NO_INDEX)
              : answerCause(entity, *span.record);
      out_ << (first ? "" : ",") << time(span.from) << ',' << static_cast<int>(span.answer) << ','
           << cause << ',' << (static_cast<int>(span.reason) + (span.inferred ? INFERRED : 0));
      first = false;
    }
    out_ << "],\"m\":[";
    first = true;
    for (std::size_t i = 0; i < entity.changes.size(); ++i) {
      const ChangeRecord& change = entity.changes[i];
      if (change.at != NO_TIME) {
        out_ << (first ? "" : ",") << time(change.at) << ',' << (change.reachable ? 1 : 0) << ','
             << changeCause(entity, i) << ','
             << std::min<uint32_t>(change.endpoint, static_cast<uint32_t>(entity.endpoints.size()));
        first = false;
      }
    }
    // The endpoints by index, then one for those past the entity's limit.
    out_ << "],\"e\":[";
    for (const std::string& endpoint : entity.endpoints) {
      out_ << jsonText(endpoint) << ',';
    }
    out_ << jsonText("(another endpoint)") << "]}";
  }
  void cache(std::size_t index) {
    const CacheRecord& cache = trace_.caches[index];
    const std::string name = cacheName(cache, index);
    std::string note = std::to_string(cache.entities.size()) + " entities";
    if (cache.intervalSeconds) {
      note += ", refresh every " + std::to_string(*cache.intervalSeconds) + " s";
    }
    note += ", " + std::to_string(cache.changes) + " changes told to listeners";
    out_ << "{\"name\":" << jsonText(name) << ",\"note\":" << jsonText(note)
         << ",\"start\":" << time(cache.startTime()) << ",\"end\":" << time(cache.endTime())
         << ",\"created\":" << (cache.creationSeen ? "true" : "false")
         << ",\"destroyed\":" << (cache.destructionSeen ? "true" : "false") << ",\"cycles\":[";
    bool first = true;
    for (const CheckRecord& check : cache.cycles) {
      if (check.start != NO_TIME) {
        out_ << (first ? "" : ",") << time(check.start);
        first = false;
      }
    }
    out_ << "],\"problems\":[";
    first = true;
    for (const auto& [kind, problem] : cache.problems) {
      out_ << (first ? "" : ",") << "{\"kind\":" << jsonText(kind)
           << ",\"words\":" << jsonText(problemText(kind)) << ",\"count\":" << problem.count
           << ",\"times\":[";
      for (std::size_t i = 0; i < problem.times.size(); ++i) {
        out_ << (i == 0 ? "" : ",") << time(problem.times[i]);
      }
      out_ << "]}";
      first = false;
    }
    out_ << "],\"entities\":[";
    for (std::size_t i = 0; i < cache.entities.size(); ++i) {
      out_ << (i == 0 ? "" : ",");
      entity(cache, cache.entities[i]);
    }
    out_ << "]}";
  }

  const Trace& trace_;
  std::ostream& out_;
  Micros origin_ = std::numeric_limits<Micros>::max();
  std::vector<std::string> causes_;
  std::map<uint64_t, const std::string*> lines_;  // by number, pointing into the trace
  int64_t midRun_ = NO_INDEX;
};

// The template with its markers replaced, in the order they stand in it:
// the title, the style, the script and the data.
void writePage(const Trace& trace, std::size_t selectedCache, const std::string& captureName,
               std::ostream& out) {
  const std::string title = tools::xmlText("Reachability over time: " + captureName);
  const std::pair<std::string_view, std::function<void()>> parts[] = {
      {"<!--PAGE_TITLE-->", [&] { out << title; }},
      {"/*PAGE_STYLE*/", [&] { out << PAGE_CSS; }},
      {"/*PAGE_DATA*/", [&] { DataWriter(trace, out).write(selectedCache, captureName); }},
      {"/*PAGE_SCRIPT*/", [&] { out << PAGE_JS; }},
  };
  std::size_t from = 0;
  for (const auto& [marker, write] : parts) {
    const std::size_t at = PAGE_HTML.find(marker, from);
    out << PAGE_HTML.substr(from, at - from);
    write();
    from = at + marker.size();
  }
  out << PAGE_HTML.substr(from);
}

}  // namespace

std::string tracePageData(const Trace& trace, std::size_t selectedCache,
                          const std::string& captureName) {
  std::ostringstream out;
  DataWriter(trace, out).write(selectedCache, captureName);
  return out.str();
}

std::string tracePage(const Trace& trace, std::size_t selectedCache,
                      const std::string& captureName) {
  std::ostringstream out;
  writePage(trace, selectedCache, captureName, out);
  return out.str();
}

bool writeTracePage(const Trace& trace, std::size_t selectedCache, const std::string& captureName,
                    const std::string& path, std::string& error) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (out) {
    writePage(trace, selectedCache, captureName, out);
    out.flush();
  }
  if (!out) {
    error = "cannot write " + path + ": " + std::generic_category().message(errno);
    return false;
  }
  return true;
}

}  // namespace veranda::reachabilityCache::trace
