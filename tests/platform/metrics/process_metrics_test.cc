#include "platform/metrics/process_metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "platform/metrics/queue_gauge.h"

namespace zem::metrics {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

TEST(MetricTableTest, NamesFollowTheRulesOfMonitoring) {
  std::set<std::string_view> names;
  for (const MetricRow& row : kMetricRows) {
    EXPECT_TRUE(names.insert(row.name).second) << row.name;
    EXPECT_TRUE(row.name.starts_with("zem_tarvik_")) << row.name;
    EXPECT_EQ(row.kind == MetricKind::kCounter, row.name.ends_with("_total")) << row.name;
    EXPECT_TRUE(row.kind != MetricKind::kHistogram || row.name.ends_with("_seconds")) << row.name;
    EXPECT_FALSE(row.help.empty()) << row.name;
  }
}

// One metric's lines have to stand together under one heading, whoever wrote in between.
TEST(MetricWriterTest, RowsStandTogetherInTheTablesOrder) {
  MetricWriter writer;
  writer.WriteGauge(MetricId::kQueueDepth, "b", 2);
  writer.WriteGauge(MetricId::kUptime, {}, 0.25);
  writer.WriteGauge(MetricId::kQueueDepth, "a\"\\\n", 1e9);
  EXPECT_EQ(writer.Text(),
            "# HELP zem_tarvik_uptime_seconds Time since the start of the daemon\n"
            "# TYPE zem_tarvik_uptime_seconds gauge\n"
            "zem_tarvik_uptime_seconds 0.25\n"
            "# HELP zem_tarvik_queue_depth Elements that wait\n"
            "# TYPE zem_tarvik_queue_depth gauge\n"
            "zem_tarvik_queue_depth{queue=\"b\"} 2\n"
            "zem_tarvik_queue_depth{queue=\"a\\\"\\\\\\n\"} 1000000000\n");
}

// A bucket counts everything up to its bound, and the last one everything.
TEST(MetricWriterTest, HistogramIsCumulative) {
  Latency latency;
  for (const auto us : {0, 63, 64, 255, 1'000'000}) latency.Record(std::chrono::microseconds(us));
  latency.Record(std::chrono::hours(2));
  MetricWriter writer;
  writer.WriteHistogram(MetricId::kHostConfigs, {}, latency);
  const std::string text = writer.Text();
  EXPECT_THAT(text, HasSubstr("_bucket{le=\"6.4e-05\"} 2\n"));
  EXPECT_THAT(text, HasSubstr("_bucket{le=\"0.000256\"} 4\n"));
  EXPECT_THAT(text, HasSubstr("_bucket{le=\"1.048576\"} 5\n"));
  EXPECT_THAT(text, HasSubstr("_bucket{le=\"67.108864\"} 5\n"));
  EXPECT_THAT(text, HasSubstr("_bucket{le=\"+Inf\"} 6\n"));
  EXPECT_THAT(text, HasSubstr("_count 6\n"));
  EXPECT_THAT(text, HasSubstr("_sum 7201.000382\n"));
}

// Label values may come from a peer; without a bound it would fill the memory of this process and of
// monitoring.
TEST(ProcessMetricsTest, LabelsAreBounded) {
  for (size_t i = 0; i < kMostLabelValues + 10; ++i) {
    CounterOf(MetricId::kScriptErrors, "command" + std::to_string(i)).Add();
  }
  CounterOf(MetricId::kScriptErrors, "command0").Add();
  MetricWriter writer;
  writer.WriteProcessFigures();
  const std::string text = writer.Text();
  EXPECT_THAT(text, HasSubstr("{command=\"command0\"} 2\n"));
  EXPECT_THAT(text, HasSubstr("{command=\"other\"} 10\n"));
  EXPECT_THAT(text, Not(HasSubstr("command=\"command" + std::to_string(kMostLabelValues) + "\"")));
}

// The sum over the queues of one name would fall with each that goes, which monitoring takes for a new start,
// and the rest of it for new drops.
TEST(QueueGaugeTest, DropsOutliveTheirQueue) {
  const auto before = [] { return QueueGauge::DroppedBefore()["short-lived"]; };
  {
    QueueGauge first("short-lived");
    QueueGauge second("short-lived");
    first.Refused();
    second.Entered();
    second.Dropped(1);
    EXPECT_EQ(before(), 0u);
  }
  EXPECT_EQ(before(), 2u);
  { QueueGauge("short-lived").Refused(); }
  EXPECT_EQ(before(), 3u);
}

}  // namespace
}  // namespace zem::metrics
