#include <gmock/gmock.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app/zemda/base/da_properties.h"
#include "app/zemda/delivery/communication_handler.h"
#include "mpaclient/bus/bus_record.h"
#include "platform/core/virtual_clock.h"
#include "proto/ida/ida.pb.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace ZemDa {
namespace {

using namespace std::chrono_literals;
using orlane::zem::ida::DcMsg;
using orlane::zem::ida::IdaMsg;
using orlane::zem::ida::InventoryObjectMsg;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kGoodType = "com.orlane.zem.ida.IdaMessage";

// The manager is the test: it keeps what is sent, and the test answers.
class Road final : public IManagerRoad {
 public:
  struct Sent {
    IdaMsg message;
    std::string id;
    zem::TimePoint when;
  };

  void Start(Receive receive) override { receive_ = std::move(receive); }
  void Stop() override { stopped = true; }
  bool IsConnected() const override { return connected; }
  int32_t cookie() const override { return 7; }
  int Send(std::string payload, const std::string& id) override {
    Sent each{{}, id, zem::Clock::Process().Now()};
    EXPECT_TRUE(each.message.ParseFromString(payload));
    {
      const std::lock_guard lock(mutex);
      sent.push_back(each);
    }
    if (on_send) on_send(each);
    return result;
  }

  void Deliver(zem::BusMessageType type, const std::string& type_name, const std::string& id,
               const std::string& payload, int32_t of = 7) {
    zem::BusRecord record(type);
    zem::BusHeader header;
    header.type_id = type_name;
    header.correlation_id = id;
    record.SetHeader(header).SetPayload(payload).SetCookie(of);
    receive_(record.message());
  }
  void Command(int command, const std::string& id) {
    IdaMsg message;
    message.set_message_type(2);
    message.set_command(command);
    Deliver(zem::kRmqMpRpcResponse, kGoodType, id, message.SerializeAsString());
  }
  // Type and command, or the number of objects, of what was sent since the last call.
  std::vector<std::string> Take() {
    const std::lock_guard lock(mutex);
    std::vector<std::string> all;
    for (const Sent& each : std::exchange(sent, {})) {
      last_id = each.id;
      std::string text = std::to_string(each.message.message_type()) + ":";
      if (each.message.has_command()) {
        text += "c" + std::to_string(each.message.command());
      } else {
        text += std::to_string(each.message.inventory_object_size());
      }
      all.push_back(text);
    }
    return all;
  }

  std::function<void(const Sent&)> on_send;
  int result = 0;
  bool connected = true;
  bool stopped = false;
  std::string last_id;
  std::mutex mutex;  // guards sent
  std::vector<Sent> sent;

 private:
  Receive receive_;
};

// Reports what the test puts into the queue, on the test's demand.
class ScriptedCollector final : public DataCollector {
 public:
  ScriptedCollector() : DataCollector("ScriptedCollector") {}
  ~ScriptedCollector() override {
    Stop();
    Join();
  }
  void operator()() override { interruption().Sleep(); }
  using DataCollector::blocked;
  using DataCollector::TakeSyncInitRequested;
};

class DeliveryTest : public testing::Test {
 protected:
  DeliveryTest() {
    SetTimeout("100");
    auto road_of_handler = std::make_unique<Road>();
    road = road_of_handler.get();
    handler = std::make_unique<CommunicationHandler>(sender, collector, std::move(road_of_handler));
    handler->InitiateMPAClient();
  }
  ~DeliveryTest() override {
    handler->BeginStop();
    if (sender->started()) {
      sender->Stop();
      sender->Join();
    }
    handler->Stop();
  }

  void SetTimeout(const std::string& seconds) {
    std::ofstream(folder.Path("da.xml")) << "<config><zemda><CommunicationHandler><ackTimeout>" << seconds
                                         << "</ackTimeout></CommunicationHandler></zemda></config>";
    DaProperties::Load(folder.Path("da.xml"));
  }
  void Push(DcMsg::Type type, bool object = true) {
    DcMsg record;
    record.set_type(type);
    if (object) record.mutable_inventory_object()->set_kind(InventoryObjectMsg::HOST);
    queue->push(record);
  }
  void Run(zem::Duration time = 6s) { clock.RunFor(time); }
  // Up to the moment in which the manager has everything.
  void Begin() {
    road->Deliver(zem::kRmqClientRegistrationAck, "", "", "");
    Run(1s);
    ASSERT_THAT(road->Take(), ElementsAre("2:c0"));
    road->Command(1, road->last_id);
    Run(1s);
    Push(DcMsg::DMT_INIT_START);
    Push(DcMsg::DMT_INIT);
    Push(DcMsg::DMT_INIT_END, false);
    Run();
    ASSERT_THAT(road->Take(), ElementsAre("0:2"));
    road->Command(2, road->last_id);
    Run();
    ASSERT_EQ(sender->state(), DataSender::kWaitingForData);
  }

