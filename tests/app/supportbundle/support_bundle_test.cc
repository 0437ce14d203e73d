// Requests and a pass of the worker over scripts of the test; the answers are taken where they leave the
// application.

#include "app/supportbundle/support_bundle_client.h"

#include <mutex>

#include "proto/support_bundle/support_bundle.pb.h"
#include "tests/mpaclient/channel_fixture.h"
#include "tests/support/temp_dir.h"

namespace zem::Tarvik {
namespace {

namespace proto = orlane::zem::support_bundle;
using std::chrono::seconds;

constexpr const char* kPackage = "com.orlane.zem.support_bundle.";
constexpr const char* kPassword = "pass-word-of-the-server";

struct Answer {
  std::string id;
  uint32_t status;
  std::string text;
  bool operator==(const Answer&) const = default;
};

class AnswersKept final : public SupportBundleClient {
 public:
  using SupportBundleClient::SupportBundleClient;
  void SendStatus(const std::string& generate_id, BundleStatus status, const std::string& text,
                  const std::string& reply_to, const std::string& correlation_id) override {
    last = {generate_id, static_cast<uint32_t>(status), text};
    EXPECT_EQ(reply_to + correlation_id, "replyid");
  }
  Answer last;
};

class SupportBundleTest : public ChannelTest {
 protected:
  // Shell scripts: the collecting one and the sending one, whose first argument is the bundle.
  void Start(const std::string& collect, const std::string& upload,
             Duration limit = std::chrono::minutes(1)) {
    client_ = std::make_unique<AnswersKept>(provider,
                                            BundleScripts{"/bin/sh", directory_.Write("collect", collect),
                                                          directory_.Write("upload", upload), limit, limit});
    ASSERT_TRUE(client_->Start());
  }
  ~SupportBundleTest() override {
    if (client_) client_->Stop();
  }

  template <class M>
  Answer Ask(const M& message) {
    return AskRaw(message.GetDescriptor()->name(), message.SerializeAsString());
  }
  Answer AskRaw(const std::string& name, const std::string& bytes) {
    client_->last = {};
    client_->HandleMessage("reply", "id", kPackage + name, bytes.data(), bytes.size());
    return client_->last;
  }
  Answer Generate(const std::string& id) {
    proto::BundleGenerationRequestMsg message;
    message.set_generate_id(id);
    auto* const server = message.mutable_file_server();
    server->set_port(22);
    server->mutable_file_server_info()->mutable_file_transfer_protocol()->mutable_auth_info()->set_password(
        kPassword);
    return Ask(message);
  }
  Answer Status(const std::string& id) {
    proto::BundleStatusRequestMsg message;
    message.set_generate_id(id);
    return Ask(message);
  }
  Answer Cancel(const std::string& id) {
    proto::BundleGenerationCancellationRequestMsg message;
    message.set_generate_id(id);
    return Ask(message);
  }
  test::TempDir directory_;
  std::unique_ptr<AnswersKept> client_;
};

TEST_F(SupportBundleTest, BytesThatDoNotParseAreRefusedWithTheirName) {
  Start("exit 1", "exit 1");
  for (const char* name :
       {"BundleGenerationRequestMsg", "BundleStatusRequestMsg", "BundleGenerationCancellationRequestMsg"}) {
    EXPECT_EQ(AskRaw(name, "\x0a\xff"), (Answer{"UNKNOWN", 20, std::string("Failed to parse ") + name}));
  }
  EXPECT_EQ(log.Count("OPS60005"), 3U);
  EXPECT_EQ(AskRaw("BundleStatusResponseMsg", ""), Answer()) << "another message has no answer";
  EXPECT_EQ(Status(""), (Answer{"", 1, "Invalid generate id"})) << "nobody has asked for a bundle yet";
}

// A bundle from the request to its outcome; one at a time, and the last one's outcome stays.
TEST_F(SupportBundleTest, APass) {
  Start("echo made > " + directory_.Path("bundle") + "; echo ' " + directory_.Path("bundle") + " '",
        "cat > " + directory_.Path("input") + "; cp \"$1\" " + directory_.Path("sent") +
            "; echo FS; echo done");
  EXPECT_EQ(Generate("g"), (Answer{"g", 6, ""}));
  EXPECT_EQ(Status("g"), (Answer{"g", 5, ""}));
  EXPECT_EQ(Status("h"), (Answer{"h", 1, "Invalid generate id"}));
  EXPECT_EQ(Generate("h"),
            (Answer{"g", 21, "New bundle request received while another request already in progress"}));
  clock.RunFor(seconds(6));
  EXPECT_EQ(Status("g"), (Answer{"g", 2, "FS\ndone\n"}));
  EXPECT_EQ(Cancel("g"), (Answer{"g", 2, ""}));
  EXPECT_EQ(directory_.Read("sent"), "made\n");
  EXPECT_TRUE(directory_.Read("input").ends_with(std::string(kPassword) + "\"}}}}"));
  EXPECT_FALSE(std::filesystem::exists(directory_.Path("bundle")));
  EXPECT_EQ(Generate("h"), (Answer{"h", 6, ""})) << "a finished one makes way";
  EXPECT_EQ(Cancel("h"), (Answer{"h", 11, ""}));
  clock.RunFor(seconds(10));
  EXPECT_EQ(Status("h"), (Answer{"h", 11, ""})) << "and a cancelled one is not begun";
  EXPECT_EQ(log.Count(kPassword), 0U);
}

// Neither a script that is killed before it names its bundle nor one that is stuck holds anything up.
TEST_F(SupportBundleTest, ScriptsThatAreKilledOrStuck) {
  const std::string bundle = "/tmp/zem-sbundle-test-";
  Start("echo read; echo " + directory_.Write("listed", "") + "; echo $$ > " + directory_.Path("pid") +
            "; touch " + bundle + "$$.tgz; [ -e " + directory_.Path("stuck") +
            " ] && exec sleep 1000; kill -KILL $$",
        "exit 1", seconds(2));
  for (const uint32_t status : {13U, 14U}) {
    Generate("g");
    clock.RunFor(seconds(6));
    if (status == 14U) clock.RunFor(seconds(2));
    EXPECT_EQ(Status("g"), (Answer{"g", status, ""}));
    std::string pid = directory_.Read("pid");
    pid.pop_back();
    EXPECT_FALSE(std::filesystem::exists(bundle + pid + ".tgz"));
    EXPECT_TRUE(std::filesystem::exists(directory_.Path("listed")))
        << "no bundle, though the script names it";
    directory_.Write("stuck", "");
  }
}

// A script that prints what it was given must not put it into the log.
TEST_F(SupportBundleTest, NoPasswordInTheLog) {
  Start("touch " + directory_.Path("b") + "; echo " + directory_.Path("b"), "cat; cat >&2; exit 5");
  Generate("g");
  clock.RunFor(seconds(6));
  EXPECT_EQ(Status("g"), (Answer{"g", 12, ""}));
  EXPECT_EQ(log.Count(kPassword), 0U);
  EXPECT_TRUE(log.Contains("\"password\": \"******\"}}}}"));
}

}  // namespace
}  // namespace zem::Tarvik
