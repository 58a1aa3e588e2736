// Whatever an entity id holds, the pictures stay well-formed XML and the
// terminal sees no raw control characters.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "CaptureFiles.h"
#include "Report.h"
#include "SafeText.h"
#include "SvgWriter.h"
#include "Timeline.h"
#include "TimelineSvg.h"
#include "TraceOutput.h"

namespace veranda::reachabilityCache::trace::testing {
namespace {

const std::string HOSTILE[] = {
    "lamp <\"kitchen\" & 'hall'>",
    "\x1b[31mred\x07 plug\x01",
    std::string(20, 'x') +
        "\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9"
        "\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9",  // 32 characters, 44 bytes
    "bad \xff\xfe bytes \xef\xbf\xbe",
    "\xc2\x85next-line\x7f",
};

// xmllint's verdict on `document`: empty when well-formed.
std::string xmlProblems(const std::string& document) {
  const std::string path = ::testing::TempDir() + "picture.svg";
  std::ofstream(path, std::ios::binary) << document;
  const std::string command = "xmllint --noout " + path + " 2>&1";
  std::FILE* pipe = ::popen(command.c_str(), "r");
  std::string output;
  char buffer[512];
  while (pipe != nullptr && std::fgets(buffer, sizeof(buffer), pipe) != nullptr) {
    output += buffer;
  }
  const int status = pipe == nullptr ? -1 : ::pclose(pipe);
  return status == 0 ? "" : "xmllint (from libxml2-utils) says: " + output;
}

bool hasRawControl(const std::string& text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) < 0x20 && c != '\n') || c == 0x7f;
  });
  return false;
}

TEST(SafeTextTest, PicturesAreWellFormedXmlWhateverTheIds) {
  tools::TimelinePicture picture;
  picture.title = "home \x1b<&>";
  picture.durationMs = 1000;
  for (const std::string& label : HOSTILE) {
    picture.rows.push_back({label, {{0, 500, tools::Answer::REACHABLE}}, {250}});
  }
  EXPECT_EQ(xmlProblems(tools::timelineSvg(picture)), "");
  EXPECT_EQ(tools::shortened(HOSTILE[2], 30),
            std::string(20, 'x') + "\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9...");

  sim::RunReport report;  // the simulator's picture
  report.name = HOSTILE[1];
  report.durationMs = 1000;
  for (const std::string& entity : HOSTILE) {
    report.entities.push_back(entity);
    report.histories.push_back(
        {{{0, tools::Answer::ABSENT}, {10, tools::Answer::REACHABLE}}, {10}, 1});
  }
  EXPECT_EQ(xmlProblems(sim::timelineSvg(report)), "");

  std::string capture;  // the trace's picture
  for (const std::string& entity : HOSTILE) {
    capture += render(Message{"11-22 12:00:01.000", 5, 6, 'D', STORE,
                              "[notifyReachabilityListeners]: action=notifyReachabilityListeners "
                              "endpointId=ep entityId=" +
                                  entity + " isReachable=true listenerCount=1"},
                      Form::THREADTIME);
  }
  const CaptureTrace read = traceText(capture);
  ASSERT_TRUE(read.ok) << read.error;
  ASSERT_EQ(read.trace.caches.at(0).entities.size(), std::size(HOSTILE));
  EXPECT_EQ(xmlProblems(tools::timelineSvg(tracePicture(read.trace, 0, HOSTILE[0]))), "");

  std::ostringstream printed;
  printReport(read.trace, printed);
  EXPECT_FALSE(hasRawControl(printed.str())) << printed.str();
  EXPECT_NE(printed.str().find("\\x1b[31mred\\x07 plug\\x01"), std::string::npos);
}

TEST(SafeTextTest, TheSimulatorsTerminalOutputShowsControlsAsEscapes) {
  sim::Scenario scenario;
  scenario.name = HOSTILE[1];
  scenario.entities = {HOSTILE[1], HOSTILE[4]};
  scenario.devices.resize(2);
  scenario.devices[0].endpointId = "ep\x1b";
  scenario.devices[0].entityId = HOSTILE[1];
  scenario.devices[0].adapterName = "ADAPTER\x07";
  scenario.devices[0].online = false;  // listed before the run
  scenario.devices[1].endpointId = "ep2";
  scenario.devices[1].entityId = HOSTILE[4];
  scenario.devices[1].adapterName = "A";
  std::ostringstream out;
  const sim::RunClock clock(false);
  sim::Timeline timeline(scenario, clock, &out);
  timeline.start(true);
  timeline.notification("ep\x1b", HOSTILE[1], "ADAPTER\x07", true, true);
  timeline.trackerChange(HOSTILE[1], true);
  timeline.action({0, sim::Action::OFFLINE, "ep\x1b"}, scenario.devices[0], "now\x1b");
  timeline.observe(HOSTILE[4], tools::Answer::REACHABLE);
  timeline.remark(HOSTILE[4], "was refused\x1b");
  sim::printHomeSummary(scenario, out);
  sim::RunReport report;
  report.preferredAdapter = "A\x1b";
  report.table = {{HOSTILE[1], true, true, {{"ep\x1b", "ADAPTER\x07"}}, "ep\x1b"}};
  report.histories.resize(1);
  sim::printFinalTable(report, out);
  EXPECT_FALSE(hasRawControl(out.str())) << out.str();
  EXPECT_NE(out.str().find("\\x1b[31mred\\x07 plug\\x01"), std::string::npos);
  EXPECT_NE(out.str().find("next-line\\x7f"), std::string::npos);
  EXPECT_NE(out.str().find("\\u0085"), std::string::npos);
}

}  // namespace
}  // namespace veranda::reachabilityCache::trace::testing
