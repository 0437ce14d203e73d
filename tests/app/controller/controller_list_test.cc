#include <fcntl.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/file.h>

#include <algorithm>
#include <deque>
#include <sstream>

#include "app/controller/controller_context.h"
#include "app/controller/controller_list_app.h"
#include "app/controller/controller_list_handler_task.h"
#include "app/controller/update_tn_uuid_task.h"
#include "framework/node/host_identity.h"
#include "platform/provider/provider.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::controller {
namespace {

using orlane::zem::config::MpLcpMsg;
using test::LogCapture;

constexpr const char* kNoControllers =
    "<config>\n <!-- by hand -->\n <connectionList></connectionList>\n</config>\n";
constexpr const char* kTn = "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a01";

std::string MakePem(int serial) {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* certificate = X509_new();
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
  X509_set_pubkey(certificate, key);
  X509_sign(certificate, key, EVP_sha256());
  BIO* out = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(out, certificate);
  char* text = nullptr;
  const long size = BIO_get_mem_data(out, &text);
  std::string pem(text, static_cast<size_t>(size));
  BIO_free_all(out);
  X509_free(certificate);
  EVP_PKEY_free(key);
  return pem;
}

class ControllerListTest : public ::testing::Test {
 protected:
  ControllerListTest() {
    dir_.Write("controllers.xml", kNoControllers);
    // Keeps what it was shown, and says what "result" says.
    dir_.Write("reload.sh", "cp \"$1\" " + dir_.Path("shown") + "\necho >> " + dir_.Path("calls") +
                                "\n[ -e " + dir_.Path("refuse") +
                                " ] && { echo not now; exit 3; }\nexit 0\n");
    ControllerFile::Settings file;
    file.path = dir_.Path("controllers.xml");
    file.reload_command = "sh " + dir_.Path("reload.sh");
    file.wait = [this](Duration) { return on_wait_(); };
    context_ = std::make_shared<ControllerContext>(
        std::move(file), host_,
        [this](std::unique_ptr<Runnable> task) { tasks_.push_back(std::move(task)); });
    context_->add_task_later = [this](Duration delay, std::function<std::unique_ptr<Runnable>()> make) {
      later_ = {delay, std::move(make)};
    };
  }
  /// What was to be done later is due: the delay it had, 0 for nothing.
  std::chrono::seconds RunLater() {
    const auto [delay, make] = std::exchange(later_, {});
    if (auto task = make ? make() : nullptr) tasks_.push_back(std::move(task));
    RunTasks();
    return std::chrono::duration_cast<std::chrono::seconds>(delay);
  }

  void Handle(const std::string& text) {
    MpLcpMsg message;
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
    ControllerListHandlerTask(context_, "corr", "", std::move(message)).Run();
  }
  void RunTasks() {
    while (!tasks_.empty()) {
      const auto task = std::move(tasks_.front());
      tasks_.pop_front();
      task->Run();
    }
  }
  std::string File() const { return dir_.Read("controllers.xml"); }
  size_t Reloads() const {
    const std::string calls = dir_.Read("calls");
    return static_cast<size_t>(std::count(calls.begin(), calls.end(), '\n'));
  }
  static size_t CountOf(const std::string& part, const std::string& text) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
  }

  LogCapture log_;
  test::TempDir dir_;
  HostIdentity host_;
  std::function<bool()> on_wait_ = [] { return false; };
  std::deque<std::unique_ptr<Runnable>> tasks_;
  std::pair<Duration, std::function<std::unique_ptr<Runnable>()>> later_;
  std::shared_ptr<ControllerContext> context_;
};

std::string Controller(const std::string& address, int port, int uuid, const std::string& more = "") {
  return "controller { ipv4_address: \"" + address + "\" port: " + std::to_string(port) +
         (uuid > 0 ? " uuid { first: 1 second: " + std::to_string(uuid) + " }" : "") + " " + more + " }";
}
std::string Update(const std::string& controllers) { return "update { " + controllers + " }"; }

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\n' || c == '\r') {
      escaped += c == '\n' ? "\\n" : "\\r";
    } else {
      escaped += c;
    }
  }
  return escaped;
}

