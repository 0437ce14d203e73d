#include <signal.h>

#include <filesystem>

#include "app/livetrace/livetrace_app.h"
#include "platform/core/loop_monitor.h"
#include "tests/app/dataplane_channel.h"

namespace zem::Tarvik {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr const char* kVertical = "livetrace";
constexpr const char* kResponse = "LivetraceResponseMsg";
constexpr const char* kBarrier = "LivetraceBarrierMsg";
constexpr const char* kOnboard = "LivetraceOnboardMsg";

class LivetraceTest : public DataplaneChannelTest {
 protected:
  LivetraceTest() {
    ::signal(SIGPIPE, SIG_IGN);  // as in the daemon
    std::filesystem::create_directory(directory.Path("captures"));
    Serve("cat > " + directory.Path("request"));
  }
  ~LivetraceTest() override { app->Stop(); }

  // Begins anew, with a script in the place of the host's.
  void Serve(const std::string& script) {
    const bool first = app == nullptr;
    if (!first) app->Stop();
    app.reset();
    app = LivetraceApp::Create(
        provider, adapter,
        {.captures = directory.Path("captures") + "/", .upload_command = {"/bin/sh", "-c", script}});
    app->Start();
    if (first) {
      Connect();
    } else {
      clock.RunFor(seconds(20));
    }
  }

  static std::string Meta(uint64_t id, int side) {
    return "metadata { session_id: " + std::to_string(id) + " side: " + std::to_string(side) + " } ";
  }
  void Request(uint64_t id, int side = 0, const std::string& more = "") {
    Ask(kVertical, "LivetraceMsg", "request { " + Meta(id, side) + more + "}");
  }
  void RequestUpload(uint64_t id) {
    Request(id, 0,
            "upload_id: \"u\\\"1\" upload_target { server: \"10.0.0.9\" thumbprint: \"ab\" port: 443 } ");
  }
  void Status(uint64_t id, int side, int status) {
    Tell("livetrace { status { " + Meta(id, side) + "status: " + std::to_string(status) + " } }");
  }
  void Observation(uint64_t id, int side, int packet) {
    Tell("livetrace { response { trace_response { observation { " + Meta(id, side) +
         "packet: " + std::to_string(packet) + " } } } }");
  }
  void Barrier(uint64_t id, int side, const std::string& more = "") {
    Tell("livetrace { barrier { " + Meta(id, side) + more + "} }");
  }
  std::string Capture(const std::string& name) {
    directory.Write("captures/" + name, "packets");
    return "pcap_file_name: \"" + name + "\" ";
  }
  std::vector<std::string> Captures() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory.Path("captures")))
      names.push_back(entry.path().filename());
    return names;
  }
  static std::vector<std::string> BusyLoops() {
    std::vector<std::string> busy;
    for (const LoopReading& loop : LoopThread::ReadAll())
      if (loop.busy) busy.push_back(loop.name + ": " + loop.step);
    return busy;
  }
  std::string AnswerText(size_t number) {
    const std::lock_guard lock(mutex);
    return answers.contains(number) ? answers[number].text : "none";
  }
  std::vector<std::string> SentTypes() {
    std::vector<std::string> types;
    for (const auto& [type, json] : TakeSent(kVertical)) types.push_back(type);
    return types;
  }

  std::shared_ptr<LivetraceApp> app;
};

// What is observed is held back until the barrier, then told in one message ahead of it; the session goes
// with the next look at the table.
TEST_F(LivetraceTest, ObservationsComeWithTheBarrier) {
  Request(7, 0, "session_name: \"web\" ");
  EXPECT_THAT(TakeReceived(), ElementsAre(HasSubstr("request { metadata { session_id: 7")));
  Status(7, 0, 0);
  EXPECT_THAT(AnswerText(0), HasSubstr("\"status\":0"));
  for (const int packet : {1, 2, 3}) Observation(7, 0, packet);
  EXPECT_THAT(app->ListSessions(), ElementsAre(std::pair(uint64_t{7}, std::string("web"))));
  EXPECT_THAT(SentTypes(), IsEmpty());
  Barrier(7, 0);
  const auto sent = TakeSent(kVertical);
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].first, kResponse);
  const size_t first = sent[0].second.find("\"packet\":1");
  EXPECT_LT(first, sent[0].second.find("\"packet\":2"));
  EXPECT_LT(sent[0].second.find("\"packet\":2"), sent[0].second.find("\"packet\":3"));
  EXPECT_THAT(sent[0].second, HasSubstr("transport_node_id"));
  EXPECT_EQ(sent[1].first, kBarrier);
  EXPECT_THAT(sent[1].second, HasSubstr("transport_node_id"));
  Request(7);
  EXPECT_TRUE(log.Contains("Session 0x7 exists")) << "until the session has gone";
  Barrier(7, 0);
  EXPECT_THAT(SentTypes(), ElementsAre(kBarrier)) << "nothing is told twice";
  clock.RunFor(milliseconds(2500));
  EXPECT_THAT(app->ListSessions(), IsEmpty());
}

