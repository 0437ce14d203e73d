#include "agent/application_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "agent/application_table.h"
#include "framework/status/status_board.h"
#include "platform/core/virtual_clock.h"
#include "platform/provider/provider.h"
#include "platform/provider/work_group.h"
#include "tests/support/log_capture.h"

namespace zem::Tarvik {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<std::string> Names(std::vector<ApplicationRow> rows, int ApplicationRow::*rank) {
  if (rank != nullptr) std::ranges::stable_sort(rows, {}, rank);
  std::vector<std::string> names;
  for (const ApplicationRow& row : rows) names.emplace_back(row.name);
  return names;
}

// The order of a start, of a creation and of a stop is fixed; a row that is put in the wrong place shows
// here.
TEST(ApplicationTableTest, Orders) {
  const std::vector<ApplicationRow> rows(ApplicationTable().begin(), ApplicationTable().end());
  EXPECT_THAT(
      Names(rows, nullptr),
      ElementsAre("ZemaApp", "CtxtEng", "CliServer", "Traceflow", "ZemDa", "PktCapApp", "Lldp", "HealthCheck",
                  "Livetrace", "LumClient", "IpReputation", "SupportBundle", "AlarmsProvider", "UPMService"));
  EXPECT_THAT(Names(rows, &ApplicationRow::create_rank),
              ElementsAre("UPMService", "HealthCheck", "CliServer", "PktCapApp", "Lldp", "Livetrace",
                          "Traceflow", "SupportBundle", "ZemaApp", "AlarmsProvider", "LumClient", "CtxtEng",
                          "ZemDa", "IpReputation"));
  EXPECT_THAT(Names(rows, &ApplicationRow::stop_rank),
              ElementsAre("AlarmsProvider", "SupportBundle", "UPMService", "CliServer", "PktCapApp", "Lldp",
                          "HealthCheck", "Livetrace", "Traceflow", "LumClient", "CtxtEng", "IpReputation",
                          "ZemaApp", "ZemDa"));
}

std::vector<std::string> events;

class Fake final : public Application {
 public:
  Fake(std::string name, bool serves) : name_(std::move(name)), serves_(serves) { Note("make"); }
  ~Fake() override { Note("destroy"); }
  bool Start() override {
    Note("start");
    return serves_;
  }
  void WaitStarted() override { Note("wait"); }
  void Stop() override { Note("stop"); }

 private:
  void Note(const char* what) { events.push_back(std::string(what) + " " + name_); }

  const std::string name_;
  const bool serves_;
};

template <char kName, bool kServes = true>
std::unique_ptr<Application> MakeFake(const ApplicationContext&) {
  return std::make_unique<Fake>(std::string(1, kName), kServes);
}

std::unique_ptr<Application> MakeNothing(const ApplicationContext&) { return nullptr; }

class ApplicationListTest : public ::testing::Test {
 protected:
  ApplicationListTest() : group_(new WorkGroup("test", provider_.metrics(), WorkGroup::kUnbounded)) {
    events.clear();
  }

  void Create(std::span<const ApplicationRow> table, bool host_role) {
    list_ = std::make_unique<ApplicationList>(
        table, host_role, [](const char* step) { events.push_back(std::string("step ") + step); });
    list_->Create({provider_, nullptr, nullptr, new CliServer(group_), nullptr, nullptr, status_});
  }

  static std::vector<std::string> Events() { return std::exchange(events, {}); }

  test::LogCapture log_;
  AsioZemProvider provider_;
  boost::intrusive_ptr<WorkGroup> group_;
  std::shared_ptr<StatusBoard> status_;
  std::unique_ptr<ApplicationList> list_;
};

// Every phase walks the table in its own order and leaves out what was not created or not started.
TEST_F(ApplicationListTest, EachPhaseHasItsOrder) {
  static const std::array table = {
      ApplicationRow{.name = "a",
                     .make = &MakeFake<'a'>,
                     .start_line = "A Start...",
                     .wait_line = "Waiting for a...",
                     .start_step = "a",
                     .wait_step = "wait for a",
                     .create_rank = 3,
                     .stop_rank = 2},
      ApplicationRow{
          .name = "b", .make = &MakeFake<'b'>, .host_role = true, .create_rank = 1, .stop_rank = 3},
      ApplicationRow{.name = "c", .make = &MakeFake<'c', false>, .create_rank = 2, .stop_rank = 1},
      ApplicationRow{.name = "d", .make = &MakeNothing, .create_rank = 4, .stop_rank = 4},
      // The sample client is off unless the options want it.
      ApplicationRow{.name = "e",
                     .make = &MakeFake<'e'>,
                     .option = Mode::kSampleClient,
                     .create_rank = 5,
                     .stop_rank = 5},
  };
  Create(table, false);
  EXPECT_THAT(Events(), ElementsAre("make b", "make c", "make a", "make e"));
  list_->Start();
  EXPECT_THAT(Events(), ElementsAre("step a", "start a", "start c"))
      << "a failed start does not end the agent";
  EXPECT_TRUE(log_.Contains("A Start..."));
  list_->WaitStarted();
  EXPECT_THAT(Events(), ElementsAre("step wait for a", "wait a"));
  EXPECT_TRUE(log_.Contains("Waiting for a..."));
  list_->Stop();
  EXPECT_THAT(Events(), ElementsAre("stop c", "stop a"));
  list_->Stop();
  EXPECT_THAT(Events(), IsEmpty());
  list_.reset();
  EXPECT_THAT(Events(), ElementsAre("destroy e", "destroy a", "destroy c", "destroy b"));
  Create(table, true);
  Events();
  list_->Start();
  EXPECT_THAT(Events(), ElementsAre("step a", "start a", "start b", "start c"));
}

// The agent is of no use without some applications: their failed start ends it.
TEST_F(ApplicationListTest, AFailedStartMayEndTheAgent) {
  static const std::array table = {
      ApplicationRow{.name = "a", .make = &MakeFake<'a', false>, .start_failure = StartFailure::kEndsAgent}};
  Create(table, true);
  EXPECT_THROW(list_->Start(), std::runtime_error);
}

// An operator who reads the status does not know the code's names of the applications.
TEST_F(ApplicationListTest, TheStatusNamesWhatDidNotStartAsOperatorsKnowIt) {
  static const std::array table = {
      ApplicationRow{.name = "CtxtA", .make = &MakeFake<'a', false>, .start_step = "context engine"},
      ApplicationRow{.name = "b", .make = &MakeFake<'b', false>}};
  VirtualClock clock;  // the reading may take its time
  group_->Start(1);
  status_ = std::make_shared<StatusBoard>(group_);
  Create(table, true);
  list_->Start();
  status_->SetPhase(StatusBoard::Phase::kServing);
  std::vector<std::string> named;
  for (const StatusBoard::Fault& fault : status_->Read().faults) named.push_back(fault.state.part);
  EXPECT_THAT(named, ElementsAre("context engine", "b"));
  status_->Close();
  group_->Stop();
}

}  // namespace
}  // namespace zem::Tarvik
