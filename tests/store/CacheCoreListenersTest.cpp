#include <gtest/gtest.h>

#include <string>
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
  store_.notifyReachabilityListeners("ep1", kPrefix + "lamp", false);
  EXPECT_EQ(takeLines(), Lines{debugLine("[notifyReachabilityListeners]: "
                                         "action=notifyReachabilityListeners endpointId=ep1 "
                                         "entityId=orbt1.veyra.endpoint.lamp isReachable=false "
                                         "listenerCount=2")});
  const std::vector<Notification> once = {{"ep1", kPrefix + "lamp", false}};
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

}  // namespace
}  // namespace veranda::reachabilityCache