// The two sides of one trace are two sessions in one entry; what the dataplane says of a side that the
// manager has not asked for belongs to the other.
TEST_F(LivetraceTest, SidesEndApart) {
  constexpr uint64_t kId = 0xF000000000000001;
  Request(kId, 0);
  Status(kId, 1, 3);
  EXPECT_THAT(AnswerText(0), HasSubstr("\"status\":3"));
  Request(kId, 1);
  Status(kId, 1, 7);
  EXPECT_THAT(AnswerText(1), HasSubstr("\"status\":7"));
  Observation(kId, 0, 10);
  Observation(kId, 1, 11);
  Barrier(kId, 1);
  const auto sent = TakeSent(kVertical);
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_THAT(sent[0].second, HasSubstr("\"packet\":11"));
  EXPECT_THAT(sent[0].second, Not(HasSubstr("\"packet\":10")));
  clock.RunFor(seconds(3));
  EXPECT_EQ(app->ListSessions().size(), 1U);
  TakeReceived();
  Ask(kVertical, "LivetraceMsg", "delete_request { " + Meta(kId, 0) + "}", true);
  EXPECT_TRUE(log.Contains("Session 0xf000000000000001 is deleted"));
  EXPECT_THAT(TakeReceived(), ElementsAre(HasSubstr("delete_request")));
  EXPECT_THAT(app->ListSessions(), IsEmpty());
  Barrier(kId, 0);
  EXPECT_THAT(SentTypes(), ElementsAre(kBarrier));
  Ask(kVertical, "LivetraceMsg", "delete_request { " + Meta(kId, 0) + "}", true);
  EXPECT_TRUE(log.Contains("Session 0xf000000000000001 not exists"));
}

// A session of the dataplane's making gives way to the manager's request, with all that it has observed told
// first.
TEST_F(LivetraceTest, TheManagersRequestTakesAnOnboardedSessionsPlace) {
  const std::string onboard = "livetrace { onboard { " + Meta(9, 0) + "} }";
  Tell(onboard);
  Tell(onboard);
  EXPECT_TRUE(log.Contains("Session 0x9 exists"));
  Observation(9, 0, 1);
  Observation(9, 0, 2);
  Observation(10, 0, 3);
  EXPECT_TRUE(log.Contains("Session 0xa not found"));
  EXPECT_THAT(SentTypes(), ElementsAre(kOnboard));
  Request(9);
  const auto sent = TakeSent(kVertical);
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_THAT(sent[0].second, HasSubstr("\"packet\":2"));
  Status(9, 0, 0);
  EXPECT_THAT(AnswerText(0), HasSubstr("\"status\":0"));

  Tell("livetrace { invalidation { " + Meta(9, 0) + "} }");
  Tell("livetrace { invalidation { " + Meta(9, 0) + "} }");
  EXPECT_THAT(SentTypes(), ElementsAre("LivetraceInvalidationMsg", "LivetraceInvalidationMsg"));
  EXPECT_TRUE(log.Contains("Session 0x9 not found"));
  Tell(onboard);
  Status(9, 0, 0);
  EXPECT_TRUE(log.Contains("Failed to send msg to MP: -1")) << "nobody has asked for it";
  clock.RunFor(seconds(3));
  EXPECT_THAT(app->ListSessions(), IsEmpty());
}

// Each limit of time: the dataplane's status, and the session's life.
TEST_F(LivetraceTest, SessionsAge) {
  Request(1);
  clock.RunFor(milliseconds(700));
  Request(2);
  Status(2, 0, 0);
  clock.RunFor(seconds(5));
  EXPECT_THAT(AnswerText(0), HasSubstr("\"status\":5"));
  EXPECT_THAT(AnswerText(0), HasSubstr("\"session_id\":\"1\""));
  EXPECT_GE(answers[0].took, seconds(2));
  EXPECT_LE(answers[0].took, milliseconds(4010));
  Status(1, 0, 0);
  EXPECT_TRUE(log.Contains("Session 0x1 not found"));
  clock.RunFor(seconds(890));
  EXPECT_EQ(app->ListSessions().size(), 1U);
  clock.RunFor(seconds(10));
  EXPECT_THAT(app->ListSessions(), IsEmpty());
  EXPECT_THAT(SentTypes(), IsEmpty());
  EXPECT_EQ(answers.size(), 2U);
}

