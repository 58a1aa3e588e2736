// Fuzzes reachability-trace with whole captures: any bytes (text of any
// layout, archives, UTF-16, NULs, lines of any length) are read without a
// crash or undefined behaviour, and every output keeps its promises: the
// report, the story and the answer at a moment are safe for a terminal, the
// JSON parses, the picture is drawn, the page's data parses and holds no
// '<' that could end its script, and the answers of each entity come in
// capture order.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "AnswerAt.h"
#include "CaptureMoment.h"
#include "CaptureTrace.h"
#include "FuzzCheck.h"
#include "TimelineSvg.h"
#include "TraceOutput.h"
#include "TracePage.h"

namespace {

using namespace veranda::reachabilityCache::trace;

bool safeForATerminal(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte >= 0x20 || c == '\n') && byte != 0x7F;
  });
  return true;
}

void checkTrace(const Trace& trace) {
  std::ostringstream report;
  printReport(trace, report);
  FUZZ_CHECK(safeForATerminal(report.str()));
  FUZZ_CHECK(nlohmann::json::accept(traceJson(trace)));
  for (std::size_t i = 0; i < trace.caches.size(); ++i) {
    const CacheRecord& cache = trace.caches[i];
    for (const EntityRecord& entity : cache.entities) {
      for (std::size_t k = 1; k < entity.answers.size(); ++k) {
        FUZZ_CHECK(entity.answers[k - 1].message <= entity.answers[k].message);
      }
      FUZZ_CHECK(entity.changes.size() + entity.changesLeftOut == entity.changeCount);
    }
    if (trace.hasTime) {
      FUZZ_CHECK(
          !veranda::reachabilityCache::tools::timelineSvg(tracePicture(trace, i, "f")).empty());
    }
  }
  if (trace.hasTime) {
    const std::string page = tracePageData(trace, 0, "fuzz");
    FUZZ_CHECK(page.find('<') == std::string::npos && nlohmann::json::accept(page));
  }
}

}  // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the name libFuzzer calls.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const int fd = memfd_create("capture", 0);
  FUZZ_CHECK(fd >= 0);
  FUZZ_CHECK(::write(fd, data, size) == static_cast<ssize_t>(size));
  FUZZ_CHECK(::lseek(fd, 0, SEEK_SET) == 0);
  // The story of the first entity named, if any.
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::size_t at = text.find("entityId=");
  const std::string story = at == std::string::npos
                                ? ""
                                : text.substr(at + 9, text.find_first_of(" ,)\n", at + 9) - at - 9);
  TraceScope scope;
  scope.evidence.entity = story;
  scope.evidence.everyEntity = true;  // the page's evidence, with its lines' numbers
  const CaptureTrace read = traceCapture(fd, "fuzz", scope);
  ::close(fd);
  if (!read.ok) {
    FUZZ_CHECK(!read.error.empty() && read.error.find('\n') == std::string::npos);
    return 0;
  }
  checkTrace(read.trace);
  if (!story.empty()) {
    std::ostringstream out;
    printEntityStory(read.trace, story, out);
    if (read.trace.hasTime) {
      printAnswerAt(read.trace, story, traceEnd(read.trace), out);
    }
    FUZZ_CHECK(safeForATerminal(out.str()));
  }
  return 0;
}