TEST_F(ControllerListTest, WritesTheManagersListAndKeepsTheRest) {
  host_.SetHostId(kTn);
  const std::string pem = MakePem(1) + MakePem(2);
  Handle(Update(Controller("10.0.0.1", 1235, 1,
                           "ipv6_group { host_name: \"c&1\" address: \"fd00::1\" address: \"fd00::2\" } "
                           "ipv6_port: 1236 version { major: 2 minor: 3 build: 77 text: \"rc\" } "
                           "ssl_enabled: true certificate: \"" +
                               Escaped(pem) + "\\r\\n \"") +
                Controller("10.0.0.2", 1235, 0, "ssl_enabled: false")));
  const std::string file = File();
  for (const std::string& part :
       {std::string("<?xml version=\"1.0\" encoding=\"utf-8\"?>"), std::string("<!-- by hand -->"),
        std::string("<connection id=\"1\"><server>10.0.0.1</server><serverV6>fd00::1</serverV6>"
                    "<fqdnV6>c&amp;1</fqdnV6><uuid>00000000-0000-0001-0000-000000000001</uuid>"
                    "<version>2.3.rc.77</version><port>1235</port><portV6>1236</portV6>"
                    "<sslEnabled>true</sslEnabled><pemKey>" +
                    pem + "</pemKey></connection>"),
        std::string("<connection id=\"2\"><server>10.0.0.2</server><port>1235</port>"
                    "<sslEnabled>false</sslEnabled></connection>"),
        std::string("<transportNode><UUID>") + kTn + "</UUID></transportNode>"}) {
    EXPECT_NE(file.find(part), std::string::npos) << part << "\nin\n" << file;
  }
  EXPECT_EQ(Reloads(), 1U);
  EXPECT_EQ(dir_.Read("shown"), file);
  // A repeated update leaves the file unchanged, and the id is written once.
  RunTasks();
  Handle(Update(Controller("10.0.0.2", 1235, 0, "ssl_enabled: false")));
  EXPECT_EQ(CountOf("<connection ", File()), 1U);
  const std::string before = File();
  Handle(Update(Controller("10.0.0.2", 1235, 0, "ssl_enabled: false")));
  EXPECT_EQ(File(), before);
  EXPECT_TRUE(log_.Contains("Delete and re-add controller entry"));
  EXPECT_TRUE(tasks_.empty());
}

struct MergeCase {
  const char* what;
  std::string first;
  std::string second;
  std::vector<const char*> wanted;
};

TEST_F(ControllerListTest, MergesByUuidElseByAddress) {
  const std::vector<MergeCase> cases = {
      {"a changed port is a new entry, the old one goes",
       Controller("10.0.0.1", 1, 1),
       Controller("10.0.0.1", 2, 1),
       {"<server>10.0.0.1</server><uuid>00000000-0000-0001-0000-000000000001</uuid><port>2</port>"}},
      {"a new address under the uuid",
       Controller("10.0.0.1", 1, 1),
       Controller("10.0.0.9", 1, 1),
       {"<server>10.0.0.9</server>"}},
      {"without uuid the address decides",
       Controller("10.0.0.1", 1, 0),
       Controller("10.0.0.1", 2, 0),
       {"<server>10.0.0.1</server><port>2</port>"}},
      {"a controller that is missing in the update is removed",
       Controller("10.0.0.1", 1, 1) + Controller("10.0.0.2", 1, 2),
       Controller("10.0.0.2", 1, 2),
       {"<server>10.0.0.2</server>"}},
      {"the last of two with one uuid stays",
       Controller("10.0.0.7", 1, 7),
       Controller("10.0.0.1", 1, 1) + Controller("10.0.0.2", 1, 1),
       {"<server>10.0.0.2</server>"}},
      {"there and back within one list",
       Controller("10.0.0.1", 1, 1),
       Controller("10.0.0.1", 2, 1) + Controller("10.0.0.1", 1, 1),
       {"<port>1</port>"}},
      {"nobody is left", Controller("10.0.0.1", 1, 1) + Controller("10.0.0.2", 1, 0), "", {}},
  };
  for (const MergeCase& each : cases) {
    SCOPED_TRACE(each.what);
    dir_.Write("controllers.xml", kNoControllers);
    Handle(Update(each.first));
    const size_t reloads = Reloads();
    Handle(Update(each.second));
    const std::string file = File();
    EXPECT_EQ(CountOf("<connection ", file), each.wanted.size()) << file;
    for (const char* part : each.wanted) EXPECT_NE(file.find(part), std::string::npos) << file;
    EXPECT_EQ(Reloads(), reloads + 1);
  }
  // There is nobody to remove any more.
  const size_t reloads = Reloads();
  Handle(Update(""));
  EXPECT_EQ(Reloads(), reloads);
}

TEST_F(ControllerListTest, AnEmptyListDoesNotWriteTheTransportNode) {
  Handle(Update(Controller("10.0.0.1", 1, 1)));
  host_.SetHostId(kTn);
  Handle(Update(""));
  EXPECT_EQ(File().find("UUID"), std::string::npos);
  EXPECT_TRUE(tasks_.empty());
}

