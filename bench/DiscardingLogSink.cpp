// The platform log of the benchmark binaries: each line is formatted as the
// device's log does before it filters by priority, then dropped, so that what
// the benchmarks measure is the library's own work plus one formatting call.
#include <android/log.h>

#include <cstdarg>
#include <cstdio>

extern "C" int __android_log_print(int /*prio*/, const char* /*tag*/, const char* fmt, ...) {
  // The device formats into a buffer of this size and truncates longer lines.
  char buffer[1024];
  va_list args;
  va_start(args, fmt);
  const int length = std::vsnprintf(buffer, sizeof(buffer), fmt, args);
  va_end(args);
  // Keeps the formatting from being optimised away.
  asm volatile("" : : "r"(buffer) : "memory");
  return length;
}
