#include "app/zema/host/vif_dvport_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "app/zema/vifqueue/handler_pool.h"
#include "framework/process/descriptor_io.h"
#include "platform/core/thread.h"
#include "proto/switching/switching.pb.h"
#include "tests/app/zema/vifqueue/recording_vif_handler.h"
#include "tests/support/temp_dir.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::VifMsg;

std::string Frame(int32_t length, const std::string& data) {
  return std::string(reinterpret_cast<const char*>(&length), sizeof(length)) + data;
}

std::string Frame(const VifMsg& message) {
  const std::string data = message.SerializeAsString();
  return Frame(static_cast<int32_t>(data.size()), data);
}

VifMsg Message(std::optional<uint32_t> operation, const std::string& vif) {
  VifMsg message;
  if (operation) message.set_operation(*operation);
  message.add_vif_attachment()->set_vif_id(vif);
  return message;
}

class VifDvportThreadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    thread_.Start();
    while (!client_) {
      client_ = Connect();
      SleepFor(std::chrono::milliseconds(5));
    }
  }
  UniqueFd Connect() { return UniqueFd(Tarvik::ConnectToUnixSocket(socket_, false)); }
  void Send(const UniqueFd& client, const std::string& bytes) {
    ASSERT_EQ(::send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  std::vector<std::string> Requests(size_t count) {
    EXPECT_TRUE(operations_.WaitUntilArrived(count));
    std::vector<std::string> requests;
    for (const VifRequest& request : operations_.arrived()) {
      requests.push_back(request.op_id + " " + request.vif_id);
    }
    return requests;
  }

  test::TempDir directory_;
  const std::string socket_ = directory_.Path() + "/vnics";
  RecordingVifHandler operations_;
  HandlerPool pool_{operations_, [](VifRequest&) { FAIL() << "nobody is owed an answer"; }};
  VifDvportThread thread_{pool_, socket_};
  UniqueFd client_;
};

TEST_F(VifDvportThreadTest, ListsBecomeRequestsInOrderAndOddFramesAreSkipped) {
  VifMsg leaving = Message(std::nullopt, "vif-1");
  leaving.mutable_vif_attachment(0)->set_origin_id("ls:dvs");
  leaving.mutable_vif_attachment(0)->set_logical_port_id("port");
  leaving.add_vif_attachment()->set_vif_id("vif-2");
  VifMsg coming = leaving;
  coming.set_operation(1);
  coming.mutable_vif_attachment(1)->set_id("eth0");
  Send(client_, Frame(0, "") + Frame(-5, "") + Frame(leaving) + Frame(3, "\x0a\xff\xff") + Frame(coming));
  EXPECT_THAT(Requests(4), ::testing::ElementsAre("dvport-detach-0 vif-1", "dvport-detach-1 vif-2",
                                                  "dvport-attach-0 vif-1", "dvport-attach-eth0 vif-2"));
}

TEST_F(VifDvportThreadTest, TheNextConnectionIsServedAfterABrokenOne) {
  UniqueFd next = Connect();
  Send(next, Frame(Message(1, "vif-next")));
  Send(client_, Frame(Message(0, "vif")));
  EXPECT_THAT(Requests(1), ::testing::ElementsAre("dvport-detach-0 vif"));
  Send(client_, Frame(1 << 30, "x"));
  EXPECT_THAT(Requests(2), ::testing::ElementsAre("dvport-detach-0 vif", "dvport-attach-0 vif-next"));
  char byte = 0;
  EXPECT_LE(::recv(client_.get(), &byte, 1, 0), 0);
  // Ended in the middle.
  Send(next, Frame(100, "half"));
  next = UniqueFd();
  client_ = Connect();
  Send(client_, Frame(Message(1, "last")));
  EXPECT_EQ(Requests(3).back(), "dvport-attach-0 last");
}

TEST_F(VifDvportThreadTest, TheStopEndsAFrameThatWasBegun) {
  Send(client_, Frame(100, "half"));
  thread_.Stop();
  thread_.Join();
  EXPECT_FALSE(Connect());
}

TEST(VifDvportRequestTest, TheFieldsComeFromTheEntry) {
  VifMsg message = Message(1, "vif");
  auto& entry = *message.mutable_vif_attachment(0);
  entry.set_origin_id("ls:dvs");
  entry.set_logical_port_id("port");
  entry.set_gcf_path("/vm/a.gcf");
  const auto requests = VifDvportThread::RequestsOf(message.SerializeAsString());
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(
      requests[0]->ToString(),
      "opId:[ dvport-attach-0 ] op:[ CORVD_ATTACH_PORT( 1 )] vif:[vif] ls:[ls] gcf:[/vm/a.gcf] lp:[port]");
  EXPECT_EQ(requests[0]->security_switch_id, "dvs");
  EXPECT_EQ(requests[0]->request, nullptr);
}

}  // namespace
}  // namespace zem::zema
