// Datagrams go in, messages to the manager and Kafka come out.

#include "tests/app/ctxteng/idsevents/engine_fixture.h"

#include "app/ctxteng/base/ctxt_msg.h"
#include "app/ctxteng/idsevents/ids_commands.h"
#include "app/ctxteng/idsqueue/node_records.h"
#include "framework/cli/cli_reply_queue.h"
#include "platform/core/loop_monitor.h"

namespace IdsEvtEng {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::SizeIs;

std::string AlertFrom(int attacker) {
  return With(kAlert, "10.1.2.3", "10.1.2." + std::to_string(100 + attacker));
}

std::string CallCli(const std::vector<zem::Tarvik::CliCommand>& commands, const std::string& name) {
  const auto queue = std::make_shared<zem::Tarvik::CliReplyQueue>();
  queue->Open();
  for (const auto& command : commands) {
    if (command.name == name) command.handler({}, zem::Tarvik::CliReply(queue, 1));
  }
  const auto answers = queue->Take();
  return answers.size() == 1 ? answers[0].text : std::to_string(answers.size()) + " answers";
}

TEST_F(EngineTest, AlertsAreMergedAndSentOncePerPeriod) {
  Start();
  EXPECT_TRUE(started);
  EXPECT_EQ(manager.clients["1801"].app_type, "ZEM-IntrusionServices");
  EXPECT_EQ(manager.clients["1802"].app_type, "ZEM-IdsPcapService");
  EXPECT_TRUE(log.Contains("Ids event engine initialized with critQSize=500, nonCritQSize=1000, "));
  for (int i = 0; i < 5; ++i) Send(With(kAlert, "03:04:05", "03:04:0" + std::to_string(i)));
  Send(With(kAlert, "\"dest_port\":445", "\"dest_port\":446"));
  Send(With(kAlert, "\"severity\":1", "\"severity\":3"));
  EXPECT_THAT(manager.sent, IsEmpty());
  Seconds(5);
  ASSERT_THAT(manager.sent, SizeIs(1));
  const Ctxt::CtxtMsg& message = manager.sent[0];
  EXPECT_EQ(message.appId, "1801");
  EXPECT_EQ(message.msgType, "com.orlane.zem.context");
  EXPECT_EQ(message.payloadType, "com.orlane.zem.context.ids.EventInfoMsg");
  const EventInfoMsg& events = *manager.Sent<EventInfoMsg>()[0];
  EXPECT_EQ(events.site_uuid().first(), 42U);
  EXPECT_EQ(events.version(), 1U);
  EXPECT_FALSE(events.has_node_id());
  ASSERT_EQ(events.event_info_size(), 2);
  EXPECT_EQ(events.event_info(0).count(), 5U);
  EXPECT_EQ(events.event_info(0).bytes_to_server(), 5U * 480U);
  EXPECT_EQ(events.event_info(0).timestamp(), 1704164640U);
  EXPECT_EQ(events.event_info(0).event_metadata_size(), 0);
  EXPECT_EQ(events.event_info(1).count(), 1U);
  EXPECT_TRUE(log.Contains("Events deduped from 6 to 2"));
  EXPECT_TRUE(log.Contains("Sending batch of 6 critical events to MP"));
  EXPECT_EQ(counters.manager.alert_sent, 6U);
  EXPECT_EQ(counters.manager.proto_sent, 2U);
  Seconds(54);
  EXPECT_THAT(manager.sent, SizeIs(1)) << "a severity above the critical one waits a minute";
  Seconds(1);
  ASSERT_THAT(manager.sent, SizeIs(2));
  EXPECT_EQ(manager.Sent<EventInfoMsg>()[1]->event_info(0).severity(), 3);
  EXPECT_EQ(counters.total, 7U);
  EXPECT_EQ(counters.critical, 6U);
  EXPECT_EQ(counters.non_critical, 1U);
}

// A minus one, and the most that the class allows, are critical.
TEST_F(EngineTest, ClassesOfSeverity) {
  Start();
  for (const char* severity : {"-1", "0", "2", "-2147483648"})
    Send(With(kAlert, "\"severity\":1", std::string("\"severity\":") + severity));
  Send(With(kAlert, "\"severity\":1,", ""));
  EXPECT_EQ(counters.critical, 5U);
  Send(With(kAlert, "\"severity\":1", "\"severity\":3"));
  EXPECT_EQ(counters.critical, 5U);
  EXPECT_EQ(counters.non_critical, 1U);
}

TEST_F(EngineTest, WhatIsNoAlertEndsNothing) {
  Start();
  const auto padded = [](size_t size) { return kAlert + std::string(size - kAlert.size(), ' '); };
  for (size_t size : {size_t{1499}, size_t{1500}, size_t{1501}}) Send(padded(size));
  // Cut in the middle, which is no JSON any more.
  Send(With(kAlert, "\"smb\"", "\"" + std::string(1500, 's') + "\""));
  for (const char* text : {"", "{}", "[1]", R"({"event_type":"stats"})", "\xff\xfe{", "null"}) Send(text);
  Send(std::string(64, '\0'));
  Send(kAlert + std::string(1, '\0') + "behind");
  EXPECT_EQ(counters.total, 4U) << "blanks that are cut off do not matter";
  EXPECT_EQ(log.Count("Error receiving on socket " + param.idsSocketName + ", ret = 0, errno = 0"), 2U);
  EXPECT_TRUE(log.Contains("ConsumeIdsEvents: Parsing JSON string returns invalid value"));
  EXPECT_TRUE(
      log.Contains("ConvertJsonGetEventType: Exception while parsing JSON string, the text does not"));
}

TEST_F(EngineTest, AttackerIsLimitedForTenMinutes) {
  param.criticalQSize = 1000;
  Start();
  // Without a target the source counts.
  const auto untargeted = [](const std::string& text) {
    return With(text, R"("ip":"192.168.7.9")", R"("ip":"")");
  };
  for (int i = 0; i < 260; ++i) Send(untargeted(kAlert));
  for (int i = 0; i < 10; ++i) Send(untargeted(AlertFrom(1)));
  EXPECT_EQ(counters.total, 270U);
  EXPECT_EQ(counters.critical, 260U);
  EXPECT_EQ(counters.rate_limited, 10U);
  EXPECT_EQ(counters.dropped_queue, 0U);
  EXPECT_TRUE(
      log.Contains("Rate limiting event src:10.1.2.3:51234,dest:192.168.7.9:445,prot:TCP,sig:2024217,"
                   "sev:1,vmId:vm-1,"));
  Seconds(601);
  Send(untargeted(kAlert));
  EXPECT_EQ(counters.critical, 261U);
}

TEST_F(EngineTest, FullQueuesDropTheNewAlert) {
  param.criticalQSize = 3;
  param.nonCriticalQSize = 2;
  Start();
  for (int i = 0; i < 5; ++i) Send(AlertFrom(i));
  for (int i = 0; i < 5; ++i) Send(With(AlertFrom(i), "\"severity\":1", "\"severity\":9"));
  EXPECT_EQ(counters.dropped_queue, 5U);
  EXPECT_TRUE(log.Contains("Failed to add event to critical queue, current size = 3, max size = 3"));
  EXPECT_TRUE(log.Contains("Failed to add event to non-critical queue, current size = 2, max size = 2"));
  Seconds(60);
  EXPECT_EQ(counters.manager.alert_sent, 5U);
  EXPECT_EQ(manager.Sent<EventInfoMsg>()[0]->event_info(0).src_ip().ipv4() & 0xFF, 100U) << "the first stay";
}

TEST_F(EngineTest, BatchThatTheManagerDoesNotTakeIsCountedAndGone) {
  manager.status = -3;
  Start();
  for (int i = 0; i < 4; ++i) Send(kAlert);
  Seconds(5);
  EXPECT_EQ(counters.manager.alert_dropped, 4U);
  EXPECT_EQ(counters.manager.proto_dropped, 1U);
  manager.status = 0;
  Send(kAlert);
  Seconds(5);
  ASSERT_THAT(manager.sent, SizeIs(1));
  EXPECT_EQ(counters.manager.alert_sent, 1U);
}

// What a round had in its hands when it failed is counted, and captures go on to the manager all the same.
TEST_F(EngineTest, RoundThatFailsLosesNothingUncounted) {
  services.kafka_ready = true;
  services.site_fails = true;
  Start();
  for (int i = 0; i < 3; ++i) Send(kAlert);
  CaptureFile(1);
  Send(NoticeOf(1));
  Seconds(2);
  EXPECT_EQ(counters.kafka.alert_dropped, 3U);
  EXPECT_EQ(counters.pcap_kafka.alert_dropped, 1U);
  EXPECT_EQ(counters.pcap_total, 1U);
  Seconds(5);
  EXPECT_EQ(counters.manager.alert_dropped, 3U);
  EXPECT_EQ(counters.pcap_manager.alert_dropped, 1U);
  services.site_fails = false;
  Send(kAlert);
  Seconds(5);
  EXPECT_EQ(counters.kafka.alert_sent, 1U);
  EXPECT_EQ(counters.manager.alert_sent, 1U);
}

// A frame to the manager has its limit, whatever the queues hold.
TEST_F(EngineTest, LargeBatchGoesInSeveralMessages) {
  param.criticalQSize = 1000;
  param.idsSocketRecvLen = 65536;
  Start();
  const std::string signature(30000, 's');
  for (int i = 0; i < 400; ++i)
    Send(With(With(AlertFrom(i % 100), "SMB", signature), "2024217", std::to_string(i)));
  Seconds(5);
  const auto messages = manager.Sent<EventInfoMsg>();
  ASSERT_THAT(messages, SizeIs(2));
  EXPECT_LT(messages[0]->ByteSizeLong(), 8U << 20);
  EXPECT_EQ(messages[0]->event_info_size() + messages[1]->event_info_size(), 400);
  EXPECT_EQ(counters.manager.alert_sent, 400U);
}

TEST_F(EngineTest, KafkaGetsAlertsAtOnceAndTheManagerAsWell) {
  services.kafka_ready = true;
  Start();
  Send(kAlert);
  ASSERT_THAT(services.events, SizeIs(1));
  EXPECT_EQ(services.events[0].node_id().first(), 1U);
  EXPECT_EQ(services.events[0].event_info(0).event_metadata(0).name(), "http_hostname");
  EXPECT_EQ(counters.total, 1U);
  Seconds(5);
  ASSERT_THAT(manager.Sent<EventInfoMsg>(), SizeIs(1));
  EXPECT_EQ(manager.Sent<EventInfoMsg>()[0]->event_info(0).event_metadata_size(), 0);
  // Kafka refuses, then goes away between the queue and the sender.
  services.kafka_status = -1;
  Send(kAlert);
  EXPECT_EQ(counters.kafka.alert_dropped, 1U);
  EXPECT_TRUE(log.Contains("Sending kafka event msg to ZEM-i and QRD failed"));
  services.kafka_ready = false;
  Send(kAlert);
  Seconds(5);
  EXPECT_EQ(counters.kafka.alert_sent, 1U);
  EXPECT_EQ(counters.manager.alert_sent, 3U) << "every alert reaches the manager";
}

TEST_F(EngineTest, FullKafkaQueueStillReachesTheManager) {
  param.kafkaQSize = 2;
  services.kafka_ready = true;
  Start();
  {
    // The Kafka sender is kept busy by its own peer.
    const std::unique_lock busy(services.mutex);
    for (int i = 0; i < 6; ++i) SendWithoutWaiting(AlertFrom(i));
    while (counters.total < 4) sched_yield();  // two wait in the queue
  }
  Seconds(10);
  EXPECT_EQ(counters.total, 6U);
  EXPECT_EQ(counters.manager.alert_sent, 6U);
  EXPECT_EQ(counters.kafka.alert_sent + counters.dropped_kafka_queue, 6U);
  EXPECT_GT(counters.dropped_kafka_queue, 0U);
}

TEST_F(EngineTest, CapturesGoInBatchesWithTheirFiles) {
  Start();
  for (uint64_t flow = 1; flow <= 45; ++flow) {
    if (flow != 7) CaptureFile(flow, "packets of " + std::to_string(flow));
    Send(NoticeOf(flow));
  }
  Seconds(15);
  const auto messages = manager.Sent<PcapInfoMsg>();
  ASSERT_THAT(messages, SizeIs(3));
  EXPECT_EQ(manager.sent[0].appId, "1802");
  EXPECT_EQ(manager.sent[0].appType, "ZEM-IdsPcapService");
  EXPECT_EQ(manager.sent[0].msgType, "orlane.zem.context");
  EXPECT_EQ(manager.sent[0].payloadType, "orlane.zem.context.ids.PcapInfoMsg");
  EXPECT_EQ(messages[0]->pcap_size(), 20);
  EXPECT_EQ(messages[2]->pcap_size(), 5);
  EXPECT_EQ(messages[0]->site_uuid().first(), 42U);
  const auto& first = messages[0]->pcap(0);
  EXPECT_EQ(first.pcap_id().first(), 1U);
  EXPECT_EQ(first.pcap_id().second(), 9U);
  EXPECT_EQ(first.data(), "packets of 1");
  EXPECT_EQ(first.length(), 12U);
  EXPECT_TRUE(first.has_last_write_time());
  EXPECT_TRUE(messages[0]->pcap(6).has_pcap_id() && !messages[0]->pcap(6).has_data())
      << "its file is missing";
  EXPECT_TRUE(std::filesystem::is_empty(param.pcapDirPath));
  EXPECT_EQ(counters.pcap_critical, 45U);
  EXPECT_EQ(counters.pcap_manager.alert_sent, 45U);
}

TEST_F(EngineTest, FullCaptureQueueLetsItsOldestGo) {
  param.criticalPcapQSize = 2;
  Start();
  std::vector<std::string> paths;
  for (uint64_t flow = 1; flow <= 3; ++flow) {
    paths.push_back(CaptureFile(flow));
    Send(NoticeOf(flow));
  }
  EXPECT_FALSE(std::filesystem::exists(paths[0]));
  EXPECT_TRUE(log.Contains("Critical pcap queue full. Remove old event with flow id: 1, snipTsUs: 9"));
  EXPECT_EQ(counters.pcap_dropped_queue, 1U);
  Seconds(5);
  ASSERT_THAT(manager.Sent<PcapInfoMsg>(), SizeIs(1));
  EXPECT_EQ(manager.Sent<PcapInfoMsg>()[0]->pcap(0).pcap_id().first(), 2U);
  EXPECT_EQ(manager.Sent<PcapInfoMsg>()[0]->pcap_size(), 2);
}

// With Kafka, a file goes to both, and is there until the manager's message has it.
TEST_F(EngineTest, CapturesGoToKafkaFirst) {
  services.kafka_ready = true;
  Start();
  const std::string path = CaptureFile(1);
  Send(NoticeOf(1));
  ASSERT_THAT(services.pcaps, SizeIs(1));
  EXPECT_EQ(services.pcaps[0].pcap(0).data(), "packets");
  EXPECT_TRUE(std::filesystem::exists(path));
  Seconds(5);
  ASSERT_THAT(manager.Sent<PcapInfoMsg>(), SizeIs(1));
  EXPECT_EQ(manager.Sent<PcapInfoMsg>()[0]->pcap(0).data(), "packets");
  EXPECT_FALSE(std::filesystem::exists(path));
  // Large files go in several messages, one that is too large for Kafka without its bytes, and the manager
  // has them all.
  services.pcaps.clear();
  {
    const std::unique_lock busy(services.mutex);
    SendWithoutWaiting(NoticeOf(2));
    while (counters.pcap_total < 2) sched_yield();  // the sender waits for its peer
    for (uint64_t flow = 3; flow <= 6; ++flow) {
      CaptureFile(flow, std::string(flow == 6 ? 1'000'000 : 400'000, 'p'));
      SendWithoutWaiting(NoticeOf(flow));
    }
  }
  Seconds(10);
  size_t bytes = 0;
  size_t entries = 0;
  for (const PcapInfoMsg& message : services.pcaps) {
    EXPECT_LT(message.ByteSizeLong(), 900000U);
    entries += static_cast<size_t>(message.pcap_size());
    for (const auto& pcap : message.pcap()) bytes += pcap.data().size();
  }
  EXPECT_EQ(entries, 5U);
  EXPECT_EQ(bytes, 1'200'000U);
  EXPECT_EQ(counters.pcap_kafka.alert_sent, 6U);
  EXPECT_EQ(counters.pcap_manager.alert_sent, 6U);
  EXPECT_EQ(manager.Sent<PcapInfoMsg>().back()->pcap(4).data().size(), 1'000'000U);
}

TEST_F(EngineTest, FullKafkaCaptureQueueRefusesTheNewOne) {
  param.pcapKafkaQSize = 1;
  services.kafka_ready = true;
  Start();
  const std::string path = CaptureFile(9);
  {
    const std::unique_lock busy(services.mutex);
    SendWithoutWaiting(NoticeOf(1));
    while (counters.pcap_total < 1) sched_yield();  // the sender waits for its peer
    SendWithoutWaiting(NoticeOf(2));
    SendWithoutWaiting(NoticeOf(9));
    while (std::filesystem::exists(path)) sched_yield();
  }
  Seconds(10);
  EXPECT_EQ(counters.pcap_kafka.alert_sent, 2U);
  EXPECT_EQ(counters.pcap_dropped_kafka_queue, 1U);
  EXPECT_TRUE(log.Contains("Failed to add event to pcap queue, current size = 1, max size = 1"));
}

TEST_F(EngineTest, StaleCapturesAreRemoved) {
  const std::string old = CaptureFile(1, "packets", 10);
  const std::string young = CaptureFile(2);
  Start();
  Seconds(3599);
  EXPECT_TRUE(std::filesystem::exists(old));
  Seconds(2);
  EXPECT_FALSE(std::filesystem::exists(old));
  EXPECT_TRUE(std::filesystem::exists(young));
}

TEST_F(EngineTest, WhatCannotBeUsedEndsOneThreadAlone) {
  param.pcapDirPath = folder.Path() + "/absent";
  param.idsSocketName = folder.Path() + "/absent/eve.socket";
  Start();
  EXPECT_TRUE(log.Contains("invalid pcap file path: " + param.pcapDirPath));
  EXPECT_TRUE(log.Contains("Failed to bind to socket " + param.idsSocketName));
  EXPECT_TRUE(log.Contains("No alert will be received: No such file"));
  engine->Stop();
  EXPECT_TRUE(log.Contains("critical event processing thread interrupted, exiting"));
  EXPECT_FALSE(log.Contains("errorCode=\"CTX712\""));
}

TEST_F(EngineTest, StopIsPromptInEveryState) {
  services.kafka_ready = true;
  Start();
  Send(kAlert);
  const auto start = clock.Now();
  engine->Stop();
  EXPECT_EQ(clock.Now(), start) << "nobody sleeps to the end of a period";
  for (const char* text :
       {"critical event processing thread interrupted, exiting",
        "non-critical event processing thread interrupted, exiting",
        "kafka event processing thread interrupted, exiting", "Event consumption thread interrupted, exiting",
        "External logging thread interrupted, exiting", "Pcap Kafka processing thread interrupted, exiting",
        "Cleanup Stale Pcap thread interrupted, exiting"}) {
    EXPECT_TRUE(log.Contains(text)) << text;
  }
  engine->Stop();
  EXPECT_EQ(log.Count("Interrupting IDS event processing threads"), 1U);
  engine.reset();
  manager.clients["1801"].callback(nullptr);
}

// A thread that hangs in a peer's call has to be found by who looks.
TEST_F(EngineTest, EachThreadIsALoopWithSteps) {
  Start();
  Send(kAlert);
  manager.SetHangs(true);
  Seconds(5);
  std::map<std::string, std::string> steps;
  for (const zem::LoopReading& loop : zem::LoopThread::ReadAll()) steps[loop.name] = loop.step;
  EXPECT_THAT(steps,
              IsSupersetOf(std::map<std::string, std::string>{{"ids:critical", "alerts to the manager"},
                                                              {"ids:nonCritical", ""},
                                                              {"ids:kafka", ""},
                                                              {"ids:consumer", ""},
                                                              {"ids:extLog", ""},
                                                              {"ids:critPcap", ""},
                                                              {"ids:ncritPcap", ""},
                                                              {"ids:pcapKafka", ""},
                                                              {"ids:pcapClean", ""}}));
  manager.SetHangs(false);
  engine->Stop();
  auto counts = zem::LoopThread::StepsBefore();
  EXPECT_EQ(counts["ids:critical"], 1U);
  EXPECT_EQ(counts["ids:consumer"], 1U);
  EXPECT_EQ(counts["ids:pcapClean"], 1U);
}

size_t Threads() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                           std::filesystem::directory_iterator()));
}

