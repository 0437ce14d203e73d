#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "app/alarmsprovider/collector/node_id_cache.h"
#include "app/alarmsprovider/events/queue_manager.h"
#include "app/alarmsprovider/link/event_report_reader.h"
#include "app/alarmsprovider/link/limits.h"
#include "app/alarmsprovider/status/status_queue_manager.h"
#include "mpaclient/bus/bus_record.h"
#include "platform/core/virtual_clock.h"
#include "platform/provider/provider.h"
#include "proto/monitoring/monitoring_services.pb.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using namespace std::chrono_literals;
using orlane::zem::monitoring::CollectorMpMsg;
using orlane::zem::monitoring::MonitoringProcessEventReportRequestMsg;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kSerial = "4d1c8f4e-8a37-4a6f-9f0e-2b3a51c6d7e8";
constexpr const char* kAph = "0a000000-0000-4000-8000-000000000001";
constexpr const char* kEntityA = "aaaaaaaa-0000-4000-8000-000000000001";
constexpr const char* kEntityB = "bbbbbbbb-0000-4000-8000-000000000001";

/// The way to the collector, which may be cut.
class Road final : public CollectorSender {
 public:
  bool SendToCollector(const CollectorMpMsg& message, const std::string& correlation_id,
                       int32_t bus_type) override {
    EXPECT_EQ(bus_type, kRmqClientPublish);
    ids.push_back(correlation_id);
    if (cut) return false;
    sent.push_back(message);
    return true;
  }

  bool cut = false;
  std::vector<CollectorMpMsg> sent;
  std::vector<std::string> ids;
};

class QueuesTest : public testing::Test {
 protected:
  QueuesTest() {
    std::ofstream(files.issue) << "node-type: zem-manager\n";
    std::ofstream(files.serial_number) << kSerial << "\n";
    std::ofstream(files.proxy) << "{\"uuid\": \"" << kAph << "\"}";
    provider.RunAsync(1);
  }
  ~QueuesTest() override {
    events->Stop();
    statuses->Stop();
    provider.StopAndWait(true);
  }

  static SharedEvent Event(uint16_t feature, uint16_t type, const std::string& entity = kEntityA,
                           const std::string& context = "", const std::string& qubio = "",
                           const std::string& source = "s") {
    auto event = std::make_shared<ReportedEvent>();
    event->source_id = source;
    event->qubio_id = qubio;
    event->entity_id = entity;
    event->feature_id = feature;
    event->event_type_id = type;
    event->status = 1;
    event->context = context;
    return event;
  }
  void Write(int count) {
    for (int i = 0; i < count; ++i) ASSERT_TRUE(events->Write(Event(1, 2)));
  }
  static size_t EventsIn(const CollectorMpMsg& message) {
    size_t count = 0;
    for (const auto& feature : message.event_report().feature_report())
      for (const auto& type : feature.event_type_status())
        count += static_cast<size_t>(type.event_instance_status_size());
    return count;
  }
  /// "NUMBER:EVENTS" for each report.
  std::vector<std::string> Reports() const {
    std::vector<std::string> reports;
    for (const CollectorMpMsg& message : road.sent) {
      reports.push_back(std::to_string(message.event_report().sequence_number()) + ":" +
                        std::to_string(EventsIn(message)));
    }
    return reports;
  }
  /// "NUMBER:MEMBERS" for each status message.
  std::vector<std::string> StatusMessages() const {
    std::vector<std::string> messages;
    for (const CollectorMpMsg& message : road.sent) {
      std::string text = std::to_string(message.status_report().sequence_number()) + ":";
      for (const auto& member : message.status_report().status_vertical_report()) text += member.name();
      messages.push_back(text);
    }
    return messages;
  }
  bool Enqueue(const std::string& name) {
    orlane::zem::monitoring::MonitoringStatusReportMsg report;
    report.add_status_vertical_report()->set_name(name);
    return statuses->Enqueue(report);
  }

