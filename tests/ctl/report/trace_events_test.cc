#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/timeline.h"

namespace zem::ctl {
namespace {

// What the viewers need: a name for each row, microseconds, and an end also for what still runs.
TEST(TraceEventsTest, EveryStepIsABarOfItsThread) {
  const Json operations = Json::Parse(
      R"([{"kind":"VIF operation","what":"attach","begun_us":1000000,"duration_us":500,"state":"under way",
    "steps":[{"name":"a \"quoted\"\n","thread":"one","start_us":10,"duration_us":20,"result":"done"},
             {"name":"b","thread":"two","start_us":100,"duration_us":-1,"failed":true},
             {"name":"c","thread":"one","start_us":40,"duration_us":5}]}, 17, {}])");
  const Json events = Json::Parse(TraceEvents(operations))["traceEvents"];
  std::vector<std::string> bars;
  std::vector<std::string> names;
  for (const Json& event : events.elements()) {
    if (event["ph"].text() == "M") {
      names.push_back(event["args"]["name"].text());
    } else if (event["pid"].text() == "1" && event["tid"].text() != "0") {
      bars.push_back(event["tid"].text() + " " + event["name"].text() + " " + event["ts"].text() + "+" +
                     event["dur"].text());
    }
  }
  EXPECT_THAT(bars, testing::ElementsAre("1 a \"quoted\"\n 1000010+20", "2 b 1000100+400", "1 c 1000040+5"));
  EXPECT_THAT(names, testing::IsSupersetOf({"VIF operation: attach", "operation", "one", "two"}));
}

// Viewers draw bars that cross each other wrongly: a wait that began during other work has a row of its own,
// and what is only rounded is cut.
TEST(TraceEventsTest, BarsOfARowLieWithinEachOther) {
  const Json operations = Json::Parse(
      R"([{"kind":"k","what":"w","begun_us":0,"duration_us":100,"state":"done","steps":[
    {"name":"outer","thread":"one","start_us":10,"duration_us":50},
    {"name":"inner","thread":"one","start_us":20,"duration_us":41},
    {"name":"waits","thread":"one","start_us":30,"duration_us":60},
    {"name":"next","thread":"one","start_us":61,"duration_us":9}]}])");
  std::vector<std::string> bars;
  for (const Json& event : Json::Parse(TraceEvents(operations))["traceEvents"].elements()) {
    if (event["ph"].text() == "M" && event["tid"].text() == "2") bars.push_back(event["args"]["name"].text());
    if (event["ph"].text() != "X" || event["tid"].text() == "0") continue;
    bars.push_back(event["tid"].text() + " " + event["name"].text() + " " + event["ts"].text() + "+" +
                   event["dur"].text());
  }
  EXPECT_THAT(bars, testing::ElementsAre("1 outer 10+50", "1 inner 20+40", "one (2)", "2 waits 30+60",
                                         "1 next 61+9"));
}

TEST(TookTextTest, EachUnitHasItsRange) {
  EXPECT_EQ(TookText(-1), "under way");
  EXPECT_EQ(TookText(0), "0 us");
  EXPECT_EQ(TookText(999), "999 us");
  EXPECT_EQ(TookText(1'250), "1.25 ms");
  EXPECT_EQ(TookText(3'210'000), "3.21 s");
}

}  // namespace
}  // namespace zem::ctl
