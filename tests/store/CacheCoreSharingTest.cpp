// Queries share the store while changes take it alone: under a stream of
// queries from several threads, changes still get through, the queries keep
// going while they do, and every answer is one the store could give.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "StoreTestSupport.h"
#include "store/CacheCore.h"

namespace veranda::reachabilityCache {
namespace {

constexpr int READERS = 3;
constexpr int STABLE_ENTITIES = 40;
// Far longer than the writes take on any machine, under any sanitizer.
constexpr std::chrono::seconds GENEROUS{60};

std::string stable(int index) { return "stable" + std::to_string(index); }

class CacheCoreSharingTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    LogRecorder::instance().setMode(test::LogCapture::Mode::SILENCE);  // millions of query lines
  }
  void TearDown() override { LogRecorder::instance().setMode(test::LogCapture::Mode::COLLECT); }
};

TEST_F(CacheCoreSharingTest, ChangesGetThroughAStreamOfQueriesThatNeverStops) {
  CacheCore store(STABLE_ENTITIES + 2);
  for (int i = 0; i < STABLE_ENTITIES; ++i) {
    store.insertEndpoint(
        record("ep-" + stable(i), stable(i), ApplianceDriverType::NATIVE, {POWER}));
  }

  std::atomic<bool> stop{false};
  std::atomic<int> wrongAnswers{0};
  std::vector<std::atomic<uint64_t>> queries(READERS);
  std::vector<std::thread> readers;
  readers.reserve(READERS);
  for (int reader = 0; reader < READERS; ++reader) {
    readers.emplace_back([&, reader] {
      for (int i = reader; !stop.load(); ++i) {
        const std::string entity = stable(i % STABLE_ENTITIES);
        bool right = store.isEntityReachable(entity) && store.isCapabilityReachable(entity, POWER);
        right = right && store.getEndpointIdForEntity(entity) == "ep-" + entity;
        // The entity that the writer moves is present with its one endpoint,
        // or absent: never in between.
        const std::vector<EndpointInfo> moving = store.getEndpointsForEntity("moving");
        right = right && (moving.empty() || (moving.size() == 1 && moving[0].endpointId == "ep-m"));
        if (i % 64 == 0) {
          right = right && store.getReachableEntityIds().size() >= STABLE_ENTITIES;
        }
        wrongAnswers += right ? 0 : 1;
        queries[reader].fetch_add(1);
      }
    });
  }
  const auto queriesSoFar = [&] {
    std::vector<uint64_t> counts;
    counts.reserve(queries.size());
    for (const auto& count : queries) {
      counts.push_back(count.load());
    }
    return counts;
  };
  const auto everyReaderPassed = [&](const std::vector<uint64_t>& marks, uint64_t margin) {
    const std::vector<uint64_t> now = queriesSoFar();
    for (int reader = 0; reader < READERS; ++reader) {
      if (now[reader] < marks[reader] + margin) {
        return false;
      }
    }
    return true;
  };

  // The writer starts once every reader is querying, and writes until every
  // reader has made many queries since: both kinds run side by side.
  std::vector<uint64_t> atFirstWrite;
  std::vector<uint64_t> atLastWrite;
  std::future<int> writer = std::async(std::launch::async, [&] {
    while (!everyReaderPassed(std::vector<uint64_t>(READERS, 0), 1) && !stop.load()) {
      std::this_thread::yield();
    }
    atFirstWrite = queriesSoFar();
    int writes = 0;
    while ((writes < 400 || !everyReaderPassed(atFirstWrite, 200)) && !stop.load()) {
      store.insertEndpoint(record("ep-m", "moving", ApplianceDriverType::NATIVE, {POWER}));
      store.clearEndpointCapabilities("moving", "ep-m");
      store.removeEntity("moving");
      writes += 3;
    }
    atLastWrite = queriesSoFar();
    return writes;
  });

  const bool writerDone = writer.wait_for(GENEROUS) == std::future_status::ready;
  stop = true;  // lets a starved writer finish, so that the test ends
  const int writes = writer.get();
  for (std::thread& reader : readers) {
    reader.join();
  }
  // A writer that starves, or readers that stop while it writes, keep the
  // writer's loop going until the timeout.
  std::string progress;
  for (int reader = 0; reader < READERS; ++reader) {
    progress += " " + std::to_string(atLastWrite[reader] - atFirstWrite[reader]);
  }
  EXPECT_TRUE(writerDone) << writes << " writes in " << GENEROUS.count()
                          << " s; queries per reader meanwhile:" << progress;
  EXPECT_EQ(wrongAnswers.load(), 0);
  EXPECT_FALSE(store.isEntityPresent("moving"));
  EXPECT_EQ(store.size(), static_cast<std::size_t>(STABLE_ENTITIES));
}

}  // namespace
}  // namespace veranda::reachabilityCache
