#include "platform/sha/sha_pm_client.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <stdexcept>

#include "platform/core/thread.h"
#include "platform/core/virtual_clock.h"
#include "proto/sha/sha.pb.h"
#include "sim/sinks/health_sink.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem {
namespace {

using namespace std::chrono_literals;

// The client on a clock in hand against the node's real sink, which reads its socket in real time.
class ShaPmClientTest : public ::testing::Test {
 protected:
  std::string path() const { return directory.Path("agents"); }

  // The sink's thread is not the clock's; it has what it was sent as soon as the machine lets it run.
  template <class Predicate>
  static bool Soon(const Predicate& holds) {
    for (int ms = 0; ms < 20000; ++ms) {
      if (holds()) return true;
      ::poll(nullptr, 0, 1);
    }
    return holds();
  }

  test::TempDir directory;
  test::LogCapture log;
  VirtualClock clock;
};

TEST_F(ShaPmClientTest, HeartbeatsAndMetricsKeepTheirPace) {
  sim::HealthSink sink(path());
  sha::ShaPmClient client("zem-tarvik", path());
  client.Start();
  client.RegisterCombinedMessageMetricCollection(
      "combined.message",
      [](orlane::zem::sha::AgentsMetricsMsg* message) {
        auto* const part = message->mutable_status_data()->add_sub_status();
        part->set_name("tarvik-proxy-connection");
        part->set_status(2);
      },
      nullptr, 20);
  client.StartProcessHeartbeat(5, 30);
  clock.RunFor(19s);
  ASSERT_TRUE(Soon([&] { return sink.health().heartbeats == 4; })) << sink.health().heartbeats;
  EXPECT_EQ(sink.health().metrics, 0u) << "collection has not been started";
  client.StartMetricCollection();
  // In two parts: a socket keeps no more than ten reports for a reader that does not come to run.
  clock.RunFor(21s);
  ASSERT_TRUE(Soon([&] { return sink.health().heartbeats == 9; })) << sink.health().heartbeats;
  clock.RunFor(20s);
  ASSERT_TRUE(Soon([&] { return sink.health().metrics == 3; })) << sink.health().metrics;
  ASSERT_TRUE(Soon([&] { return sink.health().heartbeats == 13; })) << sink.health().heartbeats;
  EXPECT_EQ(sink.health().proxy_status, "down");
  EXPECT_EQ(sink.health().missed, 0u);
  EXPECT_EQ(sink.health().unparsable, 0u);
  EXPECT_FALSE(sink.health().stale);
  client.StopMetricCollection();
  client.UnregisterMetricCollectionAll();
  client.StopProcessHeartbeat();
  clock.RunFor(31s);
  EXPECT_TRUE(sink.health().stale);
  EXPECT_EQ(client.sent(), 16u);
  client.Stop();
}

// Without a sink reports are dropped and counted, a builder that throws is told, and later reports go their
// way.
TEST_F(ShaPmClientTest, NothingStopsIt) {
  sha::ShaPmClient client("zem-tarvik", path());
  client.Start();
  client.RegisterCombinedMessageMetricCollection(
      "bad", [](orlane::zem::sha::AgentsMetricsMsg*) { throw std::runtime_error("no luck"); }, nullptr, 20);
  client.StartMetricCollection();
  client.StartProcessHeartbeat(5, 30);
  clock.RunFor(21s);
  EXPECT_EQ(client.dropped(), 5u);
  EXPECT_TRUE(log.Contains("building metric bad failed: no luck"));
  sim::HealthSink sink(path());
  clock.RunFor(10s);
  EXPECT_TRUE(Soon([&] { return sink.health().heartbeats == 2; }));
  client.Stop();
}

}  // namespace
}  // namespace zem
