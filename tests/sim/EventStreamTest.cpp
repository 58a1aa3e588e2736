// The events a scenario plays: listed ones and flaps made as they are taken.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "EventStream.h"
#include "GeneratedHome.h"

namespace veranda::reachabilityCache::sim {
namespace {

// Takes every event due before `untilMs`.
std::vector<Event> takeUntil(EventStream& stream, int64_t untilMs) {
  std::vector<Event> taken;
  while (stream.nextAtMs() && *stream.nextAtMs() < untilMs) {
    taken.push_back(stream.take());
  }
  return taken;
}

Scenario generated(int64_t devices, int64_t durationMs, double flapRate, uint32_t seed) {
  return generateHome({devices, durationMs, /*intervalSeconds=*/2, flapRate, seed});
}

// Every device drops and comes back in turn, 0.2 to 3 s later, about as often
// as its rate says: with drops of 1.6 s on average, 2 a minute make 60 / 31.6
// a minute.
TEST(EventStreamTest, FlapsAlternatePerDeviceAtTheirRate) {
  const Scenario home = generated(1000, 600000, 2, 11);
  EventStream stream(home);
  const std::vector<Event> events = takeUntil(stream, home.durationMs);
  EXPECT_FALSE(stream.nextAtMs()) << "nothing at or after the end";
  std::map<std::string, Event> last;
  int64_t drops = 0;
  int64_t downMs = 0;
  int64_t previousAtMs = 0;
  for (const Event& event : events) {
    // Each device starts online; generated events only turn it off or on.
    const Event before = last.emplace(event.endpointId, Event{0, Action::ONLINE, ""}).first->second;
    ASSERT_TRUE(event.atMs >= previousAtMs && event.action != before.action) << event.atMs;
    const int64_t down = event.atMs - before.atMs;
    ASSERT_TRUE(event.action == Action::OFFLINE || (down >= 200 && down <= 3000)) << down;
    drops += event.action == Action::OFFLINE ? 1 : 0;
    downMs += event.action == Action::ONLINE ? down : 0;
    previousAtMs = event.atMs;
    last[event.endpointId] = event;
  }
  const double expectedDrops = 1000 * 10 * 60 / 31.6;
  EXPECT_NEAR(static_cast<double>(drops), expectedDrops, expectedDrops * 0.03);
  EXPECT_NEAR(static_cast<double>(downMs) / static_cast<double>(drops), 1600, 30);
}

// At equal times listed events come first; none runs at or after the end.
TEST(EventStreamTest, ListedEventsMergeWithFlaps) {
  Scenario home = generated(3, 5000, 30, 2);
  EventStream flapsOnly(home);
  const Event firstFlap = flapsOnly.take();
  home.events = {{0, Action::PUSH, "listed-0"},
                 {firstFlap.atMs, Action::ADD, "listed-1"},
                 {5000, Action::REMOVE, "listed-at-end"}};
  EventStream stream(home);
  const std::vector<Event> events = takeUntil(stream, 1000000);
  ASSERT_GE(events.size(), 3u);
  EXPECT_EQ(events[0].endpointId, "listed-0");
  EXPECT_EQ(events[1].endpointId, "listed-1");
  EXPECT_EQ(events[2].endpointId, firstFlap.endpointId);
  EXPECT_EQ(events[2].atMs, firstFlap.atMs);
  EXPECT_NE(events.back().endpointId, "listed-at-end");
}

// A day of a hundred thousand devices dropping ten times a second each would
// be some 1e10 events: the home is made at once and its flaps as they are
// taken, the same for the same seed.
TEST(EventStreamTest, AHugeHomeMakesItsFlapsAsTheyAreTaken) {
  const Scenario home = generated(100000, 86400000, 600, 5);
  const Scenario otherSeed = generated(100000, 86400000, 600, 6);
  EXPECT_TRUE(home.events.empty());
  const auto firstEvents = [](const Scenario& scenario) {
    EventStream stream(scenario);
    std::string text;
    for (const Event& event : takeUntil(stream, 300)) {
      text += std::to_string(event.atMs) + event.endpointId + ";";
    }
    return text;
  };
  const std::string first = firstEvents(home);
  EXPECT_GT(std::count(first.begin(), first.end(), ';'), 10000);
  EXPECT_EQ(firstEvents(home), first);
  EXPECT_NE(firstEvents(otherSeed), first);
}

}  // namespace
}  // namespace veranda::reachabilityCache::sim
