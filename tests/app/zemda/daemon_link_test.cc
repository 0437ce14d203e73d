#include <gmock/gmock.h>
#include <sys/socket.h>

#include <array>
#include <map>
#include <memory>

#include "app/zemda/base/interruption.h"
#include "app/zemda/collector/da_lum_proxy.h"
#include "platform/core/thread.h"
#include "platform/core/unix_socket.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace ZemDa {
namespace {

using testing::ElementsAre;

// Answers each request of one connection with the bytes that stand for it, then closes at "".
class Daemon {
 public:
  Daemon(const std::string& path, std::map<std::string, std::string> answers)
      : answers_(std::move(answers)), listener_(zem::OpenUnixStream()) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, zem::kMaxUnixPath);
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(listener_.get(), 1), 0);
    thread_ = std::make_unique<zem::NativeThread>([this] { Serve(); });
  }
  ~Daemon() { thread_->Join(); }

 private:
  void Serve() {
    const zem::UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    std::string received;
    for (std::array<char, 64> bytes;;) {
      const ssize_t got = ::recv(client.get(), bytes.data(), bytes.size(), 0);
      if (got <= 0) return;
      received.append(bytes.data(), static_cast<size_t>(got));
      const size_t end = received.find('\n');
      if (end == std::string::npos) continue;
      const std::string& answer = answers_[received.substr(0, end)];
      received.erase(0, end + 1);
      if (answer.empty()) return;
      // The peer may break off in the middle.
      static_cast<void>(::send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL));
    }
  }

  std::map<std::string, std::string> answers_;
  const zem::UniqueFd listener_;
  std::unique_ptr<zem::NativeThread> thread_;
};

class DaemonLinkTest : public testing::Test {
 protected:
  static std::vector<std::string> Keys(const std::optional<std::vector<ReplyLine>>& reply) {
    std::vector<std::string> keys;
    if (!reply) keys.emplace_back("none");
    for (const ReplyLine& each : reply.value_or(std::vector<ReplyLine>())) keys.push_back(each.key);
    return keys;
  }

  zem::test::LogCapture log;
  zem::test::TempDir folder;
  Interruption interruption;
  DaLumProxy link{folder.Path("daemon"), interruption};
};

// Lines behind the end of a reply would be the beginning of the next: a change would be taken for everything.
TEST_F(DaemonLinkTest, WhatComesBehindAReplyIsNotTheNext) {
  const Daemon daemon(folder.Path("daemon"), {{"ping", "Connected\nConnected\nx\n"},
                                              {"FullSync", "all\ndone\nnoise\ndone\nhalf a line"},
                                              {"Updates", "change\ndone\n"}});
  ASSERT_TRUE(link.Connect());
  EXPECT_TRUE(link.AwaitHost());
  EXPECT_THAT(Keys(link.FullSync()), ElementsAre("all", "done"));
  EXPECT_THAT(Keys(link.Updates()), ElementsAre("change", "done"));
  EXPECT_TRUE(log.Contains("bytes behind the end of a reply are dropped"));
  EXPECT_FALSE(link.TakeError());
  link.Close();
}

TEST_F(DaemonLinkTest, RepliesThatBreakOffOrDoNotEnd) {
  {
    const Daemon daemon(folder.Path("daemon"), {{"FullSync", "all\n" + std::string(3 << 20, 'x')}});
    ASSERT_TRUE(link.Connect());
    EXPECT_THAT(Keys(link.FullSync()), ElementsAre("none"));
    EXPECT_TRUE(link.TakeError());
  }
  ASSERT_EQ(::unlink(folder.Path("daemon").c_str()), 0);
  const Daemon daemon(folder.Path("daemon"), {});
  ASSERT_TRUE(link.Connect()) << "a connection anew";
  EXPECT_THAT(Keys(link.Updates()), ElementsAre("none"));
  EXPECT_TRUE(link.TakeError());
  EXPECT_FALSE(link.TakeError());
  EXPECT_TRUE(log.Contains("Unexpected reply for update command."));
}

}  // namespace
}  // namespace ZemDa
