#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "StoreTestSupport.h"
#include "reachabilityCache/testing/RecordingListener.h"
#include "store/CacheCore.h"

namespace veranda::reachabilityCache {
namespace {

using test::Notification;
using test::RecordingListener;

class CacheCoreListenersTest : public StoreTest {
 protected:
  CacheCore store_{4};
};

TEST_F(CacheCoreListenersTest, EachIdKeepsItsFirstListenerAndHearsEveryNotificationOnce) {
  RecordingListener first;
  RecordingListener second;
  store_.notifyReachabilityListeners("ep0", "lamp", true);  // nobody to tell: no line
  EXPECT_TRUE(store_.registerReachabilityListener("a", first.callback()));
  EXPECT_FALSE(store_.registerReachabilityListener("a", second.callback()));
  EXPECT_TRUE(store_.registerReachabilityListener("", second.callback()));
  EXPECT_TRUE(store_.unregisterReachabilityListener(""));
  EXPECT_FALSE(store_.unregisterReachabilityListener(""));
  const std::string reg = "[registerReachabilityListener]: action=registerReachabilityListener ";
  const std::string unreg =
      "[unregisterReachabilityListener]: action=unregisterReachabilityListener ";
  EXPECT_EQ(takeLines(), (Lines{infoLine(reg + "listenerId=a result=success totalListeners=1"),
                                warnLine(reg + "listenerId=a result=alreadyExists"),
                                infoLine(reg + "listenerId= result=success totalListeners=2"),
                                infoLine(unreg + "listenerId= result=success totalListeners=1"),
                                warnLine(unreg + "listenerId= result=notFound")}));

  store_.registerReachabilityListener("b", second.callback());
  store_.clear();  // keeps the listeners
  takeLines();
  store_.notifyReachabilityListeners("ep1", PREFIX + "lamp", false);
  EXPECT_EQ(takeLines(), Lines{debugLine("[notifyReachabilityListeners]: "
                                         "action=notifyReachabilityListeners endpointId=ep1 "
                                         "entityId=orbt1.veyra.endpoint.lamp isReachable=false "
                                         "listenerCount=2")});
  const std::vector<Notification> once = {{"ep1", PREFIX + "lamp", false}};
  EXPECT_EQ(first.notifications(), once);
  EXPECT_EQ(second.notifications(), once);
}

TEST_F(CacheCoreListenersTest, ListenerMayUnregisterItselfAndReenterTheStore) {
  RecordingListener steady;
  RecordingListener late;
  int selfCalls = 0;
  store_.registerReachabilityListener("steady", steady.callback());
  store_.registerReachabilityListener(
      "self", [&](const std::string& endpointId, const std::string& entityId, bool) {
        ++selfCalls;
        EXPECT_TRUE(store_.unregisterReachabilityListener("self"));
        EXPECT_TRUE(store_.registerReachabilityListener("late", late.callback()));
        EXPECT_TRUE(store_.insertEndpoint(record(endpointId, entityId)));
        EXPECT_TRUE(store_.isEntityReachable(entityId));
      });

  store_.notifyReachabilityListeners("ep1", "lamp", true);
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(steady.count(), 1U);
  EXPECT_EQ(late.count(), 0U);

  store_.notifyReachabilityListeners("ep1", "lamp", false);
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(steady.count(), 2U);
  EXPECT_EQ(late.notifications(), (std::vector<Notification>{{"ep1", "lamp", false}}));
}

TEST_F(CacheCoreListenersTest, NotificationsRunConcurrentlyAndUnregisteringDoesNotWaitForThem) {
  constexpr std::chrono::seconds WAIT{5};
  std::mutex mutex;
  std::condition_variable changed;
  int inside = 0;
  int left = 0;
  bool released = false;
  store_.registerReachabilityListener("l", [&](const std::string&, const std::string&, bool) {
    std::unique_lock<std::mutex> lock(mutex);
    ++inside;
    changed.notify_all();
    changed.wait_for(lock, WAIT, [&] { return released; });
    ++left;
  });
  std::thread first([&] { store_.notifyReachabilityListeners("ep1", "lamp", true); });
  std::thread second([&] { store_.notifyReachabilityListeners("ep2", "fan", false); });
  std::unique_lock<std::mutex> lock(mutex);
  EXPECT_TRUE(changed.wait_for(lock, WAIT, [&] { return inside == 2; }));
  lock.unlock();
  EXPECT_TRUE(store_.unregisterReachabilityListener("l"));
  lock.lock();
  EXPECT_EQ(left, 0);  // both still running when unregistering returned
  released = true;
  changed.notify_all();
  lock.unlock();
  first.join();
  second.join();
}

// Listeners are called in the order of a copy of the table of listeners as
// it stands when the notification starts, each call on a copy of its own
// callback: state that a callback keeps does not carry over to the next call.
TEST_F(CacheCoreListenersTest, ListenersRunInTheOrderOfACopyOfTheTableEachOnItsOwnCopy) {
  std::vector<std::string> heard;
  std::unordered_map<std::string, int> table;  // the same ids, registered alike
  for (int i = 0; i < 60; ++i) {
    const std::string id = "listener-" + std::to_string(i * 37 % 101);
    store_.registerReachabilityListener(
        id, [&heard, id, calls = 0](const std::string&, const std::string&, bool) mutable {
          heard.push_back(id + " call " + std::to_string(++calls));
        });
    table.emplace(id, 0);
    if (i % 7 == 3) {
      const std::string gone = "listener-" + std::to_string(i * 37 % 101);
      store_.unregisterReachabilityListener(gone);
      table.erase(gone);
    }
  }
  std::vector<std::string> expected;
  const std::unordered_map<std::string, int> copy = table;
  expected.reserve(copy.size());
  for (const auto& entry : copy) {
    expected.push_back(entry.first + " call 1");
  }
  store_.notifyReachabilityListeners("ep", "entity", true);
  EXPECT_EQ(heard, expected);
  heard.clear();
  store_.notifyReachabilityListeners("ep", "entity", false);
  EXPECT_EQ(heard, expected);
}

}  // namespace
}  // namespace veranda::reachabilityCache
