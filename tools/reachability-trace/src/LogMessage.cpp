#include "LogMessage.h"

#include <utility>

#include "LineRules.h"
#include "diagnostics/LogSchema.h"

namespace veranda::reachabilityCache::trace {
namespace {

// Every library and metric line of the cache holds it.
constexpr std::string_view NEEDLE = "ReachabilityCache";
constexpr std::size_t KEPT_DAMAGED_BYTES = 300;

// A metric line in the long layout is wanted until its text tells.
bool isWanted(const CaptureLine& line) {
  return isLibraryTag(line.tag) || line.tag == RATE_LIMITER_TAG ||
         (line.tag == logSchema::tag::METRIC &&
          (line.format == LineFormat::LONG || cacheMetricName(line.text)));
}

// Layouts whose following lines of a message may come bare.
bool allowsBareLines(LineFormat format) {
  return format == LineFormat::HOST || format == LineFormat::LONG ||
         format == LineFormat::IDE_TABLE || format == LineFormat::IDE_TEXT;
}

}  // namespace

MessageAssembler::MessageAssembler(Handler handler, SectionHandler section, bool numberLines)
    : handler_(std::move(handler)), section_(std::move(section)), numberLines_(numberLines) {}

void MessageAssembler::section(std::string_view title) {
  flush();
  section_(title);
}

void MessageAssembler::skippedLine() {
  // What the open message would have been is not known: it is damaged
  // where its following lines come bare.
  if (open_ && allowsBareLines(current_.format)) {
    open_ = false;
    damaged(current_.lines.front());
    return;
  }
  flush();
}

bool MessageAssembler::wantsNextLine() const { return open_ && allowsBareLines(current_.format); }

// A following line of the open message in logcat's layouts: the same header
// again, with text that does not start a new message of the library.
bool MessageAssembler::continues(const CaptureLine& line) const {
  return open_ && line.format == current_.format && line.format != LineFormat::HOST &&
         line.format != LineFormat::LONG && line.pid == current_.pid && line.tid == current_.tid &&
         line.priority == current_.priority && line.tag == current_.tag &&
         line.clock == current_.clock && (line.text.empty() || line.text[0] != '[');
}

bool MessageAssembler::takesBareLine(std::string_view text) {
  if (!wantsNextLine()) {
    return false;
  }
  if (current_.format == LineFormat::LONG) {
    if (withoutDecoration(text).empty()) {  // the empty line that ends it
      flush();
    } else {
      append(withoutDecoration(text), text);
    }
    return true;
  }
  if (current_.format != LineFormat::HOST) {
    // An IDE indents the following lines to the column of the first's text.
    text = withoutDecoration(text);
    if (text.size() >= textColumn_ &&
        text.find_first_not_of(' ') >= std::min(textColumn_, text.size())) {
      text.remove_prefix(textColumn_);
    }
  }
  append(text, text);
  return true;
}

void MessageAssembler::line(std::string_view text, uint64_t number) {
  number_ = number;
  const std::optional<CaptureLine> parsed = parseCaptureLine(text);
  if (!parsed) {
    if (!takesBareLine(text)) {
      flush();
      if (!longLayout_ && text.find(NEEDLE) != std::string_view::npos) {
        damaged(text);  // in the long layout, a line of another tag's message
      }
    }
    return;
  }
  if (continues(*parsed)) {
    append(parsed->text, text);
    return;
  }
  flush();
  longLayout_ = longLayout_ || parsed->format == LineFormat::LONG;
  if (!isWanted(*parsed)) {
    return;
  }
  const bool library = isLibraryTag(parsed->tag);
  if (library && parsed->format != LineFormat::LONG &&
      (parsed->text.empty() || parsed->text[0] != '[')) {
    damaged(text);  // every message of the library starts with its bracketed label
    return;
  }
  open(*parsed, text);
}

void MessageAssembler::open(const CaptureLine& line, std::string_view text) {
  open_ = true;
  current_.format = line.format;
  current_.clock = line.clock;
  current_.pid = line.pid;
  current_.tid = line.tid;
  current_.priority = line.priority;
  current_.tag.assign(line.tag);
  current_.text.assign(line.text);
  current_.lines.clear();
  current_.lines.emplace_back(text);
  current_.lineNumbers.assign(1, number_);
  textColumn_ = line.textColumn;
}

void MessageAssembler::append(std::string_view part, std::string_view line) {
  const bool first = current_.format == LineFormat::LONG && current_.lines.size() == 1;
  if (current_.text.size() + part.size() + 1 > MAX_JOINED_BYTES) {
    damaged(current_.lines.front());  // longer than any message of the library
    open_ = false;
    return;
  }
  if (!first) {
    current_.text.push_back('\n');
  }
  current_.text.append(part);
  current_.lines.emplace_back(line);
  current_.lineNumbers.push_back(number_);
}

void MessageAssembler::damaged(std::string_view text) {
  if (damaged_++ == 0) {
    firstDamaged_.assign(text.substr(0, KEPT_DAMAGED_BYTES));
  }
}

void MessageAssembler::finish() { flush(); }

void MessageAssembler::flush() {
  if (!open_) {
    return;
  }
  open_ = false;
  if (current_.format == LineFormat::LONG && isLibraryTag(current_.tag) &&
      (current_.text.empty() || current_.text[0] != '[')) {
    damaged(current_.lines.front());
    return;
  }
  if (current_.tag == logSchema::tag::METRIC && !cacheMetricName(current_.text)) {
    return;  // another metric
  }
  ++messages_;
  handler_(current_);
}

}  // namespace veranda::reachabilityCache::trace
