#include "CaptureReader.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

namespace veranda::reachabilityCache::trace {
namespace {

constexpr std::size_t BLOCK_BYTES = std::size_t{4} << 20;
constexpr std::string_view NEEDLE = "ReachabilityCache";
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

// Works through the complete lines of one buffer.
class Scanner {
 public:
  explicit Scanner(LineSink& sink) : sink_(sink), numbering_(sink.wantsLineNumbers()) {}

  // Hands on the wanted lines of [begin, end): `begin` starts a line and
  // the byte before it is a line feed; `end` follows a line feed or ends the
  // input.
  void scan(const char* begin, const char* end) {
    const char* at = begin;
    nextSection_ = nullptr;
    nextNeedle_ = nullptr;
    counted_ = begin;
    while (at < end) {
      if (sink_.wantsNextLine()) {
        at = handOn(at, end);
        continue;
      }
      const char* needle = nextNeedle(at, end);
      const char* section = nextSection(at, end);
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
      at = handOn(lineStart(at, needle), end);
    }
    if (numbering_) {
      lineFeeds_ += lineFeeds(counted_, end);
    }
  }

  bool sawSections() const { return sawSections_; }

 private:
  const char* handOn(const char* start, const char* end) {
    const char* stop = lineEnd(start, end);
    if (inLog_) {
      sink_.line(std::string_view(start, static_cast<std::size_t>(stop - start)), numberOf(start));
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

  const char* nextNeedle(const char* at, const char* end) {
    if (nextNeedle_ == nullptr || nextNeedle_ < at) {
      nextNeedle_ = find(at, end, NEEDLE);
      if (nextNeedle_ == nullptr) {
        nextNeedle_ = end;  // none in this buffer
      }
    }
    return nextNeedle_ == end ? nullptr : nextNeedle_;
  }

  const char* nextSection(const char* at, const char* end) {
    // The search starts one byte early so that a section line right at `at`
    // is found by its preceding line feed.
    const char* from = at - 1;
    if (nextSection_ == nullptr || nextSection_ < from) {
      nextSection_ = find(from, end, SECTION_START);
      if (nextSection_ == nullptr) {
        nextSection_ = end;
      }
    }
    return nextSection_ == end ? nullptr : nextSection_;
  }

  // "------ SYSTEM LOG (logcat -v threadtime ...) ------" opens a log
  // section; any other section line closes it.
  void sectionLine(std::string_view text) {
    sawSections_ = true;
    inLog_ = text.find("(logcat") != std::string_view::npos;
  }

  LineSink& sink_;
  const bool numbering_;
  bool inLog_ = true;
  bool sawSections_ = false;
  const char* nextNeedle_ = nullptr;
  const char* nextSection_ = nullptr;
  uint64_t lineFeeds_ = 0;         // before `counted_`
  const char* counted_ = nullptr;  // in the buffer being scanned
};

}  // namespace

ReadResult readCapture(int fd, const std::string& name, LineSink& sink) {
  ReadResult result;
  Scanner scanner(sink);
  // The buffer holds one guard byte before the data, so that a search that
  // starts one byte early never leaves it; the guard is a line feed.
  std::vector<char> buffer(BLOCK_BYTES + 1);
  buffer[0] = '\n';
  char* const data = buffer.data() + 1;
  std::size_t kept = 0;  // bytes of an unfinished line carried over
  bool first = true;     // only the first block is searched for binary data
  for (;;) {
    if (kept == BLOCK_BYTES) {  // one line longer than a block: hand on its first part
      scanner.scan(data, data + kept);
      kept = 0;
    }
    const ssize_t got = ::read(fd, data + kept, BLOCK_BYTES - kept);
    if (got < 0) {
      if (errno == EINTR) {
        continue;
      }
      result.error = "cannot read " + name + ": " + std::generic_category().message(errno);
      return result;
    }
    const std::size_t filled = kept + static_cast<std::size_t>(got);
    if (first && std::memchr(data, '\0', filled) != nullptr) {
      result.error = name + " is binary data, not a text log capture";
      return result;
    }
    first = false;
    result.bytes += static_cast<uint64_t>(got);
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
  result.sections = scanner.sawSections();
  result.ok = true;
  return result;
}

}  // namespace veranda::reachabilityCache::trace
