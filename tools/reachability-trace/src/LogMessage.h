// Whole messages of the library, put back together from the lines of a
// capture.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CaptureLine.h"
#include "CaptureReader.h"

namespace veranda::reachabilityCache::trace {

// The platform keeps at most this many bytes of a message.
inline constexpr std::size_t MAX_MESSAGE_BYTES = 1023;
// No message of the library is longer than this, even with its
// non-printable characters escaped by logcat's printable adverb.
inline constexpr std::size_t MAX_JOINED_BYTES = 4 * MAX_MESSAGE_BYTES + 16;

// The platform's rate limiter's tag: its notices say how many lines of a
// process it dropped.
inline constexpr std::string_view RATE_LIMITER_TAG = "chatty";

struct LogMessage {
  LineFormat format = LineFormat::THREADTIME;
  std::optional<ClockReading> clock;
  std::optional<int64_t> pid;
  std::optional<int64_t> tid;
  char priority = '?';
  std::string tag;
  std::string text;                   // the lines of the message joined with line feeds
  std::vector<std::string> lines;     // as they stand in the capture
  std::vector<uint64_t> lineNumbers;  // of `lines` in the capture, from 1; 0 where not counted
};

// Joins the lines of each message of the library's tags (and of the metric
// lines about the cache, and the rate limiter's notices) and hands on whole
// messages in capture order. logcat repeats the header on every line of a
// message, or (long layout) writes a header line, the message and an empty
// line; the host liblog writes the following lines bare, and so may an IDE.
// Lines of other tags are dropped; lines that name the cache but fit no
// header layout are counted as damaged, the first one kept.
class MessageAssembler : public LineSink {
 public:
  using Handler = std::function<void(const LogMessage&)>;
  using SectionHandler = std::function<void(std::string_view title)>;

  // `section` is told where a bug report's log sections begin;
  // `numberLines`: the messages carry their lines' numbers.
  MessageAssembler(Handler handler, SectionHandler section, bool numberLines = false);

  void line(std::string_view text, uint64_t number) override;
  bool wantsLineNumbers() const override { return numberLines_; }
  bool wantsNextLine() const override;
  bool wantsLineBefore() const override { return longLayout_; }
  void section(std::string_view title) override;
  void skippedLine() override;
  void finish() override;

  uint64_t damagedLines() const { return damaged_; }
  // The first damaged line, cut to a few hundred bytes.
  const std::string& firstDamaged() const { return firstDamaged_; }
  uint64_t messages() const { return messages_; }

 private:
  bool continues(const CaptureLine& line) const;
  // A bare line after a message whose layout allows them.
  bool takesBareLine(std::string_view text);
  void open(const CaptureLine& line, std::string_view text);
  void append(std::string_view part, std::string_view line);
  void damaged(std::string_view text);
  void flush();

  Handler handler_;
  SectionHandler section_;
  bool numberLines_;
  uint64_t number_ = 0;  // of the line being read
  bool open_ = false;
  bool longLayout_ = false;  // the capture uses logcat's long layout
  LogMessage current_;
  std::size_t textColumn_ = 0;  // of the open message's first line
  uint64_t damaged_ = 0;
  std::string firstDamaged_;
  uint64_t messages_ = 0;
};

}  // namespace veranda::reachabilityCache::trace
