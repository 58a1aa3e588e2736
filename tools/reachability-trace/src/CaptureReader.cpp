#include "CaptureReader.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::size_t BLOCK_BYTES = std::size_t{4} << 20;
constexpr std::string_view NEEDLE = "ReachabilityCache";
constexpr std::string_view RATE_LIMITER = "chatty";
constexpr std::string_view SECTION_START = "\n------ ";

const char* find(const char* from, const char* to, std::string_view needle) {
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

const char* lineStart(const char* begin, const char* at) {
  while (at > begin && at[-1] != '\n') {
    --at;
  }
  return at;
}

bool namesTheCache(const char* from, const char* to) {
  return find(from, to, NEEDLE) != nullptr || find(from, to, RATE_LIMITER) != nullptr;
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

// The next place in a buffer where one of a few words occurs, each searched
// for once per buffer however often it is asked.
class NextWord {
 public:
  explicit NextWord(std::string_view word) : word_(word) {}
  void reset() { next_ = nullptr; }
  const char* at(const char* from, const char* end) {
    if (next_ == nullptr || (next_ != end && next_ < from)) {
      next_ = find(from, end, word_);
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
  Scanner(LineSink& sink, ReadResult& result) : sink_(sink), result_(result) {}

  // Hands on the wanted lines of [begin, end): `begin` starts a line and
  // the byte before it is a line feed; `end` follows a line feed or ends the
  // input.
  void scan(const char* begin, const char* end) {
    const char* at = begin;
    handedUpTo_ = begin;
    needle_.reset();
    limiter_.reset();
    section_.reset();
    while (at < end) {
      if (sink_.wantsNextLine()) {
        at = handOn(at, end);
        continue;
      }
      const char* needle = nearest(needle_.at(at, end), limiter_.at(at, end));
      // The search starts one byte early so that a section line right at
      // `at` is found by its line feed before it.
      const char* section = section_.at(at - 1, end);
      if (section != nullptr && (needle == nullptr || section < needle)) {
        const char* start = section + 1;
        const char* stop = lineEnd(start, end);
        sectionLine(std::string_view(start, static_cast<std::size_t>(stop - start)));
        at = stop;
        continue;
      }
      if (needle == nullptr) {
        return;
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
  }

  // A line longer than a block was skipped.
  void skippedLine(bool named) {
    if (inLog_ && named) {
      ++result_.overLongLines;
      sink_.skippedLine();
    }
  }

 private:
  static const char* nearest(const char* a, const char* b) {
    return a == nullptr ? b : b == nullptr ? a : std::min(a, b);
  }

  const char* handOn(const char* start, const char* end) {
    const char* stop = lineEnd(start, end);
    handedUpTo_ = stop;
    const auto length = static_cast<std::size_t>(stop - start);
    if (inLog_ && length > MAX_LINE_BYTES) {
      skippedLine(true);
    } else if (inLog_) {
      sink_.line(std::string_view(start, length));
    }
    return stop < end ? stop + 1 : end;
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
  bool inLog_ = true;
  const char* handedUpTo_ = nullptr;  // the end of the last line handed on
  NextWord needle_{NEEDLE};
  NextWord limiter_{RATE_LIMITER};
  NextWord section_{SECTION_START};
};

}  // namespace

ReadResult readCapture(CaptureSource& source, const std::string& name, LineSink& sink) {
  ReadResult result;
  Scanner scanner(sink, result);
  // The buffer holds one guard byte before the data, so that a search that
  // starts one byte early never leaves it; the guard is a line feed.
  std::vector<char> buffer(BLOCK_BYTES + 1);
  buffer[0] = '\n';
  char* const data = buffer.data() + 1;
  std::size_t kept = 0;      // bytes of an unfinished line carried over
  bool skipping = false;     // inside a line longer than a block
  bool skippedName = false;  // the skipped line names the cache
  for (;;) {
    if (kept == BLOCK_BYTES) {  // no line feed in a whole block
      skippedName = skippedName || namesTheCache(data, data + kept);
      skipping = true;
      kept = 0;
    }
    const long got = source.read(data + kept, BLOCK_BYTES - kept);
    if (got < 0) {
      result.error = source.error();
      return result;
    }
    auto fresh = static_cast<std::size_t>(got);
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
      scanner.skippedLine(skippedName || namesTheCache(data, stop));
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
