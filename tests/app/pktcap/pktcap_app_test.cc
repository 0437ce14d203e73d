#include "app/pktcap/service/pktcap_app.h"

#include <google/protobuf/text_format.h>
#include <poll.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>

#include "app/pktcap/service/pktcap_commands.h"
#include "framework/cli/cli_reply_queue.h"
#include "framework/node/platform_info.h"
#include "proto/packetcapture/packetcapture.pb.h"
#include "tests/app/pktcap/pcap_bytes.h"
#include "tests/mpaclient/channel_fixture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

using std::chrono::seconds;
using test_pcap::Header;
using test_pcap::Record;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr const char* kFile = "cap_type: 2 cap_value: \"knl0\" cap_mode: 1 direction: 1 cap_duration: 60";

class PktCapAppTest : public ChannelTest {
 protected:
  PktCapAppTest() {
    BeNode("zem-qub");
    dir.Write("stream", Header() + Record(1, 1, "aaaa"));
    SetTool("capture", "while [ \"$1\" != -o ]; do shift; done\ncat " + dir.Path("stream") + " > \"$2\"\n");
    SetTool("filter", "exec cat \"$2\"\n");
    // One shell plays the python of all three scripts; the process list cannot be had.
    dir.Write("find", "echo 12 ks-1\n");
    dir.Write("proxy", "exit 1\n");
    dir.Write("upload", "cat > " + dir.Path("request") + "\nexit $(cat " + dir.Path("outcome") + ")\n");
    dir.Write("outcome", "0");
    tools.capture = dir.Path("capture");
    tools.filter = dir.Path("filter");
    tools.python = "/bin/sh";
    tools.find_port = dir.Path("find");
    tools.process_proxy = dir.Path("proxy");
    tools.upload = dir.Path("upload");
    tools.ps = dir.Path("none");
    tools.pipe = dir.Path("pipe.XXXXXX");
    tools.file = dir.Path("capture.XXXXXX");
    StartManager();
  }
  ~PktCapAppTest() override { app.reset(); }

  void SetTool(const std::string& name, const std::string& text) {
    std::filesystem::permissions(dir.Write(name, "#!/bin/sh\n" + text), std::filesystem::perms::owner_all);
  }
  void BeNode(const std::string& type) {
    HostIdentity host;
    host.issue_path = dir.Write("issue", "node-type: " + type + "\n");
    const HostIdentity before = SetHostIdentity(host);
    EXPECT_EQ(LoadPlatformInfo(), 0);
    SetHostIdentity(before);
  }
  void StartApp() {
    app = std::make_unique<PktCapApp>(provider, tools);
    ASSERT_TRUE(app->Start());
    proxy_client->Start();
    clock.RunFor(seconds(5));
    // The manager's way to the host is made by its first call.
    Ask("query { query_type: 1 }");
    clock.RunFor(seconds(1));
    EXPECT_THAT(*answers, ElementsAre(R"(answer {"query_reply":{"text":""}})"));
    answers->clear();
  }
  void Ask(const std::string& text) {
    sim::Manager::SendRequest request;
    request.vertical = "PacketCapture";
    request.member = "PktCapManagerToHostMsg";
    request.text = text;
    request.timeout = seconds(300);
    ASSERT_EQ(manager->Send(request,
                            [this, answers = answers](const sim::HostAnswer& answer) {
                              const std::lock_guard lock(mutex);
                              answers->push_back("answer " + sim::AnswerJson("PacketCapture", answer));
                            }),
              "");
  }
  /// The tools are processes of the machine, whose time the clock does not know: it goes on in small steps
  /// until they have come so far.
  void RunUntil(const std::function<bool()>& reached) {
    constexpr int kMostSteps = 5000;
    for (int i = 0; i < kMostSteps && !reached(); ++i) {
      clock.RunFor(std::chrono::milliseconds(2));
      ::poll(nullptr, 0, 2);
    }
  }
  /// The answers, then the reports, of the host so far.
  std::vector<std::string> Told() {
    std::vector<std::string> all;
    {
      const std::lock_guard lock(mutex);
      all = *answers;
    }
    for (const auto& each : manager->record().ReceivedFrom("PacketCapture", 0)) all.push_back(each.json);
    return all;
  }
  bool NothingIsLeft() const {
    for (const auto& entry : std::filesystem::directory_iterator(dir.Path())) {
      const std::string name = entry.path().filename();
      if (name.starts_with("pipe.") || name.starts_with("capture.")) return false;
    }
    return true;
  }

  test::TempDir dir;
  CaptureTools tools;
  /// Also of calls that end with the manager, behind this object.
  const std::shared_ptr<std::vector<std::string>> answers = std::make_shared<std::vector<std::string>>();
  std::unique_ptr<PktCapApp> app;
};

std::string Status(const std::string& id, int status, const std::string& more = "") {
  return R"({"status_report":{"session_id":")" + id + R"(","status":)" + std::to_string(status) + more + "}}";
}

