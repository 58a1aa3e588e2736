#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "StoreTestSupport.h"
#include "reachabilityCache/testing/RecordingListener.h"
#include "store/CacheCore.h"

namespace veranda::reachabilityCache {
namespace {

using testing::Notification;
using testing::RecordingListener;

class CacheCoreListenersTest : public StoreTest {
 protected:
  CacheCore store_{4};
};

TEST_F(CacheCoreListenersTest, RegistrationKeepsTheFirstCallbackPerId) {
  RecordingListener first;
  RecordingListener second;
  takeLines();
  EXPECT_TRUE(store_.registerReachabilityListener("a", first.callback()));
  EXPECT_FALSE(store_.registerReachabilityListener("a", second.callback()));
  EXPECT_TRUE(store_.registerReachabilityListener("", second.callback()));
  EXPECT_TRUE(store_.unregisterReachabilityListener(""));
  EXPECT_FALSE(store_.unregisterReachabilityListener(""));
  const std::string reg = "[registerReachabilityListener]: action=registerReachabilityListener ";
  const std::string unreg =
      "[unregisterReachabilityListener]: action=unregisterReachabilityListener ";
  const std::vector<LogLine> expected = {
      infoLine(reg + "listenerId=a result=success totalListeners=1"),
      warnLine(reg + "listenerId=a result=alreadyExists"),
      infoLine(reg + "listenerId= result=success totalListeners=2"),
      infoLine(unreg + "listenerId= result=success totalListeners=1"),
      warnLine(unreg + "listenerId= result=notFound"),
  };
  EXPECT_EQ(takeLines(), expected);

  store_.notifyReachabilityListeners("ep1", "lamp", false);
  EXPECT_EQ(first.notifications(), (std::vector<Notification>{{"ep1", "lamp", false}}));
  EXPECT_EQ(second.count(), 0U);
}

TEST_F(CacheCoreListenersTest, NotificationCallsEachListenerOnceWithEndpointFirst) {
  store_.notifyReachabilityListeners("ep1", "lamp", true);
  EXPECT_TRUE(LogRecorder::instance().lines().empty());

  RecordingListener a;
  RecordingListener b;
  store_.registerReachabilityListener("a", a.callback());
  store_.registerReachabilityListener("b", b.callback());
  takeLines();
  store_.notifyReachabilityListeners("ep1", kPrefix + "lamp", true);
  EXPECT_EQ(takeLines(), std::vector<LogLine>{debugLine(
                             "[notifyReachabilityListeners]: action=notifyReachabilityListeners "
                             "endpointId=ep1 entityId=orbt1.veyra.endpoint.lamp isReachable=true "
                             "listenerCount=2")});
  const std::vector<Notification> once = {{"ep1", kPrefix + "lamp", true}};
  EXPECT_EQ(a.notifications(), once);
  EXPECT_EQ(b.notifications(), once);
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
  EXPECT_EQ(store_.getEntityIdForEndpoint("ep1"), "lamp");

  store_.notifyReachabilityListeners("ep1", "lamp", false);
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(steady.count(), 2U);
  EXPECT_EQ(late.notifications(), (std::vector<Notification>{{"ep1", "lamp", false}}));
}

TEST_F(CacheCoreListenersTest, ClearingTheStoreKeepsListeners) {
  RecordingListener listener;
  store_.registerReachabilityListener("a", listener.callback());
  store_.insertEndpoint(record("ep1", "lamp"));
  store_.clear();
  store_.notifyReachabilityListeners("ep1", "lamp", false);
  EXPECT_EQ(listener.count(), 1U);
  EXPECT_FALSE(store_.registerReachabilityListener("a", listener.callback()));
}

}  // namespace
}  // namespace veranda::reachabilityCache
