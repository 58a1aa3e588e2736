#include "CaptureReader.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "WordSearch.h"

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::size_t BLOCK_BYTES = std::size_t{4} << 20;
constexpr std::size_t FIRST_BLOCK_BYTES = std::size_t{64} << 10;
constexpr std::string_view NEEDLE = "ReachabilityCache";
// The words of the rate limiter's notices ("... expire 40 lines",
// "... identical 12 lines"), rarer in a log than its tag.
constexpr std::string_view RATE_LIMITER_TAG = "chatty";
constexpr std::string_view EXPIRED = " expire ";
constexpr std::string_view IDENTICAL = " identical ";
constexpr std::string_view SECTION_START = "\n------ ";
// A bug report starts with dumpstate's header; only then are sections looked for.
constexpr std::string_view BUG_REPORT_START = "== dumpstate";
constexpr std::size_t BUG_REPORT_HEADER_BYTES = 1024;

const char* findWord(const char* from, const char* to, std::string_view needle) {
  if (from >= to) {
    return nullptr;
  }
  const void* found =
      memmem(from, static_cast<std::size_t>(to - from), needle.data(), needle.size());
  return static_cast<const char*>(found);
}

const char* lineEnd(const char* from, const char* to) {
  const void* found = std::memchr(from, '\n', static_cast<std::size_t>(to - from));
  return found == nullptr ? to : static_cast<const char*>(found);
}

// The line feeds in [from, to).
uint64_t lineFeeds(const char* from, const char* to) {
  uint64_t count = 0;
  while (from < to) {
    const void* found = std::memchr(from, '\n', static_cast<std::size_t>(to - from));
    if (found == nullptr) {
      break;
    }
    ++count;
    from = static_cast<const char*>(found) + 1;
  }
  return count;
}

const char* lineStart(const char* begin, const char* at) {
  while (at > begin && at[-1] != '\n') {
    --at;
  }
  return at;
}

bool namesTheCache(const char* from, const char* to) {
  return findWord(from, to, NEEDLE) != nullptr;
}

// Leaves the NUL bytes out of [data, data + size); returns how many there were.
std::size_t removeNuls(char* data, std::size_t& size) {
  char* write = static_cast<char*>(std::memchr(data, '\0', size));
  if (write == nullptr) {
    return 0;
  }
  const char* end = data + size;
  for (const char* read = write; read < end; ++read) {
    if (*read != '\0') {
      *write++ = *read;
    }
  }
  const auto removed = static_cast<std::size_t>(end - write);
  size -= removed;
  return removed;
}

// The next place in a buffer where a word occurs, searched for once per
// buffer however often it is asked.
class NextWord {
 public:
  explicit NextWord(std::string_view word) : word_(word) {}
  void reset() { next_ = nullptr; }
  const char* at(const char* from, const char* end) {
    if (next_ == nullptr || (next_ != end && next_ < from)) {
      next_ = findWord(from, end, word_);
      next_ = next_ == nullptr ? end : next_;
    }
    return next_ == end ? nullptr : next_;
  }

 private:
  std::string_view word_;
  const char* next_ = nullptr;
};

// Works through the complete lines of one buffer.
class Scanner {
 public:
  Scanner(LineSink& sink, ReadResult& result)
      : sink_(sink), result_(result), numbering_(sink.wantsLineNumbers()) {}

  // Looks for sections from here on: the text is a bug report.
  void expectSections() { sections_ = true; }

  // Hands on the wanted lines of [begin, end): `begin` starts a line and
  // the byte before it is a line feed; `end` follows a line feed or ends the
  // input.
  void scan(const char* begin, const char* end) {
    const char* at = begin;
    handedUpTo_ = begin;
    counted_ = begin;
    next_ = {};
    section_.reset();
    while (at < end) {
      if (sink_.wantsNextLine()) {
        at = handOn(at, end);
        continue;
      }
      const char* needle = nextWanted(at, end);
      // The search starts one byte early so that a section line right at
      // `at` is found by its line feed before it.
      const char* section = sections_ ? section_.at(at - 1, end) : nullptr;
      if (section != nullptr && (needle == nullptr || section < needle)) {
        const char* start = section + 1;
        const char* stop = lineEnd(start, end);
        sectionLine(std::string_view(start, static_cast<std::size_t>(stop - start)));
        at = stop;
        continue;
      }
      if (needle == nullptr) {
        break;
      }
      const char* start = lineStart(at, needle);
      if (sink_.wantsLineBefore() && start > begin) {
        const char* before = lineStart(begin, start - 1);
        if (before >= handedUpTo_) {
          handOn(before, end);
        }
      }
      at = handOn(start, end);
    }
    if (numbering_) {
      lineFeeds_ += lineFeeds(counted_, end);
    }
  }

  // A line longer than a block was skipped; `ended`: its line feed with it.
  void skippedLine(bool named, bool ended) {
    lineFeeds_ += ended ? 1 : 0;
    if (inLog_ && named) {
      ++result_.overLongLines;
      sink_.skippedLine();
    }
  }

 private:
  // The next place from `at` on where the cache's name or a rate limiter's
  // notice is.
  const char* nextWanted(const char* at, const char* end) {
    while (at < end) {
      if (next_.at == nullptr || (next_.at != end && next_.at < at)) {
        next_ = words_.find(at, end);
        next_.at = next_.at == nullptr ? end : next_.at;
      }
      if (next_.at == end) {
        return nullptr;
      }
      if (next_.word == 0 || isNotice(next_.at, at)) {
        return next_.at;
      }
      const char* stop = lineEnd(next_.at, end);
      if (stop == end) {
        return nullptr;
      }
      at = stop + 1;
    }
    return nullptr;
  }