TEST_F(PktCapAppTest, AFileIsCapturedAndThenUploaded) {
  StartApp();
  Ask("operation { op_type: 4 session_id: \"s\" request { " + std::string(kFile) + " } }");
  RunUntil([this] { return Told().size() == 2; });
  EXPECT_THAT(Told(),
              ElementsAre("answer " + Status("s", 1), Status("s", 2, R"(,"needs_upload_info":true)")));
  const auto reports = manager->record().ReceivedFrom("PacketCapture", 0);
  EXPECT_THAT(reports.at(0).correlation_id, ::testing::StartsWith("PacketCapture-"));
  EXPECT_THAT(app->List(), ::testing::SizeIs(1));
  Ask("operation { op_type: 3 session_id: \"s\" https_repository_info { server: \"m\" port: 443 } }");
  clock.RunFor(seconds(1));
  EXPECT_THAT(Told().at(1), HasSubstr("host not support packet capture CLI")) << "no token";
  Ask("operation { op_type: 3 session_id: \"s\" upload_token: \"t\\\"\\\\1\" https_repository_info { server: "
      "\"m\" "
      "port: 443 fingerprint: \"aa\" } }");
  RunUntil([this] { return app->List().empty() && Told().size() == 5; });
  ASSERT_EQ(Told().size(), 5u);
  EXPECT_EQ(Told().at(2), "answer " + Status("s", 2));
  EXPECT_EQ(Told().back(), Status("s", 3));
  const std::string request = dir.Read("request");
  const size_t path = request.find("\":\"") + 3;
  const std::string file = request.substr(path, request.find('"', path) - path);
  EXPECT_EQ(
      request,
      "{\n\t\"local_path\":\"" + file +
          "\",\n\t\"generate_id\":\"t\\\"\\\\1\",\n\t\"manager_info\":{\n\t\t\"manager_uri\":"
          "\"api/v1/pktcap/session/s/capturefile/t\\\"\\\\1\",\n\t\t\"port\":443,\n\t\t\"server\":\"m\","
          "\n\t\t\"thumbprint\":\"aa\"}\n}\n");
  EXPECT_TRUE(log.Contains("Session s uploader destructed, token , url  and thumbprint  cleared."));
  EXPECT_TRUE(log.Contains("Session s finished with status ok"));
  EXPECT_THAT(app->List(), IsEmpty());
  EXPECT_TRUE(NothingIsLeft());
  for (const std::string& line : log.Texts()) EXPECT_THAT(line, ::testing::Not(HasSubstr("t\\\"\\\\1")));
}

// A stop that says nothing does not take back where the file goes; a failed upload ends the session.
TEST_F(PktCapAppTest, WhereTheFileGoesMayBeSaidEarly) {
  SetTool("capture", "exec sleep 1000\n");
  dir.Write("outcome", "4");
  StartApp();
  Ask("operation { op_type: 4 session_id: \"s\" request { " + std::string(kFile) + " } }");
  Ask("operation { op_type: 3 session_id: \"s\" upload_token: \"t\" https_repository_info { server: \"m\" "
      "port: 1 "
      "fingerprint: \"aa\" } }");
  Ask("operation { op_type: 2 session_id: \"s\" }");
  RunUntil([this] { return Told().size() == 5 && app->List().empty(); });
  EXPECT_THAT(Told(), ElementsAre("answer " + Status("s", 1), "answer " + Status("s", 2),
                                  "answer " + Status("s", 2), Status("s", 2),
                                  Status("s", 4, R"(,"error_kind":5,"error_text":"file transfer error")")));
  EXPECT_TRUE(NothingIsLeft());
}

// An operator's file may be wanted on another file system; the manager does not hear of it.
TEST_F(PktCapAppTest, AnOperatorsFileGoesWhereItIsWanted) {
  StartApp();
  char shared[] = "/dev/shm/zem-pktcap-XXXXXX";
  ASSERT_NE(::mkdtemp(shared), nullptr);
  const std::string theirs = std::string(shared) + "/f.tmp";
  std::ofstream(theirs) << "an operator's";
  orlane::zem::packetcapture::PktCapRequestMsg request;
  ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(kFile, &request));
  std::string error = "none";
  std::atomic<bool> answered{false};
  app->StartLocal("mine", request, std::string(shared) + "/f", [&](const std::string& e, auto session) {
    error = e + (session ? session->id : "");
    answered = true;
  });
  RunUntil([&] { return answered && app->List().empty(); });
  ASSERT_TRUE(answered);
  EXPECT_EQ(error, "mine");
  std::ifstream file(std::string(shared) + "/f", std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), dir.Read("stream"));
  EXPECT_TRUE(std::filesystem::exists(theirs));
  std::filesystem::remove_all(shared);
  EXPECT_THAT(Told(), IsEmpty());
  EXPECT_THAT(app->List(), IsEmpty());
  EXPECT_TRUE(NothingIsLeft());
}

