// What a capture may be packed or encoded in: zipped bug reports, gzip,
// UTF-16 from a Windows shell, byte-order marks, NUL bytes, lines too long
// to be a log's.
#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "SimCaptures.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;  // (name, content)

// `entries` as a zip, or, with `gzip`, the one entry's content gzipped.
std::string packed(const Entries& entries, bool gzip) {
  std::size_t size = 1 << 16;
  for (const auto& entry : entries) {
    size += entry.second.size() * 2;
  }
  std::string bytes(size, '\0');
  std::size_t used = 0;
  archive* out = archive_write_new();
  if (gzip) {
    archive_write_add_filter_gzip(out);
    archive_write_set_format_raw(out);
  } else {
    archive_write_set_format_zip(out);
  }
  EXPECT_EQ(archive_write_open_memory(out, bytes.data(), bytes.size(), &used), ARCHIVE_OK);
  for (const auto& [name, content] : entries) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, name.c_str());
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_entry_set_perm(entry, 0644);
    archive_entry_set_size(entry, static_cast<la_int64_t>(content.size()));
    EXPECT_EQ(archive_write_header(out, entry), ARCHIVE_OK) << archive_error_string(out);
    EXPECT_EQ(archive_write_data(out, content.data(), content.size()),
              static_cast<la_ssize_t>(content.size()));
    archive_entry_free(entry);
  }
  archive_write_close(out);
  archive_write_free(out);
  bytes.resize(used);
  return bytes;
}

// UTF-8 text as UTF-16, with or without its byte-order mark.
std::string utf16(const std::string& text, bool bigEndian, bool mark) {
  std::string out = mark ? (bigEndian ? "\xFE\xFF" : "\xFF\xFE") : "";
  const auto unit = [&](uint32_t value) {
    const char high = static_cast<char>(value >> 8);
    const char low = static_cast<char>(value & 0xFF);
    out += bigEndian ? std::string{high, low} : std::string{low, high};
  };
  for (std::size_t at = 0; at < text.size();) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const std::size_t length = byte < 0x80 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
    uint32_t codePoint = length == 1 ? byte : byte & (0x3F >> (length - 1));
    for (std::size_t i = 1; i < length; ++i) {
      codePoint = (codePoint << 6) | (static_cast<unsigned char>(text[at + i]) & 0x3F);
    }
    at += length;
    if (codePoint >= 0x10000) {
      unit(0xD800 + ((codePoint - 0x10000) >> 10));
      unit(0xDC00 + ((codePoint - 0x10000) & 0x3FF));
    } else {
      unit(codePoint);
    }
  }
  return out;
}

std::string withNuls(const std::string& text, std::size_t every, std::size_t& inserted) {
  std::string out;
  inserted = 0;
  for (std::size_t at = 0; at < text.size(); at += every) {
    out += text.substr(at, every);
    out += '\0';
    ++inserted;
  }
  return out;
}

std::map<std::string, std::string> changesOf(const Trace& trace) {
  std::map<std::string, std::string> result;
  for (const EntityRecord& entity : trace.caches.at(0).entities) {
    for (const ChangeRecord& change : entity.changes) {
      result[entity.id] +=
          std::string(entity.endpointOf(change)) + (change.reachable ? "+ " : "- ");
    }
    for (const AnswerRecord& answer : entity.answers) {
      result[entity.id] += tools::answerName(answer.answer);
    }
  }
  return result;
}

// The lines that every cause and change of the trace shows, by number.
std::map<uint64_t, std::string> numberedLines(const Trace& trace) {
  std::map<uint64_t, std::string> lines;
  for (const CacheRecord& cache : trace.caches) {
    for (const EntityRecord& entity : cache.entities) {
      for (const AnswerCause& cause : entity.causes) {
        for (const EvidenceLine& line : cause.lines) {
          lines.emplace(line.number, *line.text);
        }
      }
      for (const std::vector<EvidenceLine>& change : entity.evidence) {
        for (const EvidenceLine& line : change) {
          lines.emplace(line.number, *line.text);
        }
      }
    }
  }
  return lines;
}

CaptureTrace withEveryEntitysLines(const std::string& capture) {
  TraceScope scope;
  scope.evidence.everyEntity = true;
  return traceText(capture, scope);
}

