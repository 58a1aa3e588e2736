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
    out_ << "{\"capture\":" << jsonText(captureName)
         << ",\"year\":" << (trace_.clock.sawYear() ? "true" : "false")
         << ",\"origin\":" << origin_ / MICROS_PER_MS << ",\"selected\":" << selectedCache
         << ",\"window\":";
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
    return addCause(causeText(cause), cause.lines);
  }

  int64_t changeCause(const ChangeRecord& change) {
    return change.evidence.empty() ? NO_INDEX : addCause("", change.evidence);
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

  void entity(const CacheRecord& cache, const EntityRecord& entity) {
    const Micros start = cache.startTime();
    out_ << "{\"id\":" << jsonText(entity.id) << ",\"a\":[" << time(start) << ','
         << static_cast<int>(cache.creationSeen ? Answer::ABSENT : Answer::UNKNOWN) << ','
         << beforeEvidence(cache);
    for (const AnswerRecord& answer : entity.answers) {
      if (answer.at != NO_TIME) {
        out_ << ',' << time(std::max(answer.at, start)) << ',' << static_cast<int>(answer.answer)
             << ',' << answerCause(entity, answer);
      }
    }
    // The endpoints that listeners were told of, each once.
    std::vector<const std::string*> endpoints;
    const auto endpointIndex = [&endpoints](const std::string& id) {
      const auto found = std::find_if(endpoints.begin(), endpoints.end(),
                                      [&id](const std::string* known) { return *known == id; });
      if (found == endpoints.end()) {
        endpoints.push_back(&id);
        return endpoints.size() - 1;
      }
      return static_cast<std::size_t>(found - endpoints.begin());
    };
    out_ << "],\"m\":[";
    bool first = true;
    for (const ChangeRecord& change : entity.changes) {
      if (change.at != NO_TIME) {
        out_ << (first ? "" : ",") << time(change.at) << ',' << (change.reachable ? 1 : 0) << ','
             << changeCause(change) << ',' << endpointIndex(change.endpointId);
        first = false;
      }
    }
    out_ << "],\"e\":[";
    for (std::size_t i = 0; i < endpoints.size(); ++i) {
      out_ << (i == 0 ? "" : ",") << jsonText(*endpoints[i]);
    }
    out_ << "]}";
  }

  void cache(std::size_t index) {
    const CacheRecord& cache = trace_.caches[index];
    std::string name = "cache " + std::to_string(index + 1);
    if (cache.pid) {
      name += " (pid " + std::to_string(*cache.pid) + ")";
    }
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
