// The script that sends files, against the manager's target over real TLS.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "framework/process/child_process.h"
#include "sim/uploads/upload_sink.h"
#include "tests/support/temp_dir.h"

namespace zem::sim {
namespace {

using ::testing::HasSubstr;

constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kIdentity = 4;

class UploadScriptTest : public ::testing::Test {
 protected:
  Tarvik::ChildResult Send(const std::string& input, std::vector<std::string> arguments = {}) {
    Tarvik::ChildProcess::Options options;
    options.argv = {"/usr/bin/python3", std::string(ZEM_AGENT_SCRIPTS) + "/sbundle-upload.py"};
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.environment = std::vector<std::string>{"PYTHONIOENCODING=utf-8"};
    options.input = input;
    return Tarvik::ChildProcess(std::move(options)).Run();
  }
  // The form with the target's path.
  std::string Capture(const std::string& thumbprint, const std::string& session = "s1",
                      const std::string& token = "t1") const {
    return "{\n\t\"local_path\":\"" + file_ + "\",\n\t\"generate_id\":\"" + token +
           "\",\n\t\"manager_info\":{\n\t\t\"manager_uri\":\"" + "api/v1/pktcap/session/" + session +
           "/capturefile/" + token + "\",\n\t\t\"port\":" + std::to_string(sink_.state().port) +
           ",\n\t\t\"server\":\"127.0.0.1\",\n\t\t\"thumbprint\":\"" + thumbprint + "\"}\n}\n";
  }
  std::string Bundle(const std::string& rest) const {
    return "{\"local_path\": \"" + file_ +
           "\", \"generate_id\": \"g1\", \"manager_info\": {\"server\": \"nowhere.invalid\", " +
           "\"port\": " + std::to_string(sink_.state().port) + ", \"thumbprint\": \"" +
           sink_.state().thumbprint +
           "\", \"fqdn_required\": false, \"fqdn\": \"\", \"ipv4_address\": \"127.0.0.1 127.0.0.2\", "
           "\"ipv6_address\": \"\"}" +
           rest + "}";
  }