// Counts and statistics pass straight through.  A request that reaches the application behind the handshake
// is served at once: its status must not come before anybody listens for it.
TEST_F(LivetraceTest, CountsPassAndTheFirstRequestIsServed) {
  Tell("livetrace { response { count_response { " + Meta(1, 0) + "packets: 4 } } }");
  Tell("livetrace { response { datapath_stats_response { " + Meta(1, 0) + "} } }");
  Tell("livetrace { response { trace_response { } } }");
  EXPECT_THAT(SentTypes(), ElementsAre(kResponse, kResponse));

  Serve("true");
  EXPECT_EQ(log.Count("Livetrace App is initialized at transport node: " + std::string(kTn)), 2U);
}

// The upload's request is what the script expects to the letter; the file has gone when the barrier is told,
// whatever became of the upload.
TEST_F(LivetraceTest, TheCaptureIsUploadedBeforeTheBarrier) {
  RequestUpload(18);
  Status(18, 0, 0);
  Observation(18, 0, 1);
  Barrier(18, 0, Capture("a.pcap"));
  clock.RunFor(seconds(1));
  EXPECT_THAT(SentTypes(), ElementsAre(kResponse, kBarrier));
  EXPECT_THAT(Captures(), IsEmpty());
  EXPECT_EQ(directory.Read("request"),
            "{\"local_path\": \"" + directory.Path("captures/a.pcap") +
                "\", \"generate_id\": \"u\\\"1\", \"manager_info\": "
                "{\"manager_uri\":\"api/v1/livetraces/18/capturefile/u\\\"1\",\n\"server\": \"10.0.0.9\", "
                "\"port\": 443, \"thumbprint\": \"ab\"}}");
  EXPECT_FALSE(log.Contains("u\\\"1")) << "the upload's id is the manager's permission to write";
  Serve("cat > /dev/null; exit 3");
  RequestUpload(19);
  Status(19, 0, 0);
  Barrier(19, 0, Capture("b.pcap"));
  clock.RunFor(seconds(1));
  EXPECT_THAT(SentTypes(), ElementsAre(kBarrier));
  EXPECT_THAT(Captures(), IsEmpty());
  EXPECT_TRUE(log.Contains("Finished uploading file " + directory.Path("captures/b.pcap") + ": ret=3"));
  // Uploads that have ended do not count against those that begin, whether or not they were joined.
  for (uint64_t id = 100; id < 166; ++id) {
    RequestUpload(id);
    Barrier(id, 0, Capture("c.pcap"));
    clock.RunFor(milliseconds(5));
  }
  EXPECT_EQ(log.Count("Finished uploading file"), 68U);
  EXPECT_FALSE(log.Contains("Too many uploads"));
}

// The name of a capture comes from outside, and a file of that name is read and removed as root.
TEST_F(LivetraceTest, ACapturesNameIsNoPath) {
  RequestUpload(3);
  Status(3, 0, 0);
  for (const char* const name : {"", ".", "..", "../request", "/etc/passwd", "a/b", "a\\000b"})
    Barrier(3, 0, "pcap_file_name: \"" + std::string(name) + "\" ");
  Barrier(3, 0);
  EXPECT_EQ(log.Count("Failed to figure out pcap filename from barrier msg, session 0x3"), 8U);
  EXPECT_THAT(SentTypes(), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists(directory.Path("request")));
  EXPECT_FALSE(CaptureFolder::IsName(std::string(256, 'a')));
  directory.Write("kept", "");
  Barrier(99, 0, "pcap_file_name: \"../kept\" ");
  Barrier(99, 0, Capture("d.pcap"));
  EXPECT_THAT(SentTypes(), ElementsAre(kBarrier, kBarrier));
  EXPECT_THAT(Captures(), IsEmpty()) << "nobody else would remove what no session uploads";
  EXPECT_TRUE(std::filesystem::exists(directory.Path("kept")));
}

