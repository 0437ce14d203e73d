#pragma once

#include <google/protobuf/text_format.h>

#include <boost/intrusive_ptr.hpp>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "framework/dataplane/lcp_adapter.h"
#include "platform/metrics/metrics.h"
#include "platform/provider/work_group.h"
#include "proto/lcp/lcp.pb.h"
#include "sim/dataplane/dataplane_agent.h"
#include "tests/mpaclient/channel_fixture.h"
#include "tests/support/temp_dir.h"

namespace zem {

/// The manager channel, and the link to a dataplane agent that does only what the test says.
class DataplaneChannelTest : public ChannelTest {
 protected:
  using LcpDpMsg = orlane::zem::lcp::LcpDpMsg;

  DataplaneChannelTest() : group_(new WorkGroup("tarvik", registry_, WorkGroup::kUnbounded)) {
    group_->Start(2);
    dataplane = std::make_unique<sim::DataplaneAgent>(directory.Path("link"));
    adapter = new Tarvik::LcpAdapter(group_, directory.Path("link"));
    adapter->Start(provider);
  }
  ~DataplaneChannelTest() override {
    adapter->Stop();
    adapter = nullptr;
    group_->Stop();
    dataplane.reset();
  }

  /// Lets the manager serve the application, which has been started.
  void Connect() {
    StartManager();
    proxy_client->Start();
    clock.RunFor(std::chrono::seconds(20));
  }

  /// A request of the manager; its outcome appears in `answers`.
  void Ask(const std::string& vertical, const std::string& member, const std::string& text,
           bool publish = false) {
    const size_t number = asked++;
    const TimePoint begin = clock.Now();
    sim::Manager::SendRequest request{
        .vertical = vertical, .member = member, .text = text, .publish = publish};
    // A request without an answer is answered when the manager ends, after this object's own members.
    const std::string error = manager->Send(request, [this, kept = answers_, number, begin,
                                                      vertical](const sim::HostAnswer& answer) {
      const std::lock_guard lock(mutex);
      (*kept)[number] = {answer.status.ok() ? sim::AnswerJson(vertical, answer) : answer.status.ToString(),
                         clock.Now() - begin};
    });
    ASSERT_EQ(error, "");
    clock.Settle();
  }

  /// A message of the dataplane agent, in text format.
  void Tell(const std::string& text) {
    LcpDpMsg message;
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString("version: 1 " + text, &message)) << text;
    const std::string body = message.SerializeAsString();
    sim::DataplaneHeader header;
    header.length = static_cast<uint32_t>(sim::DataplaneHeader::kSize + body.size());
    ASSERT_EQ(dataplane->Send(header.Bytes() + body, false), "");
    clock.Settle();
  }

  /// What the dataplane agent has got since the last call, in text format.
  std::vector<std::string> TakeReceived() {
    std::vector<std::string> texts;
    for (const auto& frame : dataplane->Received(last_frame_)) {
      LcpDpMsg message;
      EXPECT_TRUE(message.ParseFromString(frame.body));
      texts.push_back(message.ShortDebugString());
      last_frame_ = frame.number;
    }
    return texts;
  }

  /// What the manager has got of the vertical since the last call but for handshakes: its type's last part,
  /// and the JSON.
  std::vector<std::pair<std::string, std::string>> TakeSent(const std::string& vertical) {
    std::vector<std::pair<std::string, std::string>> sent;
    for (const auto& each : manager->record().ReceivedFrom(vertical, last_sent_)) {
      last_sent_ = each.number;
      const std::string type = each.type.substr(each.type.rfind('.') + 1);
      if (type.find("AppInit") == std::string::npos) sent.emplace_back(type, each.json);
    }
    return sent;
  }

  struct Answer {
    std::string text;
    Duration took;
  };

  test::TempDir directory;
  std::unique_ptr<sim::DataplaneAgent> dataplane;
  boost::intrusive_ptr<Tarvik::LcpAdapter> adapter;
  size_t asked = 0;

 private:
  const std::shared_ptr<std::map<size_t, Answer>> answers_ = std::make_shared<std::map<size_t, Answer>>();

 protected:
  std::map<size_t, Answer>& answers = *answers_;  // guarded by `mutex` while the clock runs

 private:
  metrics::Registry registry_;
  boost::intrusive_ptr<WorkGroup> group_;
  uint64_t last_frame_ = 0;
  uint64_t last_sent_ = 0;
};

}  // namespace zem
