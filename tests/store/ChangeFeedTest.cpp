#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "StoreTestSupport.h"
#include "store/CacheCore.h"
#include "store/ChangeFeed.h"
#include "store/ChangeOrigin.h"

namespace veranda::reachabilityCache {
namespace {

using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

class ChangeFeedTest : public StoreTest {
 protected:
  CacheCore store_{2};
  ChangeFeed& feed_ = store_.changeFeed();
};

TEST_F(ChangeFeedTest, EverySubscriberTakesWhatChangesTouchedWithTheLatestOrigin) {
  store_.insertEndpoint(record("ep-before", "e0"));  // nobody follows yet
  store_.clear();
  const ChangeFeed::SubscriberId first = feed_.subscribe(nullptr);
  const ChangeFeed::SubscriberId second = feed_.subscribe(nullptr);

  store_.insertEndpoint(record("ep1", PREFIX + "e1"));
  {
    const ChangeOriginScope cycle(ChangeOrigin::PERIODIC_CHECK);
    store_.insertEndpoint(record("ep2", "e2", ApplianceDriverType::NO_DRIVER));
    store_.insertEndpoint(record("ep3", "e3"));  // refused: full
    store_.insertEndpoint(record("", "e2"));     // refused: no endpoint id
    store_.removeEndpoint("e2", "ep-unknown");   // nothing to remove
  }
  EXPECT_THAT(feed_.take(first), UnorderedElementsAre(Pair("e1", ChangeOrigin::HOST),
                                                      Pair("e2", ChangeOrigin::PERIODIC_CHECK)));
  EXPECT_THAT(feed_.take(first), IsEmpty());

  {
    const ChangeOriginScope sweep(ChangeOrigin::SWEEP);
    {
      const ChangeOriginScope event(ChangeOrigin::CONNECTIVITY_EVENT);
      store_.clearEndpointCapabilities("e1", "ep1");
    }
    store_.removeEndpoint("e2", "ep2");
  }
  EXPECT_EQ(currentChangeOrigin(), ChangeOrigin::HOST);
  // The second subscriber kept everything, each entity with its latest origin.
  EXPECT_THAT(feed_.take(second), UnorderedElementsAre(Pair("e1", ChangeOrigin::CONNECTIVITY_EVENT),
                                                       Pair("e2", ChangeOrigin::SWEEP)));

  feed_.unsubscribe(second);
  store_.insertEndpoint(record("ep4", "e4"));
  store_.removeEntity("e1");
  EXPECT_THAT(feed_.take(first),
              UnorderedElementsAre(Pair("e1", ChangeOrigin::HOST), Pair("e2", ChangeOrigin::SWEEP),
                                   Pair("e4", ChangeOrigin::HOST)));
  store_.clear();
  EXPECT_THAT(feed_.take(first), UnorderedElementsAre(Pair("e4", ChangeOrigin::HOST)));
  EXPECT_THAT(feed_.take(second), IsEmpty());
}

TEST_F(ChangeFeedTest, WhatAListenerChangesIsTheHostsWhateverItHeard) {
  const ChangeFeed::SubscriberId follower = feed_.subscribe(nullptr);
  store_.registerReachabilityListener(
      "pusher", [this](const std::string& /*endpointId*/, const std::string& /*entityId*/, bool) {
        store_.insertEndpoint(record("ep9", "e9"));
      });
  const ChangeOriginScope event(ChangeOrigin::CONNECTIVITY_EVENT);
  store_.notifyReachabilityListeners("ep1", "e1", true);
  EXPECT_EQ(currentChangeOrigin(), ChangeOrigin::CONNECTIVITY_EVENT);
  EXPECT_THAT(feed_.take(follower), UnorderedElementsAre(Pair("e9", ChangeOrigin::HOST)));
}

}  // namespace
}  // namespace veranda::reachabilityCache
