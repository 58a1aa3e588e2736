#include "LogMessage.h"

#include <utility>

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::string_view METRIC_TAG = "Veranda-Metric";
constexpr std::string_view CACHE_METRIC = "metricName=ReachabilityCache.";

bool isWanted(const CaptureLine& line) {
  return isLibraryTag(line.tag) ||
         (line.tag == METRIC_TAG && line.text.find(CACHE_METRIC) != std::string_view::npos);
}

bool sameClock(const std::optional<ClockReading>& a, const std::optional<ClockReading>& b) {
  if (!a || !b) {
    return !a && !b;
  }
  return a->year == b->year && a->month == b->month && a->day == b->day &&
         a->microsOfDay == b->microsOfDay;
}

}  // namespace

bool isLibraryTag(std::string_view tag) {
  return tag == "ReachabilityCache-ReachabilityCache" || tag == "ReachabilityCache-CacheCore" ||
         tag == "ReachabilityCache-ReachabilityUpdater" ||
         tag == "ReachabilityCache-ApplianceDriverChecker";
}

MessageAssembler::MessageAssembler(Handler handler, bool numberLines)
    : handler_(std::move(handler)), numberLines_(numberLines) {}

bool MessageAssembler::wantsNextLine() const {
  return open_ && current_.format == LineFormat::HOST;
}

// A following line of the open message: in logcat's forms the same header
// again, with text that does not start a new message of the library.
bool MessageAssembler::continues(const CaptureLine& line) const {
  return open_ && line.format == current_.format && line.format != LineFormat::HOST &&
         line.pid == current_.pid && line.tid == current_.tid &&
         line.priority == current_.priority && line.tag == current_.tag &&
         sameClock(line.clock, current_.clock) && (line.text.empty() || line.text[0] != '[');
}

void MessageAssembler::line(std::string_view text, uint64_t number) {
  const std::optional<CaptureLine> parsed = parseCaptureLine(text);
  if (!parsed) {
    if (wantsNextLine()) {  // the host format's bare continuation
      current_.text.append(1, '\n').append(text);
      current_.lines.emplace_back(text);
      current_.lineNumbers.push_back(number);
      return;
    }
    flush();
    if (text.find("ReachabilityCache") != std::string_view::npos) {
      ++damaged_;
    }
    return;
  }
  if (continues(*parsed)) {
    current_.text.append(1, '\n').append(parsed->text);
    current_.lines.emplace_back(text);
    current_.lineNumbers.push_back(number);
    return;
  }
  flush();
  if (!isWanted(*parsed)) {
    return;
  }
  if (isLibraryTag(parsed->tag) && (parsed->text.empty() || parsed->text[0] != '[')) {
    ++damaged_;  // every message of the library starts with its bracketed label
    return;
  }
  open_ = true;
  current_.format = parsed->format;
  current_.clock = parsed->clock;
  current_.pid = parsed->pid;
  current_.tid = parsed->tid;
  current_.priority = parsed->priority;
  current_.tag.assign(parsed->tag);
  current_.text.assign(parsed->text);
  current_.lines.clear();
  current_.lines.emplace_back(text);
  current_.lineNumbers.assign(1, number);
}

void MessageAssembler::finish() { flush(); }

void MessageAssembler::flush() {
  if (!open_) {
    return;
  }
  open_ = false;
  ++messages_;
  handler_(current_);
}

}  // namespace veranda::reachabilityCache::trace