  test::LogCapture log{kLogInfo};
  test::TempDir directory;
  NodeIdFiles files{directory.Path() + "/issue", directory.Path() + "/serial", directory.Path() + "/proxy",
                    directory.Path() + "/host"};
  VirtualClock clock;
  AsioZemProvider provider;
  NodeIdCache ids{files};
  Road road;
  std::shared_ptr<QueueManager> events = std::make_shared<QueueManager>(provider, road, ids);
  std::shared_ptr<StatusQueueManager> statuses = std::make_shared<StatusQueueManager>(provider, road, ids);
};

// The order in which the collector walks a report is the report's only structure: a wrong nesting gives an
// event to another feature or changes which of two states of an entity is the last.
TEST_F(QueuesTest, ReportsGroupEventsByFeatureTypeAndEntity) {
  events->Start();
  for (const SharedEvent& event :
       {Event(7, 9, kEntityB, "late"), Event(7, 4, kEntityB, "1", "y", "second"),
        Event(7, 2, kEntityA, "", "x"), Event(7, 9, kEntityA, "a"), Event(7, 4, kEntityA, "2", "y", "first"),
        Event(7, 4, kEntityA, "3", "y"), Event(3, 1)}) {
    ASSERT_TRUE(events->Write(event));
  }
  clock.RunFor(5s);
  ASSERT_THAT(road.sent, SizeIs(1));
  std::vector<std::string> walk;
  for (const auto& feature : road.sent[0].event_report().feature_report()) {
    walk.push_back(std::to_string(feature.feature_id()) + feature.qubio_id() + " " + feature.source_id());
    EXPECT_EQ(feature.has_qubio_id(), !feature.qubio_id().empty());
    for (const auto& type : feature.event_type_status())
      for (const auto& instance : type.event_instance_status())
        walk.push_back(std::to_string(type.event_type_id()) + UuidText(instance.entity_id())[0] +
                       instance.context());
  }
  EXPECT_THAT(
      walk, ElementsAre("3 s", "1a", "7 s", "9aa", "9blate", "7x s", "2a", "7y first", "4a2", "4a3", "4b1"));
  EXPECT_EQ(UuidText(road.sent[0].event_report().node_id()), kSerial);
  EXPECT_EQ(UuidText(road.sent[0].event_report().endpoint_id()), kAph);
}

// Without heartbeats the collector takes the node for dead; with too many it is flooded by quiet nodes.
TEST_F(QueuesTest, AnEmptyReportGoesOutOnlyAfterAMinuteOfSilence) {
  events->Start();
  clock.RunFor(59s);
  EXPECT_THAT(Reports(), IsEmpty());
  clock.RunFor(61s);
  EXPECT_THAT(Reports(), ElementsAre("1:0", "2:0"));
  road.sent.clear();
  for (int i = 0; i < 30; ++i) {
    Write(1);
    clock.RunFor(20s);
  }
  EXPECT_THAT(Reports(), SizeIs(30)) << "a trickle of events is as good as heartbeats";
}

// An old backlog must not wait five seconds for each thousand events; fresh events are batched by ticks.
TEST_F(QueuesTest, OnlyABacklogIsDrainedInOneTick) {
  events->Start();
  clock.RunFor(4s);
  Write(2500);
  clock.RunFor(1s);
  EXPECT_THAT(Reports(), ElementsAre("1:1000"));
  clock.RunFor(5s);
  EXPECT_THAT(Reports(), ElementsAre("1:1000", "2:1000", "3:500"));
  road.sent.clear();
  road.cut = true;
  Write(2500);
  clock.RunFor(12s);
  road.cut = false;
  road.ids.clear();
  clock.RunFor(3s);
  EXPECT_THAT(Reports(), ElementsAre("4:1000", "5:1000", "6:500"));
  std::ranges::sort(road.ids);
  EXPECT_EQ(std::ranges::adjacent_find(road.ids), road.ids.end()) << "each message has an id of its own";
}

// A report that the collector did not get must not be lost, renumbered or overtaken, whatever comes between.
TEST_F(QueuesTest, AFailedReportIsTheNextOneAlsoAfterAReset) {
  events->Start();
  road.cut = true;
  Write(1);
  clock.RunFor(5s);
  Write(2);
  clock.RunFor(5s);
  EXPECT_EQ(log.Count("Collector is unable to receive reports (correlation id:"), 2U);
  events->Stop();
  events->Reset();
  events->Start();
  Write(3);
  clock.RunFor(5s);
  road.cut = false;
  clock.RunFor(10s);
  EXPECT_THAT(Reports(), ElementsAre("1:1", "1:3")) << "the two events of before the reset are dropped";
}