TEST_F(ControllerListTest, OneBadEntryRefusesTheWholeList) {
  const std::string good = Controller("10.0.0.1", 1, 1);
  Handle(Update(good));
  const std::string before = File();
  const std::string pem = Escaped(MakePem(3));
  const std::string text_behind = "ssl_enabled: true certificate: \"" + pem + "trailer\"";
  const std::string half = "ssl_enabled: true certificate: \"" + pem.substr(0, pem.size() / 2) + "\"";
  const std::string broken =
      "ssl_enabled: true certificate: \"-----BEGIN CERTIFICATE-----\\nAAAA\\n-----END CERTIFICATE-----\"";
  const std::pair<std::string, const char*> cases[] = {
      {"sync_request {}", "Received empty controller info message"},
      {Update("controller { port: 1 }"), "Incorrect controller address info"},
      {Update("controller { ipv4_address: \"10.0.0.2\\001\" port: 1 }"), "Incorrect controller address info"},
      {Update("controller { ipv4_address: \"10.0.0.2\" }"), "No port in controller info message"},
      {Update(Controller("10.0.0.2", 1, 2, "ssl_enabled: true")), "No certificate in controller info"},
      {Update(Controller("10.0.0.2", 1, 2, text_behind)), "Controller certificate format error"},
      {Update(Controller("10.0.0.2", 1, 2, half)), "Controller certificate format error"},
      {Update(Controller("10.0.0.2", 1, 2, broken)), "Controller certificate format error"},
  };
  for (const auto& [message, line] : cases) {
    log_.Clear();
    Handle(message);
    EXPECT_TRUE(log_.Contains(line)) << message;
    // Behind a good one that would have changed the file.
    if (message.rfind("update { ", 0) == 0)
      Handle("update { " + Controller("10.0.0.1", 9, 1) + message.substr(9));
    EXPECT_EQ(File(), before) << message;
    EXPECT_EQ(Reloads(), 1U);
  }
}

