#include "DeviceLog.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>
#include <string_view>

#include "scheduling/TimeSource.h"

namespace veranda::reachabilityCache::sim {
namespace {

// Android's priority letters, from 2 (verbose) to 7 (assert).
char priorityLetter(int priority) {
  constexpr std::string_view LETTERS = "VDIWEF";
  return priority >= 2 && priority <= 7 ? LETTERS[static_cast<std::size_t>(priority - 2)] : '?';
}

}  // namespace

DeviceLog::DeviceLog(std::FILE* out, int minimumPriority)
    : out_(out),
      minimumPriority_(minimumPriority),
      wallStart_(std::chrono::system_clock::now()),
      clockStart_(scheduling::TimeSource::instance().now()) {}

void DeviceLog::install() {
  setMetricSinkForTesting(this);
  setLogSinkForTesting(this);
}

void DeviceLog::stamp(char* text, std::size_t size) const {
  const auto elapsed = scheduling::TimeSource::instance().now() - clockStart_;
  const auto now =
      wallStart_ + std::chrono::duration_cast<std::chrono::system_clock::duration>(elapsed);
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(
                          now - std::chrono::system_clock::from_time_t(seconds))
                          .count();
  std::tm local{};
  localtime_r(&seconds, &local);
  std::snprintf(text, size, "%02d-%02d %02d:%02d:%02d.%03lld", local.tm_mon + 1, local.tm_mday,
                local.tm_hour, local.tm_min, local.tm_sec, static_cast<long long>(millis));
}

void DeviceLog::write(int priority, const char* tag, const char* text) {
  if (priority < minimumPriority_) {
    return;
  }
  char time[32];
  stamp(time, sizeof(time));
  char header[256];
  std::snprintf(header, sizeof(header), "%s %5d %5ld %c %s: ", time, static_cast<int>(getpid()),
                static_cast<long>(syscall(SYS_gettid)), priorityLetter(priority), tag);
  MutexLock lock(mutex_);
  // logcat repeats the header on every line of a message.
  const std::string_view message(text);
  std::size_t from = 0;
  for (;;) {
    const std::size_t end = message.find('\n', from);
    const std::string_view line =
        message.substr(from, end == std::string_view::npos ? end : end - from);
    std::fprintf(out_, "%s%.*s\n", header, static_cast<int>(line.size()), line.data());
    if (end == std::string_view::npos) {
      break;
    }
    from = end + 1;
  }
}

bool DeviceLog::take(int priority, const char* tag, const char* text) {
  write(priority, tag, text);
  return true;
}

}  // namespace veranda::reachabilityCache::sim