// Without the application operators are told so, and what the node can do all the same.
TEST_F(PktCapAppTest, CommandsWithoutTheApplication) {
  SetTool("none", "echo '7 other'; echo '12 orlane-vprobe'\n");
  PktCapApp app_that_is_off(provider, tools);
  const auto queue = std::make_shared<CliReplyQueue>();
  queue->Open();
  std::map<std::string, std::string> replies;
  for (const CliCommand& command : PktCapCommands(app_that_is_off)) {
    command.handler(CliArguments(7, "x"), CliReply(queue, 1));
    clock.RunFor(seconds(1));
    const auto answers = queue->Take();
    ASSERT_EQ(answers.size(), 1u) << command.name;
    replies[command.name] = (answers[0].ok ? "ok " : "error ") + answers[0].text;
  }
  for (const char* const name : {"list", "get", "start", "stop"}) {
    EXPECT_EQ(replies[std::string("packet-capture/") + name], "error Not running") << name;
  }
  EXPECT_EQ(replies["packet-capture/query"], "error Not implemented");
  EXPECT_EQ(replies["packet-capture/status"],
            R"(ok {"RUNNING_STATUS":false,"IS_QUB_PLATFORM":true,"IS_QUB_65":false,"IS_FABRIC_NODE":true,)"
            R"("IS_IPV6_FILTER_CAPABLE":true,"MAX_PACKET_CAPTURE_SESSIONS":2,"DEFAULT_SNAPLEN":65535,)"
            R"("VPROBE_RUNNING":true})");
  for (const auto& [type, flags] : std::initializer_list<std::pair<const char*, const char*>>{
           {"zem-manager", R"("IS_MANAGER_NODE":true,"IS_CLUSTER_NODE":true)"},
           {"zem-controller", R"("IS_CONTROLLER_NODE":true,"IS_CLUSTER_NODE":true)"},
           {"zem-policy-manager", R"("IS_POLICY_MANAGER_NODE":true,"IS_CLUSTER_NODE":true)"},
           {"zem-kvm", R"("IS_KVM_PLATFORM":true,"IS_FABRIC_NODE":true)"},
           {"zem-edge", R"("IS_EDGE_PLATFORM":true,"IS_FABRIC_NODE":true)"},
           {"zem-public-cloud-gateway", R"("IS_PCG":true,"IS_EDGE_PLATFORM":true,"IS_FABRIC_NODE":true)"},
       }) {
    BeNode(type);
    EXPECT_THAT(CaptureStatusText(true, false),
                HasSubstr(R"({"RUNNING_STATUS":true,)" + std::string(flags) + R"(,"IS_IPV6)"))
        << type;
  }
  BeNode("zem-qub");
}

// With a look-up that hangs, requests pile up to the limit; the one beyond is refused at once, and the stop
// waits for none.
TEST_F(PktCapAppTest, AStopEndsWhatHangsAndWhatWaits) {
  dir.Write("find", "sleep 1000\n");
  dir.Write("capture.aaaaaa", "left by another run");
  dir.Write("capture.kept", "not ours");
  StartApp();
  EXPECT_FALSE(std::filesystem::exists(dir.Path("capture.aaaaaa")));
  EXPECT_TRUE(std::filesystem::exists(dir.Path("capture.kept")));
  std::filesystem::remove(dir.Path("capture.kept"));
  for (size_t i = 0; i < PktCapApp::kMostRequests + 3; ++i) {
    Ask("operation { op_type: 4 session_id: \"s" + std::to_string(i) + "\" request { " + std::string(kFile) +
        " } }");
  }
  clock.Settle();
  for (const std::string& answer : Told()) EXPECT_THAT(answer, HasSubstr("general error"));
  EXPECT_THAT(Told(), ::testing::Not(IsEmpty()));
  app->Stop();
  EXPECT_FALSE(log.Contains("Tx: No message header"));
  EXPECT_TRUE(NothingIsLeft());
  EXPECT_FALSE(app->running());
}

TEST_F(PktCapAppTest, AStopEndsSessionsWithoutReports) {
  SetTool("capture", "exec sleep 1000\n");
  StartApp();
  for (const char* const id : {"a", "b", "c"}) {
    Ask("operation { op_type: 4 session_id: \"" + std::string(id) + "\" request { " + kFile + " } }");
  }
  RunUntil([this] { return Told().size() == 3; });
  ASSERT_EQ(Told().size(), 3u);
  EXPECT_THAT(Told().at(2), HasSubstr("max active session reached on host"));
  app->Stop();
  EXPECT_TRUE(log.Contains("PacketCapture: Stop\n") || log.Contains("PacketCapture: Stop"));
  EXPECT_EQ(Told().size(), 3u) << "nothing but the answers";
  EXPECT_THAT(app->List(), IsEmpty());
  EXPECT_TRUE(NothingIsLeft());
}

}  // namespace
}  // namespace zem::Tarvik
