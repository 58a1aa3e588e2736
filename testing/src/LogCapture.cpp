#include "reachabilityCache/testing/LogCapture.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "diagnostics/LogSink.h"
#include "metrics/MetricSinkForTesting.h"
#include "sync/Mutex.h"

namespace veranda::reachabilityCache::test {

class LogCapture::Buffer {
 public:
  explicit Buffer(Mode mode) : mode_(mode) {}

  void receive(int priority, const char* tag, const char* text) {
    MutexLock lock(mutex_);
    if (echo_) {
      std::fprintf(stderr, "%d %s %s\n", priority, tag, text);
    }
    if (mode_ == Mode::COLLECT) {
      lines_.push_back({priority, tag, text});
    }
  }

  void setMode(Mode mode) {
    MutexLock lock(mutex_);
    mode_ = mode;
  }

  void setEcho(bool echo) {
    MutexLock lock(mutex_);
    echo_ = echo;
  }

  std::vector<LogLine> lines() const {
    MutexLock lock(mutex_);
    return lines_;
  }

  std::vector<LogLine> take() {
    MutexLock lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  mutable Mutex mutex_;
  Mode mode_ RC_GUARDED_BY(mutex_);
  bool echo_ RC_GUARDED_BY(mutex_) = false;
  std::vector<LogLine> lines_ RC_GUARDED_BY(mutex_);
};

namespace {

// Hands every line of the library and of the metric stand-in to each live
// capture. Installed in the library while a capture lives; installed in the
// metric stand-in for good with the first capture (see MetricSinkForTesting),
// so never destroyed, and it declines metric lines while no capture lives.
class CaptureHub final : public LogSinkForTesting, public MetricSinkForTesting {
 public:
  static CaptureHub& instance() {
    static auto* hub = new CaptureHub;
    return *hub;
  }

  void add(LogCapture::Buffer* buffer) {
    MutexLock changing(changeMutex_);
    bool first = false;
    {
      MutexLock lock(mutex_);
      buffers_.push_back(buffer);
      first = buffers_.size() == 1;
    }
    if (first) {
      setMetricSinkForTesting(this);
      setLogSinkForTesting(this);
    }
  }

  // Once it returns, no line reaches `buffer` any more.
  void remove(LogCapture::Buffer* buffer) {
    MutexLock changing(changeMutex_);
    bool last = false;
    {
      MutexLock lock(mutex_);
      last = buffers_.size() == 1;
    }
    if (last) {
      // Lines written until the library has let go still reach the buffer.
      setLogSinkForTesting(nullptr);
    }
    MutexLock lock(mutex_);
    buffers_.erase(std::find(buffers_.begin(), buffers_.end(), buffer));
  }

  void write(int priority, const char* tag, const char* text) override {
    take(priority, tag, text);
  }

  bool take(int priority, const char* tag, const char* text) override {
    MutexLock lock(mutex_);
    for (LogCapture::Buffer* buffer : buffers_) {
      buffer->receive(priority, tag, text);
    }
    return !buffers_.empty();
  }

 private:
  CaptureHub() = default;

  // Serialises add() and remove(). A buffer's mutex is taken after mutex_.
  Mutex changeMutex_;
  Mutex mutex_ RC_ACQUIRED_AFTER(changeMutex_);
  std::vector<LogCapture::Buffer*> buffers_ RC_GUARDED_BY(mutex_);
};

}  // namespace

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << "{" << line.priority << ", " << line.tag << ", \"" << line.text << "\"}";
}

LogCapture::LogCapture(Mode mode) : buffer_(std::make_unique<Buffer>(mode)) {
  CaptureHub::instance().add(buffer_.get());
}

LogCapture::~LogCapture() { CaptureHub::instance().remove(buffer_.get()); }

void LogCapture::setMode(Mode mode) { buffer_->setMode(mode); }

void LogCapture::setEcho(bool echo) { buffer_->setEcho(echo); }

std::vector<LogLine> LogCapture::lines() const { return buffer_->lines(); }

std::vector<LogLine> LogCapture::linesWithTag(const std::string& tag) const {
  std::vector<LogLine> found = lines();
  found.erase(std::remove_if(found.begin(), found.end(),
                             [&](const LogLine& line) { return line.tag != tag; }),
              found.end());
  return found;
}

std::vector<std::string> LogCapture::texts(const std::string& tag) const {
  std::vector<std::string> found;
  for (LogLine& line : linesWithTag(tag)) {
    found.push_back(std::move(line.text));
  }
  return found;
}

std::size_t LogCapture::count() const { return lines().size(); }

std::size_t LogCapture::countContaining(const std::string& tag, const std::string& fragment) const {
  const std::vector<LogLine> all = lines();
  return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [&](const LogLine& line) {
    return line.tag == tag && line.text.find(fragment) != std::string::npos;
  }));
}

bool LogCapture::contains(const LogLine& line) const {
  const std::vector<LogLine> all = lines();
  return std::find(all.begin(), all.end(), line) != all.end();
}

std::vector<LogLine> LogCapture::take() { return buffer_->take(); }

void LogCapture::clear() { buffer_->take(); }

}  // namespace veranda::reachabilityCache::test