  test::TempDir folder_;
  const std::string content_ = std::string(3 << 20, 'x') + '\0' + "end";
  const std::string file_ = folder_.Write("b.tgz", content_);
  UploadSink sink_{folder_.Path("uploads"), 0};
};

TEST_F(UploadScriptTest, FileArrivesWholeUnderItsTargetInBothForms) {
  EXPECT_EQ(Send(Capture(sink_.state().thumbprint)).value, 0);
  const Tarvik::ChildResult bundle = Send(Bundle(""), {file_});
  EXPECT_EQ(bundle.value, 0) << bundle.errors;
  EXPECT_THAT(bundle.output, ::testing::Not(::testing::StartsWith("FS")));
  const auto uploads = sink_.state().uploads;
  ASSERT_EQ(uploads.size(), 2U);
  EXPECT_EQ(uploads[0].target, "/api/v1/pktcap/session/s1/capturefile/t1");
  EXPECT_EQ(uploads[0].id, "t1");
  EXPECT_EQ(uploads[1].target, "/api/v1/support-bundle/g1/file");
  for (const UploadSink::Upload& upload : uploads) {
    EXPECT_EQ(upload.status, 201U);
    EXPECT_TRUE(folder_.Read(upload.file.substr(folder_.Path().size() + 1)) == content_);
  }
}

// Whoever reads the agent's log must not learn a token from a refusal.
TEST_F(UploadScriptTest, IdsAndTokensMayHoldAnything) {
  const std::string known = sink_.state().thumbprint;
  EXPECT_EQ(Send(Capture(known, "my 1\u00e9?%#", "a=+b")).value, 0);
  ASSERT_EQ(sink_.state().uploads.size(), 1U);
  EXPECT_EQ(sink_.state().uploads[0].target, "/api/v1/pktcap/session/my%201%C3%A9%3F%25%23/capturefile/a=+b");
  for (const std::string token : {"secret\\r\\nX: y", "secret\u20ac"}) {
    const Tarvik::ChildResult sent = Send(Capture(known, "s1", token));
    EXPECT_EQ(sent.value, kUsage);
    EXPECT_THAT(sent.errors, ::testing::Not(HasSubstr("secret")));
  }
}

TEST_F(UploadScriptTest, NothingIsSentToAStranger) {
  const std::string known = sink_.state().thumbprint;
  sink_.ChangeCertificate();
  const Tarvik::ChildResult sent = Send(Capture(known));
  EXPECT_EQ(sent.value, kIdentity);
  EXPECT_THAT(sent.errors, HasSubstr("not the one of the thumbprint"));
  EXPECT_EQ(Send(Capture("")).value, kIdentity) << "an empty thumbprint trusts nobody";
  EXPECT_TRUE(sink_.state().uploads.empty());
}

TEST_F(UploadScriptTest, RefusalsAndBrokenConnectionsAreNoSuccess) {
  sink_.SetAnswers(UploadSink::Answers::kStatus, 1, 500);
  EXPECT_EQ(Send(Capture(sink_.state().thumbprint)).value, kFailed);
  sink_.SetAnswers(UploadSink::Answers::kStatus, 1, 403);
  EXPECT_EQ(Send(Capture(sink_.state().thumbprint)).value, kIdentity);
  sink_.SetAnswers(UploadSink::Answers::kClose, 1);
  EXPECT_EQ(Send(Capture(sink_.state().thumbprint)).value, kFailed);
  const std::string at_the_old_port = Capture(sink_.state().thumbprint);
  sink_.Listen(false);
  EXPECT_EQ(Send(at_the_old_port).value, kFailed);
  sink_.Listen(true);
  EXPECT_EQ(Send(at_the_old_port).value, 0) << "the next try stands on its own";
}

// The agent composes the request without escaping, and the password is whatever somebody chose.
TEST_F(UploadScriptTest, PasswordMayHoldAnythingAndIsNeverShown) {
  const std::string password = "p\"}\\}a'ss";
  const Tarvik::ChildResult sent =
      Send(Bundle(", \"file_server_info\": {\"server\": \"127.0.0.1\", \"port\": 1, \"uri\": \"/d/b.tgz\", "
                  "\"protocol\": {\"name\": "
                  "\"sftp\", \"ssh_fingerprint\": \"SHA256:AAAA\", \"authentication_scheme\": "
                  "{\"scheme_name\": \"password\", "
                  "\"username\": \"u\", \"password\": \"" +
                  password + "\"}}}"));
  EXPECT_EQ(sent.value, kFailed);
  EXPECT_THAT(sent.errors, HasSubstr("shows no host key")) << "the request was understood";
  EXPECT_THAT(sent.output + sent.errors, ::testing::Not(HasSubstr("ss\"")));
  EXPECT_TRUE(sink_.state().uploads.empty()) << "what is for the file server does not go to the manager";
}

// The agent's stop interrupts the script while the client of the file server runs.
TEST_F(UploadScriptTest, NothingIsLeftWhenItIsEnded) {
  std::filesystem::create_directory(folder_.Path("bin"));
  folder_.Write("bin/ssh-keyscan", "#!/bin/sh\necho h ssh-ed25519 AAAA\n");
  folder_.Write("bin/scp",
                "#!/bin/sh\nkill -INT $PPID\nsleep 2\ntouch " + folder_.Path("still-there") + "\n");
  for (const char* tool : {"bin/ssh-keyscan", "bin/scp"})
    std::filesystem::permissions(folder_.Path(tool), std::filesystem::perms::owner_all);
  std::filesystem::create_directory(folder_.Path("tmp"));
  Tarvik::ChildProcess::Options options;
  options.argv = {"/usr/bin/python3", std::string(ZEM_AGENT_SCRIPTS) + "/sbundle-upload.py"};
  options.environment = {"PATH=" + folder_.Path("bin") + ":/usr/bin:/bin", "TMPDIR=" + folder_.Path("tmp")};
  // The fingerprint is the one of the three bytes of the key.
  options.input = Bundle(
      ", \"file_server_info\": {\"server\": \"h\", \"port\": 22, \"uri\": \"/d\", \"protocol\": {\"name\": "
      "\"scp\", \"ssh_fingerprint\": \"709e80c88487a2411e1ee4dfb9f22a861492d20c4765150c0c794abd70f8147c\", "
      "\"authentication_scheme\": {\"scheme_name\": \"password\", \"username\": \"u\", \"password\": "
      "\"p\"}}}");
  EXPECT_EQ(Tarvik::ChildProcess(std::move(options)).Run().value, 128 + 2);
  EXPECT_TRUE(std::filesystem::is_empty(folder_.Path("tmp")));
  EXPECT_FALSE(std::filesystem::exists(folder_.Path("still-there")));
}

TEST_F(UploadScriptTest, WrongRequestsAreRefusedWithAReason) {
  for (const std::string input : {"", "[]", "{}", "{\"local_path\": 1}", "no JSON"}) {
    const Tarvik::ChildResult sent = Send(input);
    EXPECT_EQ(sent.value, kUsage) << input;
    EXPECT_FALSE(sent.errors.empty()) << input;
  }
  EXPECT_EQ(Send(Bundle(""), {"/etc/shadow"}).value, kUsage);
}

}  // namespace
}  // namespace zem::sim