TEST_F(EngineTest, StopLeavesAThreadThatHangsInTheChannel) {
  const size_t before = Threads();
  Start();
  manager.SetHangs(true);
  Send(kAlert);
  Seconds(5);
  engine->Stop();
  EXPECT_TRUE(log.Contains("Failed to terminate event processor/consumer threads"));
  engine.reset();
  manager.SetHangs(false);
  while (Threads() > before) sched_yield();
  clock.Settle();  // the thread's last use of the clock is over
  EXPECT_EQ(counters.manager.alert_sent, 1U) << "it ends with what it held";
}

TEST_F(EngineTest, OtherProducersMessagesGoOnUnchanged) {
  NodeRecords::Process().Clear();
  Start();
  auto events = std::make_shared<EventInfoMsg>();
  events->add_event_info()->set_count(3);
  events->mutable_event_node_hdr()->set_node_id("node-b");
  events->mutable_event_node_hdr()->set_sequence_number(7);
  const auto message = [](const char* app_id, const char* type, auto payload) {
    auto m = std::make_shared<Ctxt::CtxtMsg>();
    m->appId = app_id;
    m->payloadType = type;
    if (payload != nullptr) m->payloadLen = payload->ByteSizeLong();
    m->payload = std::move(payload);
    return m;
  };
  const auto& on_events = manager.clients["1801"].callback;
  const auto& on_pcaps = manager.clients["1802"].callback;
  constexpr const char* kEvents = "com.orlane.zem.context.ids.EventInfoMsg";
  constexpr const char* kPcaps = "orlane.zem.context.ids.PcapInfoMsg";
  on_events(message("1801", kEvents, events));
  ASSERT_THAT(manager.sent, SizeIs(1));
  EXPECT_EQ(manager.sent[0].payload, events);
  EXPECT_EQ(counters.manager.alert_sent, 3U);
  EXPECT_EQ(counters.manager.proto_sent, 1U);
  auto pcaps = std::make_shared<PcapInfoMsg>();
  pcaps->add_pcap();
  on_pcaps(message("1802", kPcaps, pcaps));
  EXPECT_EQ(counters.pcap_manager.alert_sent, 1U);
  // What is none.
  on_events(nullptr);
  on_pcaps(nullptr);
  on_events(message("1801", kPcaps, pcaps));
  on_events(message("1801", kEvents, std::shared_ptr<EventInfoMsg>()));
  on_events(message("1801", kEvents, std::make_shared<EventInfoMsg>()));
  EXPECT_THAT(manager.sent, SizeIs(2));
  for (const char* text : {" Ids Received CB with null Msg", " Ids Pcap Received CB with null Msg",
                           "Ids:: Invalid payload type: orlane.zem.context.ids.PcapInfoMsg, ignoring",
                           "  Callback received with null payload", "Received Msg with no eventInfo"}) {
    EXPECT_TRUE(log.Contains(text)) << text;
  }
  manager.status = -1;
  on_pcaps(message("1802", kPcaps, pcaps));
  EXPECT_TRUE(log.Contains("Failed to send pcap msg to MP"));
  EXPECT_EQ(counters.pcap_manager.proto_dropped, 1U);

  const auto commands = IdsStatisticsCommands(counters, NodeRecords::Process());
  EXPECT_EQ(
      CallCli(commands, "get/idsRPCFwderStats"),
      R"([{"Node-UUID":"node-b","send_seq":0,"old_seq":7,"drop_count":0,"rcv_count":1,"oop_count":0}])");
  EXPECT_THAT(CallCli(commands, "get/idsStats"),
              testing::StartsWith(R"({"total":0,"critical":0,"non-critical":0,"proto-sent-mp":1,)"
                                  R"("proto-dropped-mp":0,"alert-sent-mp":3,)"));
  EXPECT_EQ(CallCli(commands, "clear/idsStats"), "Status OK");
  EXPECT_EQ(CallCli(commands, "clear/idsRPCFwderStats"), "Status OK");
  EXPECT_EQ(counters.manager.alert_sent, 0U);
  EXPECT_EQ(CallCli(commands, "get/idsRPCFwderStats"), "[]");
}

}  // namespace
}  // namespace IdsEvtEng
