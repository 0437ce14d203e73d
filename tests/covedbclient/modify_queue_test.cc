#include "covedbclient/modify_queue.h"

#include <gmock/gmock.h>

#include "platform/metrics/metrics.h"
#include "tests/covedbclient/store_messages.h"

namespace zem::covedb::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ModifyQueueTest : public testing::Test {
 protected:
  void Append(std::initializer_list<proto::ModifyMsg> changes, int number = 0) {
    queue.Append(Requests(changes), [this, number] { done.push_back(number); });
  }
  // The changes of the batch that would go out now.
  std::vector<std::string> Batch() {
    std::vector<std::string> texts;
    ModifyQueue::Entry* const batch = queue.TakeBatch();
    if (batch == nullptr) return texts;
    for (const auto& request : *batch->requests) {
      for (const auto& change : request.modify_msg()) {
        proto::ScenarioObjectMsg object;
        object.ParseFromString(change.put_msg().object());
        std::string text = object.id() + ":";
        for (const uint32_t vdb : change.put_msg().vdb_id()) text += std::to_string(vdb);
        texts.push_back(change.has_copy_msg() ? "copy" : text);
      }
    }
    return texts;
  }

  static size_t Waiting() {
    for (const QueueGauge::Reading& reading : QueueGauge::ReadAll()) {
      if (reading.name == "storeModifications") return reading.depth;
    }
    return 0;
  }

  metrics::Gauge gauge;
  ModifyQueue queue{gauge};
  std::vector<int> done;
};

// A second batch under way would let later writes overtake earlier ones.
TEST_F(ModifyQueueTest, OneBatchIsUnderWayAndTheNextTakesAllThatQueued) {
  Append({Put("a")}, 1);
  ModifyQueue::Entry* const first = queue.TakeBatch();
  ASSERT_NE(first, nullptr);
  Append({Put("b")}, 2);
  Append({Put("c")}, 3);
  EXPECT_EQ(queue.TakeBatch(), nullptr);
  EXPECT_EQ(gauge.value(), 3);

  first->sent = false;  // it came back
  const std::shared_ptr<ModifyQueue::Requests> before = first->requests;
  EXPECT_THAT(Batch(), ElementsAre("a:", "b:", "c:"));
  EXPECT_EQ(queue.Front()->requests, before) << "the list itself is sent again, not a copy";
  EXPECT_EQ(gauge.value(), 1);
  EXPECT_EQ(Waiting(), 3u) << "the store has answered none of them";
  for (const auto& callback : queue.Front()->callbacks) callback();
  EXPECT_THAT(done, ElementsAre(1, 2, 3));
  queue.PopFront();
  EXPECT_EQ(gauge.value(), 0);
  EXPECT_EQ(Waiting(), 0u);
}

TEST_F(ModifyQueueTest, PurgeRewritesOnlyWhatIsNotUnderWay) {
  Append({Put("sent", {5})});
  ASSERT_NE(queue.TakeBatch(), nullptr);
  Append({Put("only", {5})});
  Append({Put("x", {5}), Put("both", {1, 5}), Put("y", {5, 5}), Put("after", {7})});
  Append({CopyFrom(5, {1})});
  Append({CopyFrom(0, {1})});
  Append({Put("none")});
  queue.Purge(5);
  EXPECT_EQ(gauge.value(), 4) << "an entry without changes goes";

  queue.Front()->sent = false;
  EXPECT_THAT(Batch(), ElementsAre("sent:5", "both:1", "after:7", "copy", "none:"));
}

TEST_F(ModifyQueueTest, PurgeOfTheDefaultVDbMeansChangesThatNameNone) {
  Append({Put("none")});
  Append({CopyFrom(0, {2})});
  Append({Put("two", {1, 2})});
  queue.Purge(1);
  EXPECT_THAT(Batch(), ElementsAre("two:2"));
}

TEST_F(ModifyQueueTest, EmptyRequestsGoWithTheirChanges) {
  auto requests = Requests({Put("a"), Put("b"), Put("c"), Put("d")});
  RemoveChanges(requests, [n = 0](proto::ModifyMsg&) mutable { return ++n == 2; });
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests.front().modify_msg(1).put_msg().object(), Object("c"));
  EXPECT_EQ(requests.front().modify_msg(2).put_msg().object(), Object("d"));
  RemoveChanges(requests, [](proto::ModifyMsg&) { return true; });
  EXPECT_THAT(requests, IsEmpty());
}

}  // namespace
}  // namespace zem::covedb::test