// Half of the queue's capacity is reached in less than a tick at high rates; while nothing can be sent,
// events must be refused instead of growing without end, and not be tried one by one.
TEST_F(QueuesTest, TheQueueSendsAtHalfAndRefusesWhenFull) {
  Write(0x8000 - 1);
  events->Start();
  Write(1);
  EXPECT_THAT(Reports(), ElementsAre("1:1000")) << "before the tick";
  road.cut = true;
  road.ids.clear();
  Write(2000 + 0x8000);
  EXPECT_FALSE(events->Write(Event(1, 2)));
  EXPECT_THAT(road.ids, SizeIs(1)) << "after a failure the ticks are enough";
  EXPECT_TRUE(log.Contains("Provider queue is full."));
  events->Stop();
  road.cut = false;
  clock.RunFor(60s);
  EXPECT_THAT(Reports(), SizeIs(1)) << "a stopped queue sends nothing";
}

// What is larger than the connection takes, in one message or at once, is lost, though it counts as sent.
TEST_F(QueuesTest, LongTextsMakeMoreMessages) {
  const std::string context(kMaxContextBytes, 'x');
  for (int i = 0; i < 300; ++i) ASSERT_TRUE(events->Write(Event(1, 2, kEntityA, context)));
  orlane::zem::monitoring::MonitoringStatusReportMsg status;
  status.add_status_vertical_report()->set_payload(std::string(5 << 20, 'x'));
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(statuses->Enqueue(status));
  events->Start();
  clock.RunFor(5s);
  EXPECT_THAT(road.sent, SizeIs(1)) << "the rest waits for the next ticks";
  clock.RunFor(15s);
  size_t sent = 0;
  for (const CollectorMpMsg& message : road.sent) sent += EventsIn(message);
  EXPECT_EQ(sent, 300U);
  events->Stop();
  statuses->Start();
  clock.RunFor(40s);
  EXPECT_THAT(road.sent, SizeIs(6)) << "three of each queue";
  for (const CollectorMpMsg& message : road.sent) EXPECT_LT(message.ByteSizeLong(), 9U << 20);

  bool fits = true;
  for (int i = 0; fits && i < 5000; ++i) fits = events->Write(Event(1, 2, kEntityA, context));
  EXPECT_FALSE(fits) << "memory is bounded, not only the number of events";
}

// A source's report with an entry that says too little loses that entry alone.
TEST_F(QueuesTest, ReportsOfClientsLoseOnlyTheirBadEntries) {
  MonitoringProcessEventReportRequestMsg report;
  report.add_event_feature_report()->set_source_id("s");
  report.add_event_feature_report()->set_feature_id(7);
  report.add_event_feature_report()->set_feature_id(70000);
  auto* const good = report.add_event_feature_report();
  good->set_feature_id(7);
  good->set_source_id("s");
  good->add_event_type_status()->add_event_instance_status()->set_status(1);
  auto* const type = good->add_event_type_status();
  type->set_event_type_id(2);
  type->add_event_instance_status()->set_status(300);
  type->add_event_instance_status()->set_status(1);
  EXPECT_EQ(QueueEvents(report, *events), ReportOutcome::kTaken);
  EXPECT_EQ(log.Count("No feature-id in MonitoringEventFeatureReportMsg"), 2U);
  EXPECT_EQ(log.Count("No source-id in MonitoringEventFeatureReportMsg"), 1U);
  EXPECT_EQ(log.Count("No event-type-id in MonitoringEventTypeStatusMsg"), 1U);
  EXPECT_EQ(log.Count("ProcessEventReport: sourceId: s, qubioId: , featureId: 7, eventTypeId: 2"), 1U);

  Write(0x10000 - 2);
  type->add_event_instance_status()->set_status(1);
  EXPECT_EQ(QueueEvents(report, *events), ReportOutcome::kQueueFull) << "the second event does not fit";
  type->mutable_event_instance_status(1)->set_context(std::string(kMaxContextBytes + 1, 'x'));
  EXPECT_EQ(QueueEvents(report, *events), ReportOutcome::kTooLarge);

  events->Start();
  clock.RunFor(5s);
  ASSERT_FALSE(road.sent.empty());
  EXPECT_EQ(road.sent[0].event_report().feature_report(1).feature_id(), 7U);
}

