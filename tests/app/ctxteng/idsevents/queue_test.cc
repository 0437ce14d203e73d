#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "app/ctxteng/idsqueue/bounded_queue.h"
#include "app/ctxteng/idsqueue/capture_files.h"
#include "app/ctxteng/idsqueue/event_merge.h"
#include "app/ctxteng/idsqueue/interruption.h"
#include "app/ctxteng/idsqueue/node_records.h"
#include "app/ctxteng/idsqueue/rate_limiter.h"
#include "app/ctxteng/idsrecord/ids_event.h"
#include "platform/core/virtual_clock.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace IdsEvtEng {
namespace {

IdsEvent Event(const std::string& source = "10.0.0.1") {
  IdsEvent event;
  event.event_type = kAlertEvent;
  event.src_ip = source;
  event.dest_ip = "10.0.0.2";
  event.src_port = 1;
  event.dest_port = 2;
  event.signature_id = 7;
  event.vm_uuid = "vm";
  return event;
}

TEST(BoundedQueueTest, TakesItsLimitAndNoMore) {
  EXPECT_THROW(BoundedQueue<IdsEvent>(65535), std::runtime_error);
  BoundedQueue<IdsEvent> largest(65534);
  auto event = std::make_unique<IdsEvent>();
  uint32_t taken = 0;
  while (largest.Push(event)) {
    event = std::make_unique<IdsEvent>();
    ++taken;
  }
  EXPECT_EQ(taken, 65534U);
  EXPECT_NE(event, nullptr) << "what is refused stays with the caller";
  EXPECT_NE(largest.Pop(), nullptr);
  EXPECT_TRUE(largest.Push(event));
}

// The limiter as it is told, without any thought of speed.
class PlainLimiter {
 public:
  PlainLimiter(uint32_t threshold, int64_t expiration) : threshold_(threshold), expiration_(expiration) {}
  int Test(const std::string& key, int64_t now) {
    for (auto slot = slots_.begin(); slot != slots_.end();) {
      auto& seconds = slot->second;
      const bool gone = seconds.rbegin()->first < now - expiration_;
      while (!gone && seconds.begin()->first < now - expiration_) seconds.erase(seconds.begin());
      slot = gone ? slots_.erase(slot) : std::next(slot);
    }
    ++slots_[key][now];
    uint64_t count = 0;
    for (const auto& [second, number] : slots_[key]) count += number;
    return count > threshold_ ? 1 : 0;
  }
  size_t slots() const { return slots_.size(); }