std::string bugReport(const std::string& systemLog, const std::string& lastLogcat) {
  return "== dumpstate: 2026-11-22 12:00:00\n"
         "------ SYSTEM LOG (logcat -v threadtime -v printable -v uid -d *:v) ------\n" +
         systemLog +
         "------ 0.9s was the duration of 'SYSTEM LOG' ------\n"
         "------ DUMPSYS (dumpsys) ------\nReachabilityCache: whatever it dumps\n"
         "------ LAST LOGCAT (logcat -L -v threadtime -v printable -v uid -d *:v) ------\n" +
         lastLogcat;
}

// ... with the same lines behind it, numbered as read: after unpacking and
// decoding, the first line of the text 1 (a bug report's header and section
// line count too).
TEST(TraceInputTest, EveryPackingAndEncodingTellsTheSameHistory) {
  const SimOutput sim =
      runSimulator("--devices 12 --duration 3 --interval 1 --flap-rate 30 --fast --seed 9");
  const std::string capture = deviceCapture(simMessages(sim.log));
  const CaptureTrace plain = withEveryEntitysLines(capture);
  ASSERT_TRUE(plain.ok) << plain.error;
  const std::map<std::string, std::string> expected = changesOf(plain.trace);
  const std::map<uint64_t, std::string> expectedLines = numberedLines(plain.trace);
  ASSERT_GT(expectedLines.size(), 50u);
  const std::vector<std::string> lines = linesOf(capture);
  for (const auto& [number, line] : expectedLines) {
    ASSERT_LE(number, lines.size());
    ASSERT_EQ(line, lines[number - 1]) << "line " << number;
  }
  std::size_t nuls = 0;
  const std::string withNul = withNuls(capture, 997, nuls);
  const struct {
    const char* name;
    std::string bytes;
    std::string encoding;
    std::string archive;
    uint64_t nulBytes;
    uint64_t linesBefore = 0;  // of the capture's first
  } inputs[] = {
      {"UTF-8 with its mark", "\xEF\xBB\xBF" + capture, "UTF-8", "", 0},
      {"UTF-16LE", utf16(capture, false, true), "UTF-16LE", "", 0},
      {"UTF-16BE", utf16(capture, true, true), "UTF-16BE", "", 0},
      {"UTF-16LE without a mark", utf16(capture, false, false), "UTF-16LE", "", 0},
      {"NUL bytes everywhere", withNul, "UTF-8", "", nuls},
      {"gzip", packed({{"capture.txt", capture}}, true), "UTF-8", "gzip", 0},
      {"gzipped UTF-16", packed({{"c", utf16(capture, false, true)}}, true), "UTF-16LE", "gzip", 0},
      {"zipped bug report",
       packed({{"version.txt", "2.0"},
               {"FS/data/misc/logd/logcat", "ReachabilityCache " + capture},
               {"bugreport-device-build-2026-11-22.txt", bugReport(capture, "")},
               {"main_entry.txt", "bugreport-device-build-2026-11-22.txt"}},
              false),
       "UTF-8", "zip", 0, 2},
  };
  for (const auto& input : inputs) {
    SCOPED_TRACE(input.name);
    const CaptureTrace read = withEveryEntitysLines(input.bytes);
    ASSERT_TRUE(read.ok) << read.error;
    EXPECT_EQ(changesOf(read.trace), expected);
    std::map<uint64_t, std::string> numbered;
    for (const auto& [number, line] : numberedLines(read.trace)) {
      numbered.emplace(number - input.linesBefore, line);
    }
    EXPECT_EQ(numbered, expectedLines);
    EXPECT_EQ(read.trace.messages, plain.trace.messages);
    EXPECT_EQ(read.trace.damagedLines, 0u);
    EXPECT_EQ(read.trace.encoding, input.encoding);
    EXPECT_EQ(read.trace.archive, input.archive);
    EXPECT_EQ(read.trace.nulBytes, input.nulBytes);
  }
}

Message created(const std::string& time, int pid, int size) {
  return {time,
          pid,
          pid,
          'I',
          FACADE,
          "[ReachabilityCache]: event=cacheCreated maxCacheSize=" + std::to_string(size) +
              " periodicUpdates=false"};
}