TEST_F(ControllerListTest, AMissingTornOrForeignFileIsRewritten) {
  std::string deep;
  for (int i = 0; i < 100'000; ++i) deep += "<a>";
  const std::string files[] = {"", "<config><connectionList>", "<other/>", "<config/><config/>", deep};
  for (const std::string& content : files) {
    dir_.Write("controllers.xml", content);
    log_.Clear();
    Handle(Update(Controller("10.0.0.1", 1, 1)));
    EXPECT_TRUE(log_.Contains("Failed to load controller xml file"));
    EXPECT_EQ(dir_.Read("controllers.xml.rejected"), content);
    EXPECT_EQ(CountOf("<connection ", File()), 1U);
  }
  // A list without controllers has a file without controllers, and with the node's id.
  host_.SetHostId(kTn);
  context_->file.SetTnUuidSaved(kTn);
  dir_.Write("controllers.xml", "<config><connectionList>");
  Handle(Update(""));
  RunTasks();
  EXPECT_NE(File().find(std::string("<UUID>") + kTn), std::string::npos);
  // So does the id alone.
  dir_.Write("controllers.xml", "<config><connectionList>");
  context_->file.SetTnUuidSaved("");
  UpdateTnUuidInFile(context_, kTn);
  RunTasks();
  EXPECT_NE(File().find(std::string("<UUID>") + kTn), std::string::npos);
  host_.UnsetHostId();
  std::filesystem::remove(dir_.Path("controllers.xml"));
  Handle(Update(Controller("10.0.0.1", 1, 1)));
  EXPECT_EQ(CountOf("<connection ", File()), 1U);
  // Wrong values count as absent, so the manager's replace them.
  dir_.Write("controllers.xml",
             "<config><connectionList><connection id=\"x\"><server>10.0.0.1</server><port>many</port>"
             "<pemKey>none</pemKey></connection></connectionList></config>");
  Handle(Update(Controller("10.0.0.1", 1, 0)));
  EXPECT_TRUE(log_.Contains("Read certificate for server [10.0.0.1] failed"));
  EXPECT_EQ(CountOf("<connection ", File()), 1U);
}

TEST_F(ControllerListTest, WaitsForOtherWritersAndReadsTheirFile) {
  const UniqueFd other(::open(context_->file.path().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
  Handle(Update(Controller("10.0.0.1", 1, 1)));
  EXPECT_EQ(File(), kNoControllers) << "the daemon stops while it waits";
  on_wait_ = [&] {
    dir_.Write("new.xml", "<config><mark/></config>");
    std::filesystem::rename(dir_.Path("new.xml"), context_->file.path());
    return true;
  };
  Handle(Update(Controller("10.0.0.1", 1, 1)));
  EXPECT_NE(File().find("<mark/>"), std::string::npos);
}

TEST_F(ControllerListTest, TheTransportNodeIdIsRetriedUntilTheProxyHasIt) {
  dir_.Write("refuse", "");
  UpdateTnUuidInFile(context_, kTn);
  RunTasks();
  EXPECT_NE(File().find(std::string("<UUID>") + kTn), std::string::npos);
  EXPECT_TRUE(log_.Contains("ZEMCLI set zem-proxy controllers file failed ret [3], reply [not now]"));
  // By itself, as long as the host has this id.
  host_.SetHostId(kTn);
  EXPECT_EQ(RunLater().count(), 30);
  EXPECT_EQ(RunLater().count(), 60);
  host_.UnsetHostId();
  const size_t before = Reloads();
  EXPECT_EQ(RunLater().count(), 120);
  EXPECT_EQ(RunLater().count(), 0);
  EXPECT_EQ(Reloads(), before);
  std::filesystem::remove(dir_.Path("refuse"));
  // Two at once: the second finds it done.
  UpdateTnUuidInFile(context_, kTn);
  UpdateTnUuidInFile(context_, kTn);
  RunTasks();
  EXPECT_TRUE(log_.Contains("flag is already set"));
  EXPECT_EQ(Reloads(), before + 1);
  UpdateTnUuidInFile(context_, kTn);
  EXPECT_TRUE(tasks_.empty());
  // Another transport node later.
  UpdateTnUuidInFile(context_, "5a7d1c52-0a53-4c0e-9b0c-6f1d3a3f7a02");
  RunTasks();
  EXPECT_EQ(CountOf("<UUID>", File()), 1U);
  EXPECT_NE(File().find("7a02</UUID>"), std::string::npos);
  EXPECT_NE(File().find("<!-- by hand -->"), std::string::npos);
  // Without a file there is nothing to put it into.
  std::filesystem::remove(context_->file.path());
  UpdateTnUuidInFile(context_, kTn);
  RunTasks();
  EXPECT_TRUE(log_.Contains("Failed to open controller xml file"));
  EXPECT_FALSE(std::filesystem::exists(context_->file.path()));
}

TEST_F(ControllerListTest, TheAppMakesTasksOfListsOnly) {
  AsioZemProvider provider;
  bool enabled = false;
  Tarvik::ControllerListApp app(provider, {[&] { return enabled; }, context_});
  app.Start();
  EXPECT_TRUE(log_.Contains("ControllerListApp disabled..."));
  EXPECT_FALSE(app.RequestControllerList(""));
  EXPECT_TRUE(log_.Contains("MPA41518"));
  constexpr const char* kType = "com.orlane.zem.config.MpLcpMsg";
  app.ProcessReceiveMessages("s:1", kType, "", "", "");
  EXPECT_TRUE(log_.Contains("NULL/empty payload of length [0]"));
  app.ProcessReceiveMessages("s:2", "com.orlane.zem.config.Other", "x", "", "");
  EXPECT_TRUE(log_.Contains("Unsupported message type [com.orlane.zem.config.Other] from MPA"));
  app.ProcessReceiveMessages("s:3", kType, "\x12\xff", "", "");
  EXPECT_TRUE(log_.Contains("MPAERR_MSG_CONTROLLER_LIST_PARSE_FAIL"));
  EXPECT_TRUE(tasks_.empty());
  MpLcpMsg message;
  message.mutable_update()->add_controller()->set_ipv4_address("10.0.0.1");
  message.mutable_update()->mutable_controller(0)->set_port(1);
  app.ProcessReceiveMessages("s:4", kType, message.SerializeAsString(), "", "");
  RunTasks();
  EXPECT_EQ(CountOf("<server>10.0.0.1", File()), 1U);
}

TEST_F(ControllerListTest, AnUnwritableFileIsExamined) {
  Handle(Update(Controller("10.0.0.1", 1, 1)));
  const std::string before = File();
  std::filesystem::create_directory(context_->file.path() + ".tmp");
  Handle(Update(Controller("10.0.0.2", 1, 1)));
  EXPECT_EQ(File(), before);
  EXPECT_TRUE(log_.Contains("Failed to write controller info to file"));
  EXPECT_TRUE(log_.Contains("stat, st_mode"));
  EXPECT_EQ(Reloads(), 1U);
}

}  // namespace
}  // namespace zem::controller
