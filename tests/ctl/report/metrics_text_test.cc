#include "ctl/metrics_text.h"

#include <gtest/gtest.h>

#include "ctl/json.h"
#include "ctl/outcome.h"
#include "platform/metrics/process_metrics.h"

namespace zem::ctl {
namespace {

// What the daemon writes, with a label that needs each of the escapes.
TEST(MetricsTextTest, WhatTheDaemonWritesComesBack) {
  metrics::Latency latency;
  latency.Record(std::chrono::milliseconds(3));
  metrics::MetricWriter writer;
  writer.WriteGauge(metrics::MetricId::kPartFault, "a \"b\" \\ c\nd", 1);
  writer.WriteGauge(metrics::MetricId::kPartFault, "e,}f{ 2", 0);
  writer.WriteGauge(metrics::MetricId::kUptime, {}, 12.5);
  writer.WriteHistogram(metrics::MetricId::kScript, "apply", latency);
  const std::vector<Json> families = Json::Parse(MetricsJson(writer.Text()))["metrics"].elements();
  ASSERT_EQ(families.size(), 3u);
  EXPECT_EQ(families[0]["name"].text(), "zem_tarvik_uptime_seconds");
  EXPECT_EQ(families[0]["samples"].Compact(),
            R"([{"name":"zem_tarvik_uptime_seconds","labels":{},"value":12.5}])");
  EXPECT_EQ(families[1]["type"].text(), "gauge");
  EXPECT_EQ(families[1]["help"].text(), "1 for a part that does not do its work, 0 for one that does");
  const std::vector<Json> parts = families[1]["samples"].elements();
  EXPECT_EQ(parts.at(0)["labels"]["part"].text(), "a \"b\" \\ c\nd");
  EXPECT_EQ(parts.at(1)["labels"]["part"].text(), "e,}f{ 2");
  EXPECT_EQ(families[2]["type"].text(), "histogram");
  const std::vector<Json> script = families[2]["samples"].elements();
  EXPECT_EQ(
      script.at(0).Compact(),
      R"({"name":"zem_tarvik_script_seconds_bucket","labels":{"command":"apply","le":"6.4e-05"},"value":0})");
  EXPECT_EQ(script.at(script.size() - 3)["labels"]["le"].text(), "+Inf");
  EXPECT_EQ(script.back()["name"].text(), "zem_tarvik_script_seconds_count");
  EXPECT_EQ(script.back()["value"].text(), "1");
}

TEST(MetricsTextTest, OtherTextsOfTheForm) {
  EXPECT_EQ(MetricsJson(""), R"({"metrics":[]})");
  EXPECT_EQ(
      MetricsJson("# a remark\n\nx{} NaN 1700000000\n# TYPE y counter\ny +3\nyy_sum 4\n"),
      R"({"metrics":[{"name":"x","type":"untyped","help":"","samples":[{"name":"x","labels":{},"value":null}]},)"
      R"({"name":"y","help":"","samples":[{"name":"y","labels":{},"value":3}],"type":"counter"},)"
      R"({"name":"yy_sum","type":"untyped","help":"","samples":[{"name":"yy_sum","labels":{},"value":4}]}]})");
  for (const char* const text : {"x", "x ", "x{", "x{a} 1", "x{a=\"b} 1", "x{a=\"b\\\"} 1", "x 1y",
                                 "x{a=\"b\"", "{} 1", "# TYPE  gauge"}) {
    EXPECT_THROW(MetricsJson(std::string("y 1\n") + text), Failure) << text;
  }
}

}  // namespace
}  // namespace zem::ctl