// A zip names its text in main_entry.txt; failing that, its first text.
TEST(TraceInputTest, FindsTheBugReportInAZip) {
  const std::string wanted = render(created("11-22 12:00:00.000", 7, 3), Form::THREADTIME);
  const std::string decoy = render(created("11-22 12:00:00.000", 8, 5), Form::THREADTIME);
  const CaptureTrace named = traceText(packed({{"main_entry.txt", "bugreport-b.txt\n"},
                                               {"bugreport-a.txt", decoy},
                                               {"bugreport-b.txt", wanted}},
                                              false));
  ASSERT_TRUE(named.ok) << named.error;
  EXPECT_EQ(named.trace.entry, "bugreport-b.txt");
  EXPECT_EQ(named.trace.caches.at(0).maxCacheSize, 3u);

  const CaptureTrace any = traceText(packed({{"FS/x.txt", decoy}, {"logcat.txt", wanted}}, false));
  ASSERT_TRUE(any.ok) << any.error;
  EXPECT_EQ(any.trace.entry, "logcat.txt");

  EXPECT_EQ(traceText(packed({{"FS/x.txt", decoy}, {"image.png", "\x89PNG"}}, false)).error,
            "capture is a zip without a bug report's text (bugreport-*.txt); it holds FS/x.txt, "
            "image.png");
  const std::string broken = traceText(std::string("\x1F\x8B\x08\0 not gzip at all", 19)).error;
  EXPECT_EQ(broken.rfind("cannot unpack capture: ", 0), 0u) << broken;
}

// The log of the boot before is a cache of its own, labelled; the current
// boot's is the one drawn unless --cache says otherwise.
TEST(TraceInputTest, LabelsTheBootsOfABugReport) {
  const std::string current = render(created("11-22 12:00:00.000", 7, 3), Form::UID_YEAR_USEC);
  const std::string before = render(created("11-22 09:00:00.000", 7, 5), Form::UID_YEAR_USEC);
  const CaptureTrace read = traceText(bugReport(current, before));
  ASSERT_TRUE(read.ok) << read.error;
  ASSERT_EQ(read.trace.caches.size(), 2u);
  const CacheRecord& first = read.trace.caches[0];
  const CacheRecord& last = read.trace.caches[1];
  EXPECT_TRUE(first.section == "SYSTEM LOG" && !first.previousBoot && first.maxCacheSize == 3u);
  EXPECT_TRUE(last.section == "LAST LOGCAT" && last.previousBoot && last.maxCacheSize == 5u);
  EXPECT_EQ(defaultCache(read.trace), 0u);
  EXPECT_FALSE(first.replacedBy) << "another boot's cache replaces nothing";
  std::ostringstream report;
  printReport(read.trace, report);
  EXPECT_NE(report.str().find("Cache 2 (pid 7, LAST LOGCAT: the boot before)"), std::string::npos)
      << report.str();
}

// A line longer than any log's is skipped whole, never read as lines.
TEST(TraceInputTest, SkipsOverLongLinesWhole) {
  const std::string forged =
      "\n11-22 12:00:01.000     7     7 I ReachabilityCache-ReachabilityCache: "
      "[ReachabilityCache]: event=cacheCreated maxCacheSize=666 periodicUpdates=false";
  for (std::size_t length : {std::size_t{100} << 10, std::size_t{5} << 20}) {
    SCOPED_TRACE(length);
    // Another process's line carries, after a long run of text, what looks
    // like a line of the cache.
    const std::string capture =
        render(created("11-22 12:00:00.000", 7, 3), Form::THREADTIME) +
        "11-22 12:00:00.500   900   900 I Other: " + std::string(length, 'x') +
        " ReachabilityCache" + forged.substr(1) + "\n" +
        render(Message{"11-22 12:00:02.000", 7, 7, 'I', STORE,
                       "[insertEndpoint]: action=newEntity entityId=plug endpointId=plug-wifi"},
               Form::THREADTIME);
    const CaptureTrace read = traceText(capture, "plug");
    ASSERT_TRUE(read.ok) << read.error;
    EXPECT_EQ(read.trace.overLongLines, 1u);
    ASSERT_EQ(read.trace.caches.size(), 1u);
    EXPECT_EQ(read.trace.caches[0].maxCacheSize, 3u);
    EXPECT_EQ(read.trace.messages, 2u);
    // The skipped line still counts: the insert is line 3.
    const EntityRecord* plug = read.trace.caches[0].findEntity("plug");
    ASSERT_TRUE(plug != nullptr && !plug->causes.empty());
    EXPECT_EQ(plug->causes.back().lines.back().number, 3u);
  }
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
