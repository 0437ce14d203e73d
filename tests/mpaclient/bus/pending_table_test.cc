#include "mpaclient/bus/pending_table.h"

#include <gmock/gmock.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <string>

#include "mpaclient/bus/prepared_answer.h"
#include "platform/core/virtual_clock.h"
#include "platform/provider/provider.h"

namespace zem {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PendingTableTest : public ::testing::Test {
 protected:
  using Table = PendingTable<std::string, int>;
  PendingTableTest() { provider_.RunAsync(1); }
  ~PendingTableTest() override {
    table_.Stop();
    provider_.StopAndWait(false);
  }

  VirtualClock clock_;
  AsioZemProvider provider_;
  std::vector<std::string> expired_;
  Table table_{3, seconds(2), [this](const std::string& key, int value) {
                 expired_.push_back(key + "=" + std::to_string(value) + "/" + std::to_string(table_.size()));
               }};
};

TEST_F(PendingTableTest, RefusesWhatDoesNotFit) {
  EXPECT_EQ(table_.Insert("a", 1), Table::Inserted::kYes);
  EXPECT_EQ(table_.Insert("a", 9), Table::Inserted::kDuplicate);
  EXPECT_EQ(table_.Insert("b", 2), Table::Inserted::kYes);
  EXPECT_EQ(table_.Insert("c", 3), Table::Inserted::kYes);
  EXPECT_EQ(table_.Insert("d", 4), Table::Inserted::kFull);
  EXPECT_EQ(table_.refused(), 1u);
  EXPECT_EQ(table_.Take("a"), 1);
  EXPECT_EQ(table_.Take("a"), std::nullopt);
  EXPECT_EQ(table_.Insert("d", 4), Table::Inserted::kYes);
}

// An entry lives for at least its limit and leaves at the next tick; what was taken never expires.
TEST_F(PendingTableTest, EntriesExpireOnceAtATick) {
  table_.Start(provider_.timers());
  clock_.RunFor(seconds(1));
  ASSERT_EQ(table_.Insert("old", 1), Table::Inserted::kYes);
  ASSERT_EQ(table_.Insert("taken", 2), Table::Inserted::kYes);
  clock_.RunFor(seconds(1));
  EXPECT_THAT(expired_, IsEmpty());
  ASSERT_EQ(table_.Insert("new", 3), Table::Inserted::kYes);
  EXPECT_EQ(table_.Take("taken"), 2);
  clock_.RunFor(seconds(2));
  EXPECT_THAT(expired_, ElementsAre("old=1/0", "new=3/0"));
  ASSERT_EQ(table_.Insert("left", 4), Table::Inserted::kYes);
  table_.Stop();
  clock_.RunFor(seconds(60));
  EXPECT_EQ(expired_.size(), 2u);
  EXPECT_EQ(table_.size(), 1u);
  table_.Clear();
  EXPECT_EQ(table_.size(), 0u);
}

TEST(PreparedAnswerTest, AnswersTheRequestOnce) {
  BusHeader header;
  header.correlation_id = "corr";
  header.reply_to = "reply";
  header.type_id = "com.orlane.Request";
  BusRecord request(kRmqMpRpcRequest);
  EXPECT_FALSE(PreparedAnswer::For(request.message(), "t", 1));
  request.SetHeader(header);
  std::optional<PreparedAnswer> answer = PreparedAnswer::For(request.message(), "com.orlane.Status", 7);
  ASSERT_TRUE(answer);
  google::protobuf::StringValue payload;
  payload.set_value("done");
  int calls = 0;
  const auto send = [&](rmqClientMessage& message) {
    ++calls;
    EXPECT_EQ(message.msg_type, kRmqClientRpcResponse);
    EXPECT_EQ(message.cookie, 7);
    EXPECT_STREQ(message.routing_key, "reply");
    EXPECT_STREQ(message.content_type, "application/protobuf");
    const std::optional<BusHeader> sent = BusHeader::Of(message);
    EXPECT_EQ(sent->correlation_id, "corr");
    EXPECT_EQ(sent->type_id, "com.orlane.Status");
    EXPECT_EQ(sent->reply_to, "");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(message.payload), message.payload_len),
              payload.SerializeAsString());
    return -2005;
  };
  EXPECT_EQ(answer->Send(payload, send), -2005);
  EXPECT_TRUE(answer->sent());
  EXPECT_EQ(answer->Send(payload, send), PreparedAnswer::kAlreadySent);
  EXPECT_EQ(answer->SendPayload("x", send), PreparedAnswer::kAlreadySent);
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace zem