 private:
  const uint32_t threshold_;
  const int64_t expiration_;
  std::map<std::string, std::map<int64_t, uint64_t>> slots_;
};

TEST(RateLimiterTest, LimitsAsTheWindowSlides) {
  zem::test::LogCapture log;
  RateLimiter limiter(5, 20);
  PlainLimiter plain(5, 20);
  uint32_t seed = 1;
  const auto next = [&seed](uint32_t below) { return (seed = seed * 1664525 + 1013904223) / 65536 % below; };
  int limited = 0;
  int64_t now = 1000;
  for (int i = 0; i < 20000; ++i) {
    now += next(40) == 0 ? next(30) : next(2);
    const std::string source = "10.0.0." + std::to_string(next(6) + 10);
    const int result = limiter.Test(Event(source), now);
    ASSERT_EQ(result, plain.Test(source, now)) << i;
    ASSERT_EQ(limiter.slots(), plain.slots());
    limited += result;
  }
  EXPECT_GT(limited, 1000);
  EXPECT_LT(limited, 19000);
  EXPECT_TRUE(log.Contains("Rate limiting event src:10.0.0.1"));
}

// Else a host whose clock was corrected would hold an attacker's alerts back until the old time comes again.
TEST(RateLimiterTest, ClockThatIsSetBackBeginsANewWindow) {
  zem::test::LogCapture log;
  RateLimiter limiter(1, 600);
  for (int64_t now = 100000; now < 100010; ++now) limiter.Test(Event("10.0.0.9"), now);
  limiter.Test(Event("10.0.0.8"), 100020);
  EXPECT_EQ(limiter.Test(Event("10.0.0.9"), 5000), 0);
  EXPECT_EQ(limiter.slots(), 1U);
  // A small step is within the window, and what came after it goes as it ages.
  RateLimiter small_step(3, 600);
  for (const int64_t now : {5000, 4400, 5000}) EXPECT_EQ(small_step.Test(Event(), now), 0);
  EXPECT_EQ(small_step.Test(Event(), 5010), 0) << "that of 4400 is gone";
  EXPECT_EQ(small_step.Test(Event(), 5011), 1);
}

TEST(RateLimiterTest, WhoIsLimited) {
  zem::test::LogCapture log;
  const auto limited = [](IdsEvent second, uint32_t threshold = 1, int64_t now = 9) {
    RateLimiter limiter(threshold, 600);
    limiter.Test(Event(), 9);
    return limiter.Test(second, now);
  };
  const auto with = [](auto change) {
    IdsEvent event = Event();
    change(event);
    return event;
  };
  EXPECT_EQ(limited(Event()), 1);
  EXPECT_EQ(limited(Event(), 0), 0) << "no threshold, no limit";
  EXPECT_EQ(limited(Event(), 1, 609), 1);
  EXPECT_EQ(limited(Event(), 1, 610), 0);
  EXPECT_EQ(limited(Event(), 1, -1), -1);
  EXPECT_TRUE(log.Contains("System time is busy for rate limiting event src:"));
  EXPECT_EQ(limited(with([](IdsEvent& e) { e.signature_id = 8; })), 0);
  EXPECT_EQ(limited(with([](IdsEvent& e) { e.vm_uuid = "vm2"; })), 0);
  EXPECT_EQ(limited(with([](IdsEvent& e) { e.dest_ip = "10.0.0.3"; })), 1) << "the same attacker";
  // Which address is the attacker's.
  const auto attacker = [&with](uint32_t flip, uint32_t direction, const std::string& target) {
    return AttackerOf(with([&](IdsEvent& e) {
      e.flip_endpoints = flip;
      e.direction = direction;
      e.target_ip = target;
    }));
  };
  EXPECT_EQ(attacker(kFlipNotSaid, kNoDirection, ""), "10.0.0.1");
  EXPECT_EQ(attacker(kFlipNotSaid, kToClient, ""), "10.0.0.2");
  EXPECT_EQ(attacker(kFlipNotSaid, kToServer, ""), "10.0.0.1");
  EXPECT_EQ(attacker(kFlipYes, kToServer, ""), "10.0.0.2");
  EXPECT_EQ(attacker(kFlipNo, kToClient, ""), "10.0.0.1");
  EXPECT_EQ(attacker(kFlipNo, kNoDirection, "10.0.0.1"), "10.0.0.1");
  EXPECT_EQ(attacker(kFlipNo, kNoDirection, "10.0.0.2"), "10.0.0.2");
  EXPECT_EQ(attacker(kFlipYes, kNoDirection, "10.0.0.1"), "10.0.0.1");
}

TEST(EventMergeTest, WhatIsAlikeIsOne) {
  EventMerge merge(16);
  const auto add = [&merge](auto change) {
    auto event = std::make_unique<IdsEvent>(Event());
    event->bytes_to_server = 10;
    event->bytes_to_client = 1;
    change(*event);
    merge.Add(std::move(event));
    return merge.events().size();
  };
  EXPECT_EQ(add([](IdsEvent& e) { e.timestamp = "first"; }), 1U);
  EXPECT_EQ(add([](IdsEvent& e) { e.timestamp = "second"; }), 1U);
  EXPECT_EQ(add([](IdsEvent& e) { e.src_port = 99; }), 1U) << "the attacked port alone counts";
  EXPECT_EQ(add([](IdsEvent& e) { e.dest_port = 99; }), 2U);
  EXPECT_EQ(add([](IdsEvent& e) { e.src_ip = "10.0.0.9"; }), 3U);
  EXPECT_EQ(add([](IdsEvent& e) { e.dest_ip = "10.0.0.9"; }), 4U);
  EXPECT_EQ(add([](IdsEvent& e) { e.proto = "UDP"; }), 5U);
  EXPECT_EQ(add([](IdsEvent& e) { e.signature_id = 8; }), 6U);
  EXPECT_EQ(add([](IdsEvent& e) { e.vm_uuid = "vm2"; }), 7U);
  EXPECT_EQ(add([](IdsEvent& e) { e.direction = kToClient; }), 8U) << "then the source's port counts";
  const auto capture = [](uint64_t flow) {
    return [flow](IdsEvent& e) {
      e.event_type = kFlowSnipEvent;
      e.flow_id = flow;
      e.vm_uuid = std::to_string(flow);
    };
  };
  EXPECT_EQ(add(capture(1)), 9U);
  EXPECT_EQ(add(capture(2)), 10U);
  EXPECT_EQ(add(capture(1)), 10U);
  EXPECT_EQ(merge.added(), 13U);
  const IdsEvent& first = *merge.events()[0];
  EXPECT_EQ(first.timestamp, "first");
  EXPECT_EQ(first.count, 3U);
  EXPECT_EQ(first.bytes_to_server, 30U);
  EXPECT_EQ(first.bytes_to_client, 3U);
}

TEST(NodeRecordsTest, SequencesOfProducer) {
  NodeRecords nodes;
  const auto take = [&nodes](uint32_t sequence) {
    nodes.Take("n", sequence, 2);
    const NodeRecords::Record r = nodes.All().front().second;
    return std::vector{r.old_seq, r.drop_count, r.rcv_count, r.oop_count};
  };
  using Words = std::vector<uint32_t>;
  EXPECT_EQ(take(5), (Words{5, 0, 2, 0})) << "the first number is taken as it is";
  EXPECT_EQ(take(6), (Words{6, 0, 4, 0}));
  EXPECT_EQ(take(9), (Words{9, 2, 6, 0}));
  EXPECT_EQ(take(9), (Words{9, 2, 8, 1}));
  EXPECT_EQ(take(4), (Words{9, 2, 10, 2})) << "a late message does not move the last number";
  EXPECT_EQ(take(0xFFFFFFFF), (Words{0xFFFFFFFF, 2 + 0xFFFFFFFF - 10, 12, 2}));
  EXPECT_EQ(take(0), (Words{0, 2 + 0xFFFFFFFF - 10, 14, 2})) << "the counter has turned";
  EXPECT_EQ(take(70000)[0], 70000U);
  EXPECT_EQ(take(100), (Words{100, 2 + 0xFFFFFFFF - 10 + 69999, 18, 2})) << "too far back to be late";
  for (int i = 0; i < 2000; ++i) nodes.Take(std::to_string(i), 1, 1);
  EXPECT_EQ(nodes.All().size(), 1024U);
  nodes.Clear();
  EXPECT_TRUE(nodes.All().empty());
}

class CaptureFilesTest : public ::testing::Test {
 protected:
  std::string Write(const std::string& name, const std::string& bytes = "bytes", int64_t age_s = 0) {
    const std::string path = folder.Path() + "/" + name;
    std::ofstream(path) << bytes;
    const auto at =
        std::chrono::duration_cast<std::chrono::seconds>(clock.WallNow().time_since_epoch()).count();
    const timespec times[2] = {{at - age_s, 0}, {at - age_s, 0}};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
    return path;
  }
  std::optional<Capture> Read(uint64_t flow, uint64_t snip, size_t most = 100, bool remove = false) {
    return CaptureFiles::Reader(files).Read({flow, snip}, most, remove);
  }