  // True when the words of a notice at `found` follow "chatty" on their line
  // or (in the long layout) on the line before.
  static bool isNotice(const char* found, const char* begin) {
    const char* start = lineStart(begin, found);
    const char* before = start > begin ? lineStart(begin, start - 1) : start;
    return findWord(start, found, RATE_LIMITER_TAG) != nullptr ||
           findWord(before, start, RATE_LIMITER_TAG) != nullptr;
  }

  const char* handOn(const char* start, const char* end) {
    const char* stop = lineEnd(start, end);
    handedUpTo_ = stop;
    const auto length = static_cast<std::size_t>(stop - start);
    if (inLog_ && length > MAX_LINE_BYTES) {
      skippedLine(true, false);
    } else if (inLog_) {
      sink_.line(std::string_view(start, length), numberOf(start));
    }
    return stop < end ? stop + 1 : end;
  }

  // The number of the line that starts at `start`: one more than the line
  // feeds before it; 0 when the sink wants no numbers.
  uint64_t numberOf(const char* start) {
    if (!numbering_) {
      return 0;
    }
    lineFeeds_ += lineFeeds(counted_, start);
    counted_ = start;
    return lineFeeds_ + 1;
  }

  // "------ SYSTEM LOG (logcat -v threadtime ...) ------" opens a log
  // section; any other section line closes it.
  void sectionLine(std::string_view text) {
    result_.sections = true;
    inLog_ = text.find("(logcat") != std::string_view::npos;
    if (inLog_) {
      std::string_view title = text.substr(SECTION_START.size() - 1);
      title = title.substr(0, std::min(title.find(" ("), title.find(" ------")));
      sink_.section(title);
    }
  }

  LineSink& sink_;
  ReadResult& result_;
  const bool numbering_;
  bool inLog_ = true;
  bool sections_ = false;
  uint64_t lineFeeds_ = 0;            // before `counted_`
  const char* counted_ = nullptr;     // in the buffer being scanned
  const char* handedUpTo_ = nullptr;  // the end of the last line handed on
  // The cache's name first, then the words of a notice.
  WordSearch words_{{{NEEDLE, 0, 12}, {EXPIRED, 2, 3}, {IDENTICAL, 2, 7}}};
  WordSearch::Hit next_;
  NextWord section_{SECTION_START};
};

}  // namespace

ReadResult readCapture(CaptureSource& source, const std::string& name, LineSink& sink) {
  ReadResult result;
  Scanner scanner(sink, result);
  // The buffer holds one guard byte before the data, so that a search that
  // starts one byte early never leaves it; the guard is a line feed. It
  // starts small and grows to a block while the capture fills it.
  std::vector<char> buffer(FIRST_BLOCK_BYTES + 1);
  buffer[0] = '\n';
  std::size_t block = FIRST_BLOCK_BYTES;
  char* data = buffer.data() + 1;
  std::size_t kept = 0;      // bytes of an unfinished line carried over
  bool skipping = false;     // inside a line longer than a block
  bool skippedName = false;  // the skipped line names the cache
  for (;;) {
    if (kept == block && block < BLOCK_BYTES) {
      block = std::min(block * 4, BLOCK_BYTES);
      buffer.resize(block + 1);
      data = buffer.data() + 1;
    }
    if (kept == block) {  // no line feed in a whole block
      skippedName = skippedName || namesTheCache(data, data + kept);
      skipping = true;
      kept = 0;
    }
    const long got = source.read(data + kept, block - kept);
    if (got < 0) {
      result.error = source.error();
      return result;
    }
    auto fresh = static_cast<std::size_t>(got);
    if (result.bytes == 0 && findWord(data, data + std::min(fresh, BUG_REPORT_HEADER_BYTES),
                                      BUG_REPORT_START) != nullptr) {
      scanner.expectSections();
    }
    result.bytes += fresh;
    result.nulBytes += removeNuls(data + kept, fresh);
    std::size_t filled = kept + fresh;
    if (skipping) {
      const char* feed = static_cast<const char*>(std::memchr(data, '\n', filled));
      if (feed == nullptr && got > 0) {
        kept = filled;
        continue;
      }
      const char* stop = feed == nullptr ? data + filled : feed;
      scanner.skippedLine(skippedName || namesTheCache(data, stop), feed != nullptr);
      skipping = false;
      skippedName = false;
      const std::size_t after =
          feed == nullptr ? filled : static_cast<std::size_t>(feed - data) + 1;
      std::memmove(data, data + after, filled - after);
      filled -= after;
    }
    if (got == 0) {
      scanner.scan(data, data + filled);
      break;
    }
    if (filled == block && block < BLOCK_BYTES) {  // more to come: read more at a time
      block = std::min(block * 4, BLOCK_BYTES);
      buffer.resize(block + 1);
      data = buffer.data() + 1;
    }
    const char* lastFeed = static_cast<const char*>(memrchr(data, '\n', filled));
    const std::size_t complete =
        lastFeed == nullptr ? 0 : static_cast<std::size_t>(lastFeed - data) + 1;
    scanner.scan(data, data + complete);
    kept = filled - complete;
    std::memmove(data, data + complete, kept);
  }
  sink.finish();
  if (result.bytes == 0) {
    result.error = name + " is empty";
    return result;
  }
  result.ok = true;
  return result;
}

}  // namespace veranda::reachabilityCache::trace