// Status reports have to arrive in order and flattened, whatever failures come between.
TEST_F(QueuesTest, StatusReportsAreFlattenedAndKeptInOrder) {
  for (int i = 0; i < 40; ++i) ASSERT_TRUE(Enqueue(std::string(1, static_cast<char>('A' + i))));
  clock.RunFor(60s);
  EXPECT_THAT(road.sent, IsEmpty()) << "nobody has started the queue";
  statuses->Start();
  statuses->Start();
  EXPECT_TRUE(log.Contains("Status Queue Manager already started. Nothing to do."));
  road.cut = true;
  clock.RunFor(10s);
  EXPECT_TRUE(log.Contains("Failed to send status-source report to collector (correlation id:"));
  road.cut = false;
  clock.RunFor(30s);
  EXPECT_THAT(StatusMessages(), ElementsAre("1:ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`", "2:abcdefgh"));

  road.sent.clear();
  orlane::zem::monitoring::MonitoringStatusReportMsg heartbeat;
  heartbeat.set_heartbeat(1);
  road.cut = true;
  EXPECT_TRUE(statuses->Enqueue(heartbeat));
  road.cut = false;
  EXPECT_TRUE(statuses->Enqueue(heartbeat)) << "at once, and not behind the queue";
  statuses->Reset(false);
  ASSERT_TRUE(Enqueue("x"));
  clock.RunFor(10s);
  statuses->Stop();
  statuses->Reset(true);
  ASSERT_TRUE(Enqueue("y"));
  statuses->Start();
  clock.RunFor(10s);
  EXPECT_THAT(StatusMessages(), ElementsAre("3:", "4:x", "1:y"));

  statuses->Stop();
  for (int i = 0; i < 1024; ++i) ASSERT_TRUE(Enqueue("z"));
  EXPECT_FALSE(Enqueue("z"));
  EXPECT_TRUE(log.Contains("Dropping update as status queue is full. Size: 1024. Will initiate full-sync."));

  statuses->Reset(false);
  const std::string large(16 << 20, 'x');
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(Enqueue(large));
  EXPECT_FALSE(Enqueue(large) && Enqueue(large)) << "few reports fill the queue, too";
  statuses->Start();
  clock.RunFor(30s);
  EXPECT_TRUE(Enqueue(large)) << "what is sent makes room";
}

// Without its ids a node must stay silent; with an id that is none the collector would file its alarms under
// a node that does not exist.
TEST_F(QueuesTest, IdsOfAManagerNodeComeFromItsFiles) {
  std::ofstream(files.serial_number) << "not a uuid\n";
  EXPECT_EQ(ids.GetNodeUuid(true), "");
  EXPECT_TRUE(log.Contains("Could not read node uuid from " + files.serial_number + ". "));
  std::ofstream(files.serial_number) << kSerial << "\n";
  EXPECT_EQ(ids.GetNodeUuid(true), kSerial);
  std::ofstream(files.serial_number) << kAph << "\n";
  EXPECT_EQ(ids.GetNodeUuid(true), kSerial) << "a serial number does not change";
  std::ofstream(files.proxy) << "{";
  EXPECT_EQ(ids.GetEndpointId(), "");
  EXPECT_TRUE(log.Contains("Could not read aph uuid. "));
  std::ofstream(files.issue) << "node-type: zem-qub\n";
  std::ofstream(files.host) << "<config><uuid></uuid></config>";
  EXPECT_EQ(NodeIdCache(files).GetNodeUuid(true), "");
  EXPECT_TRUE(log.Contains("Could not read node uuid. Empty uuid in config."));
  std::ofstream(files.host) << "<config><uuid> " << kAph << " </uuid></config>";
  EXPECT_EQ(NodeIdCache(files).GetEndpointId(), kAph);
}

}  // namespace
}  // namespace zem::Tarvik