  zem::VirtualClock clock;
  zem::test::LogCapture log;
  zem::test::TempDir folder;
  Interruption interruption;
  CaptureFiles files{folder.Path(), interruption};
};

TEST_F(CaptureFilesTest, ReadsByNumberAndRemovesWhenAsked) {
  const std::string path = Write("18446744073709551557.1.pcap");
  Write("007.08.pcap", "padded");
  const auto capture = Read(18446744073709551557U, 1);
  ASSERT_TRUE(capture);
  EXPECT_EQ(capture->bytes, "bytes");
  EXPECT_EQ(capture->length, 5U);
  EXPECT_EQ(capture->last_write_s, 1767225600U);
  EXPECT_TRUE(std::filesystem::exists(path));
  ASSERT_TRUE(Read(7, 8, 100, true));
  EXPECT_FALSE(std::filesystem::exists(folder.Path() + "/007.08.pcap"));
  EXPECT_TRUE(log.Contains("Removing pcap file: " + folder.Path() + "/007.08.pcap"));
  EXPECT_FALSE(Read(7, 8));
  EXPECT_FALSE(Read(1, 1));
  // Too large for a message: known, but without the bytes.
  const auto large = Read(18446744073709551557U, 1, 4);
  ASSERT_TRUE(large);
  EXPECT_EQ(large->length, 5U);
  EXPECT_EQ(large->bytes, "");
  files.Remove({18446744073709551557U, 1});
  EXPECT_FALSE(std::filesystem::exists(path));
}

// Another program writes there; what is no plain file neither hangs the reader nor leads it elsewhere.
TEST_F(CaptureFilesTest, OnlyPlainFilesCount) {
  const std::string secret = Write("secret");
  std::filesystem::create_symlink(secret, folder.Path() + "/1.1.pcap");
  std::filesystem::create_directory(folder.Path() + "/2.2.pcap");
  ASSERT_EQ(::mkfifo((folder.Path() + "/3.3.pcap").c_str(), 0600), 0);
  for (uint64_t i = 1; i <= 3; ++i) EXPECT_FALSE(Read(i, i, 100, true)) << i;
  EXPECT_TRUE(std::filesystem::exists(secret));
  files.Remove({2, 2});
  EXPECT_TRUE(log.Contains("filesystem error while removing file: "));
  EXPECT_FALSE(CaptureFiles::Reader(CaptureFiles("/nowhere", interruption)).Read({1, 1}, 9, false));
}

TEST_F(CaptureFilesTest, StaleFilesGo) {
  const std::string old = Write("1.1.pcap", "x", 3601);
  const std::string young = Write("2.2.pcap", "x", 3600);
  const auto at = [](const std::string& path, time_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    return path;
  };
  const std::string oldest = at(Write("3.3.pcap", "x", 0), -20'000'000'000);
  const std::string future = at(Write("4.4.pcap", "x", 0), 15'000'000'000);
  std::filesystem::create_directory(folder.Path() + "/sub");
  const auto an_hour = std::chrono::hours(1);
  files.RemoveStale(an_hour);
  EXPECT_FALSE(std::filesystem::exists(old) || std::filesystem::exists(oldest));
  EXPECT_TRUE(std::filesystem::exists(future));
  EXPECT_TRUE(std::filesystem::exists(young) && std::filesystem::exists(folder.Path() + "/sub"));
  EXPECT_TRUE(log.Contains("Removing stale pcap file: " + old));
  EXPECT_THROW(CaptureFiles("/nowhere", interruption).RemoveStale(an_hour), std::system_error);
  interruption.Stop();
  clock.RunFor(std::chrono::seconds(1));
  files.RemoveStale(an_hour);
  EXPECT_TRUE(std::filesystem::exists(young)) << "a stop ends the walk";
}

}  // namespace
}  // namespace IdsEvtEng