// A script that hangs holds up neither a second barrier nor the deletion, and nothing of it is told.
TEST_F(LivetraceTest, ADeletionDoesNotWaitForTheUpload) {
  Serve("exec sleep 1000");
  RequestUpload(4);
  Status(4, 0, 0);
  const std::string named = Capture("c.pcap");
  Barrier(4, 0, named);
  Barrier(4, 0, named);
  EXPECT_TRUE(log.Contains("Session 0x4 is uploading, its second barrier is dropped"));
  EXPECT_EQ(log.Count("Start uploading file"), 1U);
  EXPECT_THAT(BusyLoops(), Contains("livetrace-up: upload of a capture"));
  EXPECT_THAT(Captures(), ElementsAre("c.pcap"));
  Barrier(4, 1, Capture("of-the-other-side.pcap"));
  Barrier(99, 0, named);
  EXPECT_THAT(Captures(), ElementsAre("c.pcap")) << "what is dropped leaves no file, what is sent stays";
  EXPECT_THAT(SentTypes(), ElementsAre(kBarrier)) << "that of the unknown session";
  Ask(kVertical, "LivetraceMsg", "delete_request { " + Meta(4, 0) + "}", true);
  EXPECT_TRUE(log.Contains("Session 0x4 is deleted"));
  app->Stop();
  EXPECT_TRUE(log.Contains("Finished uploading file"));
  EXPECT_THAT(Captures(), IsEmpty());
  EXPECT_THAT(SentTypes(), IsEmpty());
}

// A capture that an earlier life has left belongs to nobody.
TEST_F(LivetraceTest, LeftCapturesGoAtTheStart) {
  Capture("old.pcap");
  std::filesystem::create_directory(directory.Path("captures/kept"));
  Serve("true");
  EXPECT_THAT(Captures(), ElementsAre("kept"));
}

// Below the folder of everybody, somebody else may have put a link in the captures' place, or may write to
// it.
TEST_F(LivetraceTest, NothingIsRemovedFromAFolderThatIsNotOurs) {
  Capture("a");
  const CaptureFolder folder(directory.Path("captures") + "/");
  std::filesystem::permissions(directory.Path("captures"), std::filesystem::perms::others_write,
                               std::filesystem::perm_options::add);
  EXPECT_THAT(folder.RemoveAll(), IsEmpty());
  std::filesystem::permissions(directory.Path("captures"), std::filesystem::perms::others_write,
                               std::filesystem::perm_options::remove);
  std::filesystem::create_directory_symlink(directory.Path("captures"), directory.Path("link-to"));
  EXPECT_FALSE(CaptureFolder(directory.Path("link-to") + "/").Remove("a"));
  std::filesystem::create_directory_symlink(directory.Path(), directory.Path("around"));
  EXPECT_FALSE(CaptureFolder(directory.Path("around/captures/")).Remove("a"));
  EXPECT_THAT(folder.RemoveAll(), ElementsAre("a"));
  EXPECT_FALSE(folder.Remove("a"));
}

TEST_F(LivetraceTest, TheTableIsBounded) {
  orlane::zem::livetrace::LivetraceMsg message;
  for (uint64_t id = 1; id <= 1025; ++id) {
    message.mutable_onboard()->mutable_metadata()->set_session_id(id);
    app->DpPacketHandler(message);
  }
  EXPECT_EQ(app->ListSessions().size(), 1024U);
  message.Clear();
  auto* const observation = message.mutable_response()->mutable_trace_response()->add_observation();
  observation->mutable_metadata()->set_session_id(1);
  for (int i = 0; i < 10'002; ++i) app->DpPacketHandler(message);
  EXPECT_EQ(log.Count("Session 0x1 has too many observations, more are dropped"), 1U);
  Request(2000);
  EXPECT_TRUE(log.Contains("Failed to compose RPC response"));
}

// What an operator sees; the handlers are asked as the command server asks them.
TEST_F(LivetraceTest, OneInstanceServesTheCommands) {
  EXPECT_EQ(LivetraceApp::Create(provider, adapter, {}), app);
  EXPECT_TRUE(log.Contains("App instance is already present"));
  std::string name;
  EXPECT_EQ(app->GetSessionName(1, &name), -1);
  Request(1, 0, "session_name: \"one\" ");
  EXPECT_EQ(app->GetSessionName(1, &name), 0);
  EXPECT_EQ(name, "one");
  app->Stop();
  EXPECT_FALSE(app->running());
}

}  // namespace
}  // namespace zem::Tarvik
