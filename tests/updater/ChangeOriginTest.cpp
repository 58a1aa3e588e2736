// Each of the updater's changes reaches the store's followers with what
// caused it.
#include "UpdaterTestSupport.h"
#include "store/ChangeFeed.h"

namespace veranda::reachabilityCache {
namespace {

using ::testing::Pair;
using ::testing::UnorderedElementsAre;

using ChangeOriginTest = UpdaterTest;

TEST_F(ChangeOriginTest, SweepsResultsManualChecksAndEventsAreToldApart) {
  const ChangeFeed::SubscriberId follower = store->changeFeed().subscribe(nullptr);
  store->insertEndpoint(CachedEndpoint(endpoint("ep-old", "e9")));
  store->changeFeed().take(follower);
  provider.setEndpoints({endpoint("ep1", "e1"), endpoint("ep2", "e2")});
  createUpdater(&provider);
  updater->startPeriodicUpdates(std::chrono::seconds(3600), std::chrono::milliseconds(0));
  time.runUntilIdle();
  EXPECT_THAT(store->changeFeed().take(follower),
              UnorderedElementsAre(Pair("e9", ChangeOrigin::SWEEP)));

  // Every entity a result names, also one whose result changes nothing.
  checker->completeNextCheck({reachable("ep1", "e1"), unreachable("ep2", "e2")});
  EXPECT_THAT(store->changeFeed().take(follower),
              UnorderedElementsAre(Pair("e1", ChangeOrigin::PERIODIC_CHECK),
                                   Pair("e2", ChangeOrigin::PERIODIC_CHECK)));

  updater->triggerUpdate({endpoint("ep3", "orbt1.veyra.endpoint.e3")});
  time.runUntilIdle();
  checker->completeNextCheck({unreachable("ep3", "orbt1.veyra.endpoint.e3")});
  EXPECT_THAT(store->changeFeed().take(follower),
              UnorderedElementsAre(Pair("e3", ChangeOrigin::MANUAL_CHECK)));

  ASSERT_TRUE(updater->enableProactiveUpdates());
  checker->deliverEvent(test::makeResult(EndpointInfo("ep1", "", "", {}), false));
  checker->deliverEvent(test::makeResult(EndpointInfo("ep-unknown", "", "", {}), false));
  time.runUntilIdle();  // both applied on the worker; the second names no entity
  EXPECT_THAT(store->changeFeed().take(follower),
              UnorderedElementsAre(Pair("e1", ChangeOrigin::CONNECTIVITY_EVENT)));
  EXPECT_EQ(currentChangeOrigin(), ChangeOrigin::HOST);
}

}  // namespace
}  // namespace veranda::reachabilityCache
