// The store's record on its way to the manager, between a real store daemon and the whole manager channel.

#include "app/ipreputation/ip_reputation_msg_handler.h"

#include <set>

#include "covedbclient/covedb_client.h"
#include "proto/covedb/firewall_objects.pb.h"
#include "sim/store/store_daemon.h"
#include "tests/mpaclient/channel_fixture.h"

namespace zem::Tarvik {
namespace {

namespace store = orlane::zem::covedb;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kVertical = "ZEM-IpReputationEventService";
constexpr const char* kStore = "tcp://127.0.0.1:2480";

class IpReputationTest : public ChannelTest {
 protected:
  ~IpReputationTest() override {
    if (handler_) handler_->Stop();
    client_.reset();
    clock.Settle();
    // Before the store's client, whose provider this is.
    provider.StopAndWait(true);
    daemon_.reset();
    store_provider_.StopAndWait(true);
  }

  void Start(bool with_store = true, bool with_manager = true) {
    if (with_store) {
      store_provider_.RunAsync(1);
      daemon_ = std::make_unique<sim::StoreDaemon>(store_provider_, kStore, registry_);
      client_ = std::make_shared<covedb::CoveDbClient>("tarvik-agent", kStore, provider, nullptr, true, true,
                                                       false);
      client_->StartAsync();
    }
    if (with_manager) StartManager();
    handler_ = std::make_shared<IpReputationMsgHandler>(provider, client_);
    ASSERT_TRUE(handler_->Start());
    proxy_client->Start();
    clock.RunFor(seconds(20));
  }

  void Change(store::ModifyMsg change) {
    store::ModifyRequestMsg request;
    *request.add_modify_msg() = std::move(change);
    ASSERT_TRUE(daemon_->store().Modify({request}).ok());
    clock.RunFor(milliseconds(100));
  }
  void Put(uint32_t count) {
    store::IpReputationRecordEventMsg record;
    record.set_record_count(count);
    store::ModifyMsg change;
    change.mutable_put_msg()->set_object_type(store::IP_REPUTATION_RECORD_EVENT);
    change.mutable_put_msg()->set_object(record.SerializeAsString());
    Change(std::move(change));
  }
  void Delete() {
    store::ModifyMsg change;
    change.mutable_delete_msg()->set_object_type(store::IP_REPUTATION_RECORD_EVENT);
    change.mutable_delete_msg()->set_object(store::IpReputationRecordEventMsg().SerializeAsString());
    Change(std::move(change));
  }

  /// The counts that the manager was told since the last call; each report has its own id.
  std::vector<uint32_t> Told() {
    std::vector<uint32_t> counts;
    for (const sim::Received& each : manager->record().ReceivedFrom(kVertical, last_)) {
      last_ = each.number;
      if (each.type.ends_with("AppInitMsg")) continue;
      EXPECT_EQ(each.type, "orlane.zem.firewall.IpReputationService.IpReputationEventRequestMsg");
      EXPECT_TRUE(each.publish);
      EXPECT_EQ(each.aph, kAph1);
      EXPECT_TRUE(ids_.insert(each.correlation_id).second);
      EXPECT_NE(each.json.find("6520398974188473358"), std::string::npos) << each.json;
      const size_t at = each.json.find("\"record_count\":");
      counts.push_back(static_cast<uint32_t>(std::stoul(each.json.substr(at + 15))));
    }
    return counts;
  }

  const sim::ObjectRegistry registry_;
  AsioZemProvider store_provider_;
  std::unique_ptr<sim::StoreDaemon> daemon_;
  std::shared_ptr<covedb::CoveDbClient> client_;
  std::shared_ptr<IpReputationMsgHandler> handler_;
  uint64_t last_ = 0;
  std::set<std::string> ids_;
};

// Each pass reports what the store says then, and nothing at 0.
TEST_F(IpReputationTest, EachPassReportsThePresentCount) {
  Start();
  Put(7);
  EXPECT_THAT(Told(), IsEmpty()) << "the pass of the start has found nothing";
  clock.RunFor(seconds(110));
  EXPECT_THAT(Told(), ElementsAre(7));
  Put(8);
  Put(9);
  clock.RunFor(seconds(240));
  EXPECT_THAT(Told(), ElementsAre(9, 9));
  Put(0);
  clock.RunFor(seconds(240));
  EXPECT_THAT(Told(), IsEmpty());
  Put(3);
  clock.RunFor(seconds(120));
  EXPECT_THAT(Told(), ElementsAre(3));
}

// A record that is gone must not be reported for ever, also when it went while the store was away.
TEST_F(IpReputationTest, ADeletedRecordIsNotReported) {
  Start();
  Put(7);
  Delete();
  clock.RunFor(seconds(240));
  EXPECT_THAT(Told(), IsEmpty());
  Put(5);
  network.Break(kStore);
  Delete();
  clock.RunFor(seconds(240));
  EXPECT_THAT(Told(), IsEmpty());
  Put(6);
  network.Break(kStore);
  clock.RunFor(seconds(120));
  EXPECT_THAT(Told(), ElementsAre(6)) << "one that is still there is told anew";
}

// The id of the node comes with the proxy's first list: until then a pass is left out, and the loop goes on.
TEST_F(IpReputationTest, AnUnknownNodeIsNotReported) {
  Start(true, false);
  Put(7);
  clock.RunFor(seconds(240));
  EXPECT_EQ(log.Count("the transport node's id is not known yet"), 2U);
  StartManager();
  clock.RunFor(seconds(130));
  EXPECT_THAT(Told(), ElementsAre(7));
}

TEST_F(IpReputationTest, ANodeWithoutStoreHasNothingToReport) {
  Start(false);
  clock.RunFor(seconds(240));
  EXPECT_THAT(Told(), IsEmpty());
  const TimePoint begin = clock.Now();
  handler_->Stop();
  EXPECT_EQ(clock.Now(), begin) << "the stop does not wait for the next pass";
  EXPECT_TRUE(log.Contains("process message interrupted, exiting"));
}

}  // namespace
}  // namespace zem::Tarvik
