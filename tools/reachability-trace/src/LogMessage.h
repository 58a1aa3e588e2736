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

struct LogMessage {
  LineFormat format = LineFormat::THREADTIME;
  std::optional<ClockReading> clock;
  std::optional<int> pid;
  std::optional<int> tid;
  char priority = '?';
  std::string tag;
  std::string text;                   // the lines of the message joined with line feeds
  std::vector<std::string> lines;     // as they stand in the capture
  std::vector<uint64_t> lineNumbers;  // of `lines` in the capture, from 1; 0 where not counted
};

// Joins the lines of each message of the library's tags (and of the metric
// lines about the cache) and hands on whole messages in capture order.
// logcat repeats the header on every line of a message; the host format
// writes the following lines bare. Lines of other tags are dropped; lines
// that name the cache but fit no header form are counted as damaged.
class MessageAssembler : public LineSink {
 public:
  using Handler = std::function<void(const LogMessage&)>;

  // `numberLines`: the messages carry their lines' numbers.
  explicit MessageAssembler(Handler handler, bool numberLines = false);

  void line(std::string_view text, uint64_t number) override;
  bool wantsLineNumbers() const override { return numberLines_; }
  bool wantsNextLine() const override;
  void finish() override;

  uint64_t damagedLines() const { return damaged_; }
  uint64_t messages() const { return messages_; }

 private:
  bool continues(const CaptureLine& line) const;
  void flush();

  Handler handler_;
  bool numberLines_;
  bool open_ = false;
  LogMessage current_;
  uint64_t damaged_ = 0;
  uint64_t messages_ = 0;
};

// True for the four tags of the library.
bool isLibraryTag(std::string_view tag);

}  // namespace veranda::reachabilityCache::trace