  zem::test::LogCapture log{zem::kLogDebug};
  zem::VirtualClock clock;
  zem::test::TempDir folder;
  std::shared_ptr<DcQueue> queue = std::make_shared<DcQueue>();
  std::vector<IdaMsg> processed;
  std::shared_ptr<DataSender> sender =
      std::make_shared<DataSender>(queue, [this](const IdaMsg& message) { processed.push_back(message); });
  std::shared_ptr<ScriptedCollector> collector = std::make_shared<ScriptedCollector>();
  Road* road = nullptr;
  std::unique_ptr<CommunicationHandler> handler;
};

TEST_F(DeliveryTest, FullSyncThenUpdatesOneAtATime) {
  Begin();
  EXPECT_TRUE(collector->TakeSyncInitRequested());
  Push(DcMsg::DMT_UPDATE);
  Push(DcMsg::DMT_UPDATE);
  Run();
  EXPECT_THAT(road->Take(), ElementsAre("1:2"));
  Push(DcMsg::DMT_UPDATE);
  Run(50s);
  EXPECT_THAT(road->Take(), IsEmpty()) << "one message is outstanding";
  const std::string id = road->last_id;
  road->Command(2, "another id");
  Run();
  EXPECT_TRUE(
      log.Contains("Received ACK out of order from MP. Correlation Id received from MP is another id and "
                   "last sent to MP is " +
                   id));
  EXPECT_THAT(road->Take(), IsEmpty());
  road->Command(2, id);
  Run();
  EXPECT_THAT(road->Take(), ElementsAre("1:1"));
  ASSERT_EQ(processed.size(), 3u);
  EXPECT_EQ(processed[1].inventory_object_size(), 2);
}

// The manager may say it twice, and the second time just as the next message is on its way.
TEST_F(DeliveryTest, AcknowledgementThatComesAgain) {
  Begin();
  road->Command(2, road->last_id);
  Run();
  EXPECT_EQ(sender->state(), DataSender::kWaitingForData);
  static std::function<void(const std::string&)> on_line;
  static std::atomic<int> answered;
  answered = -1;
  on_line = [this](const std::string& line) {
    if (answered >= 0 && line.find("Received ACK") != std::string::npos) ++answered;
    if (answered >= 0 || line.find("Generated Correlation Id is") == std::string::npos) return;
    answered = 0;
    road->Command(2, road->last_id);
    while (answered == 0) std::this_thread::yield();
  };
  const auto before = zem::Logger::SetEmitter([](int, const char* line) { on_line(line); });
  Push(DcMsg::DMT_UPDATE);
  Run();
  Push(DcMsg::DMT_UPDATE);
  Run();
  zem::Logger::SetEmitter(before);
  EXPECT_EQ(answered, 1);
  EXPECT_THAT(road->Take(), ElementsAre("1:1")) << "it is still outstanding";
}

// The acknowledgement may be there before the send returns; it must not be taken for a stranger's.
TEST_F(DeliveryTest, QuickAcknowledgement) {
  Begin();
  road->on_send = [this](const Road::Sent& sent) { road->Command(2, sent.id); };
  Push(DcMsg::DMT_UPDATE);
  Run();
  EXPECT_THAT(road->Take(), ElementsAre("1:1"));
  EXPECT_EQ(sender->state(), DataSender::kWaitingForData);
  EXPECT_FALSE(log.Contains("out of order"));
  Run(200s);
  EXPECT_FALSE(log.Contains("Timeout as no communication"));
}

// A lost acknowledgement is made up for by a full sync, and so is a second one.
TEST_F(DeliveryTest, LostAcknowledgements) {
  Begin();
  static_cast<void>(collector->TakeSyncInitRequested());
  for (int i = 0; i < 2; ++i) {
    Push(DcMsg::DMT_UPDATE);
    Run();
    ASSERT_THAT(road->Take(), ElementsAre("1:1"));
    Run(90s);
    EXPECT_THAT(road->Take(), IsEmpty());
    Run(20s);
    ASSERT_THAT(road->Take(), ElementsAre("2:c0")) << "round " << i;
    EXPECT_TRUE(collector->TakeSyncInitRequested());
    road->Command(2, road->last_id);
    Run();
    EXPECT_TRUE(log.Contains("ACK received during waiting for SYNC_INIT, ignoring."));
    road->Command(1, road->last_id);
    Run(1s);
    Push(DcMsg::DMT_INIT_START);
    Push(DcMsg::DMT_INIT_END, false);
    Run();
    ASSERT_THAT(road->Take(), ElementsAre("0:1"));
    road->Command(2, road->last_id);
    Run();
  }
  EXPECT_EQ(sender->state(), DataSender::kWaitingForData);
}

// The host begins a full sync by itself: the manager is asked first, with the record at the head of the
// queue.
TEST_F(DeliveryTest, HostForcesAFullSync) {
  Begin();
  Push(DcMsg::DMT_UPDATE);
  Push(DcMsg::DMT_INIT_START);
  Push(DcMsg::DMT_UPDATE);
  Push(DcMsg::DMT_INIT_END, false);
  Run();
  EXPECT_THAT(road->Take(), ElementsAre("1:1")) << "stops in front of the full sync";
  road->Command(2, road->last_id);
  Run();
  EXPECT_THAT(road->Take(), ElementsAre("2:c0"));
  Run(30s);
  EXPECT_EQ(queue->size(), 3u);
  road->Command(1, road->last_id);
  Run();
  EXPECT_THAT(road->Take(), ElementsAre("0:2")) << "an update rides along";
}

TEST_F(DeliveryTest, HeartbeatOfAnIdleSender) {
  Begin();
  Run(1790s);
  EXPECT_THAT(road->Take(), IsEmpty());
  Run(80s);
  EXPECT_THAT(road->Take(), ElementsAre("1:c3"));
  road->Command(2, road->last_id);
  Run(1000s);
  Push(DcMsg::DMT_UPDATE);
  Run();
  EXPECT_THAT(road->Take(), ElementsAre("1:1"));
  road->Command(2, road->last_id);
  Run(1700s);
  EXPECT_THAT(road->Take(), IsEmpty()) << "any message puts it off";
}

// A request that nobody answers is made again after an hour.
TEST_F(DeliveryTest, HourOfSilence) {
  Begin();
  Push(DcMsg::DMT_UPDATE);
  Run(120s);
  EXPECT_THAT(road->Take(), ElementsAre("1:1", "2:c0"));
  Push(DcMsg::DMT_UPDATE);
  Run(3400s);
  EXPECT_THAT(road->Take(), IsEmpty());
  Run(200s);
  EXPECT_THAT(road->Take(), ElementsAre("2:c0"));
  EXPECT_TRUE(log.Contains("DS has not sent any messag for 3600 seconds, Reset and send SYNC_INIT_REQ."));
}

TEST_F(DeliveryTest, ConnectionThatCloses) {
  Begin();
  Push(DcMsg::DMT_UPDATE);
  Run();
  ASSERT_THAT(road->Take(), ElementsAre("1:1"));
  road->Deliver(zem::kRmqClientClose, "", "", "", 6);
  Run(1s);
  EXPECT_FALSE(collector->blocked()) << "the close of an earlier connection";
  road->Deliver(zem::kRmqClientClose, "", "", "");
  Run(1s);
  EXPECT_TRUE(collector->blocked());
  Run(300s);
  EXPECT_THAT(road->Take(), IsEmpty()) << "the timer does not run";
  road->connected = false;
  road->Deliver(zem::kRmqClientRegistrationAck, "", "", "");
  Run(1s);
  EXPECT_TRUE(collector->blocked());
  road->connected = true;
  road->Deliver(zem::kRmqClientRegistrationAck, "", "", "");
  Run(1s);
  EXPECT_FALSE(collector->blocked());
  EXPECT_THAT(road->Take(), ElementsAre("2:c0"));
}

TEST_F(DeliveryTest, WhatIsNoCommand) {
  Begin();
  road->Deliver(zem::kRmqMpRpcRequest, "com.orlane.zem.ida.InventoryDiscoveryMessage.IdaMessage", "x",
                "payload");
  road->Deliver(zem::kRmqMpRpcRequest, kGoodType, "x", "\x0a\xff\xff\xff\xff garbage");
  road->Deliver(zem::kRmqMpPublish, kGoodType, "x", "\x08\x02\x10\x01");
  road->Command(3, "x");
  road->Command(7, "x");
  IdaMsg unknown;
  unknown.set_message_type(9);
  road->Deliver(zem::kRmqMpRpcRequest, kGoodType, "x", unknown.SerializeAsString());
  Run(1s);
  EXPECT_TRUE(log.Contains("Communication Handler received FULL_SYNC. Should not ever receive these."));
  EXPECT_TRUE(log.Contains("Failed to parse IdaMsg"));
  EXPECT_TRUE(log.Contains("Communication Handler received HEARTBEAT. Should not ever receive these."));
  EXPECT_EQ(log.Count("Received SYNC_INIT from MP."), 1u) << "a publish is none";
  Push(DcMsg::DMT_UPDATE);
  Run();
  EXPECT_THAT(road->Take(), ElementsAre("1:1"));
}

// A send that fails is not acknowledged under the id of the one before, and the timer makes up for it.
TEST_F(DeliveryTest, SendThatFails) {
  Begin();
  const std::string before = road->last_id;
  road->result = -1;
  Push(DcMsg::DMT_UPDATE);
  Run();
  EXPECT_TRUE(log.Contains("Failed to send message to ZEM Manager. Error code : -1"));
  road->result = 0;
  static_cast<void>(road->Take());
  Run(120s);
  EXPECT_THAT(road->Take(), ElementsAre("2:c0"));
}

TEST_F(DeliveryTest, StopInEveryWait) {
  Begin();
  Push(DcMsg::DMT_UPDATE);
  Run();
  const auto begin = clock.Now();
  handler->BeginStop();
  sender->Stop();
  sender->Join();
  handler->Stop();
  EXPECT_LT(clock.Now() - begin, 1s);
  EXPECT_TRUE(road->stopped);
  EXPECT_EQ(log.Count("Thread [DataSender] got interrupted."), 1u);
}

TEST(DaPropertiesTest, AckTimeouts) {
  zem::test::LogCapture log;
  zem::test::TempDir folder;
  const std::string path = folder.Path("da.xml");
  EXPECT_FALSE(DaProperties::Load(path));
  EXPECT_TRUE(log.Contains("Error occurred while loading properties file " + path));
  EXPECT_EQ(DaProperties::Get()->AckTimeout(), 1200u);
  const auto timeout_of = [&](const std::string& value) {
    std::ofstream(path) << "<config><zemda><CommunicationHandler><ackTimeout> " << value
                        << " </ackTimeout></CommunicationHandler></zemda></config>";
    EXPECT_TRUE(DaProperties::Load(path));
    return DaProperties::Get()->AckTimeout();
  };
  EXPECT_EQ(timeout_of("3600"), 3600u);
  EXPECT_EQ(timeout_of("3601"), 600u);
  EXPECT_EQ(timeout_of("0"), 0u);
  EXPECT_EQ(timeout_of("12x"), 1200u);
}

TEST(QueueTest, FullRefusesAndClearMakesRoom) {
  zem::test::LogCapture log{zem::kLogError};
  SynchronizedQueue<int> queue;
  for (size_t i = 0; i < SynchronizedQueue<int>::kCapacity; ++i) ASSERT_TRUE(queue.push(1));
  EXPECT_FALSE(queue.push(2));
  EXPECT_TRUE(log.Contains("Message queue is full, not adding new message."));
  EXPECT_FALSE(queue.remove_if([](int element) { return element == 2; }));
  queue.clear();
  EXPECT_FALSE(queue.peek([](int element) { return element; }));
  EXPECT_TRUE(queue.push(2));
  EXPECT_EQ(queue.remove(), 2);
}

}  // namespace
}  // namespace ZemDa
