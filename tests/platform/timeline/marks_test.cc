#include "platform/timeline/marks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "platform/core/thread.h"

namespace zem::timeline {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class MarksTest : public testing::Test {
 protected:
  MarksTest() { SetMarks(table_); }
  ~MarksTest() override {
    SetMarks(nullptr);
    Clear();
  }

  // As the next life finds it.
  std::optional<std::vector<OperationReading>> Read() {
    return MarkTable::Read({memory_.get(), MarkTable::kBytes}, &damaged_);
  }
  std::vector<std::string> Marked() {
    std::vector<std::string> marked;
    const auto read = Read();
    for (const OperationReading& each : read.value()) {
      std::string text = each.kind + " " + each.what;
      for (const std::string& key : each.keys) text += " " + key;
      marked.push_back(std::move(text));
    }
    return marked;
  }

  const std::shared_ptr<std::byte> memory_{new std::byte[MarkTable::kBytes],
                                           std::default_delete<std::byte[]>()};
  const std::shared_ptr<MarkTable> table_ = std::make_shared<MarkTable>(memory_);
  size_t damaged_ = 0;
};

TEST_F(MarksTest, AnOperationIsMarkedFromItsBeginToItsEnd) {
  const OperationPtr attach = Begin(Kind::kVif, "attach", {"vif-1", "", "web"});
  const OperationPtr config = Begin(Kind::kHostConfig, "revision 1", {std::string(300, 'k')});
  attach->AddKey("op-1");
  attach->AddKey("web");
  EXPECT_THAT(Marked(), ElementsAre("VIF operation attach vif-1 web op-1",
                                    "host configuration revision 1 " + std::string(128, 'k')));
  Finish(attach, {});
  attach->AddKey("late");
  EXPECT_THAT(Marked(), ElementsAre(testing::StartsWith("host configuration")));
  Finish(config, "refused");
  EXPECT_THAT(Marked(), IsEmpty());
  // One that nobody ends leaves no mark to the operation that has its slot next.
  static_cast<void>(Begin(Kind::kVif, "lost", {}));
  Clear();
  EXPECT_THAT(Marked(), IsEmpty());
}

TEST_F(MarksTest, WhatDoesNotFitIsLeftOut) {
  std::vector<OperationPtr> operations;
  for (size_t i = 0; i <= MarkTable::kSlots; ++i) operations.push_back(Begin(Kind::kVif, "attach", {}));
  EXPECT_EQ(Read()->size(), MarkTable::kSlots);
  Finish(operations[5], {});
  operations.push_back(Begin(Kind::kVif, "attach", {std::string(200, 'a'), std::string(200, 'b')}));
  for (char key = 'c'; key <= 'z'; ++key) operations.back()->AddKey(std::string(100, key));
  EXPECT_EQ(Read()->back().keys.size(), 4u);
  EXPECT_EQ(damaged_, 0u);
}

// A kill between any two stores of a mark, and bytes of somebody else's, must not make up an operation.
TEST_F(MarksTest, DamagedMarksAreNotTold) {
  constexpr size_t kSeal = 0, kNumber = 8, kBegun = 16, kKind = 24, kUsed = 28, kTexts = 32;
  const OperationPtr attach = Begin(Kind::kVif, "attach", {"vif-1"});
  const auto damage = [this](size_t at, uint32_t value) {
    std::vector<std::byte> bytes(memory_.get(), memory_.get() + MarkTable::kBytes);
    std::memcpy(&bytes[MarkTable::kSlotBytes + at], &value, sizeof(value));
    const auto read = MarkTable::Read(bytes, &damaged_);
    return read ? static_cast<int>(read->size()) : -1;
  };
  EXPECT_EQ(damage(kSeal, 0), 0) << "not complete, or ended";
  EXPECT_EQ(damaged_, 0u);
  for (const auto& [at, value] : {std::pair<size_t, uint32_t>{kSeal, 77},
                                  {kNumber, 77},
                                  {kBegun + 4, 0xffffffff},
                                  {kKind, 4},
                                  {kUsed, 481},
                                  {kUsed, 8},
                                  {kTexts, 0xff}}) {
    EXPECT_EQ(damage(at, value), 0) << at << " " << value;
    EXPECT_EQ(damaged_, 1u);
  }
  constexpr size_t kAlive = 16;
  const int64_t long_ago = std::numeric_limits<int64_t>::min();
  std::memcpy(memory_.get() + kAlive, &long_ago, sizeof(long_ago));
  EXPECT_EQ(Read()->at(0).duration_us, 0);
  EXPECT_EQ(MarkTable::Read({memory_.get(), MarkTable::kBytes - 1}, &damaged_), std::nullopt);
  memory_.get()[3] = std::byte{0};
  EXPECT_EQ(Read(), std::nullopt);
}

// Slots change hands between threads that begin and threads that end.
TEST_F(MarksTest, ManyThreads) {
  std::vector<NativeThread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int round = 0; round < 2000; ++round) {
        const OperationPtr first = Begin(Kind::kVif, "a", {"one"});
        const OperationPtr second = Begin(Kind::kHostConfig, "b", {});
        Finish(first, {});
        second->AddKey(std::to_string(i));
        Finish(second, round % 100 == 0 ? "refused" : "");
      }
    });
  }
  for (NativeThread& thread : threads) thread.Join();
  EXPECT_THAT(Marked(), IsEmpty());
  EXPECT_EQ(damaged_, 0u);
}

}  // namespace
}  // namespace zem::timeline
