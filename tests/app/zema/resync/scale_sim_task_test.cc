#include "app/zema/resync/scale_sim_task.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/zema/ports/vif_request.h"
#include "app/zema/state/health_record.h"
#include "framework/node/host_identity.h"
#include "tests/app/zema/state/no_publisher.h"
#include "tests/app/zema/state/test_options.h"
#include "tests/support/log_capture.h"

namespace zem::zema {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ScaleSimTaskTest : public ::testing::Test {
 protected:
  // What it did: waits in seconds, and the switch of each request.
  std::vector<std::string> Run(const std::function<bool(size_t wait)>& on_wait = [](size_t) {
    return true;
  }) {
    std::vector<std::string> did;
    size_t waits = 0;
    ScaleSimTask({&health_, &host_, &options_.store,
                  [&](std::shared_ptr<VifRequest> request) {
                    did.push_back(request->ls_id);
                    last_ = std::move(request);
                  },
                  [&](Duration duration) {
                    did.push_back(std::to_string(duration / std::chrono::seconds(1)) + "s");
                    return on_wait(++waits);
                  }})
        .Run();
    return did;
  }

  test::LogCapture log_;
  NoPublisher publisher_;
  HealthRecord health_{publisher_, false};
  HostIdentity host_;
  TestOptions options_;
  std::shared_ptr<VifRequest> last_;
};

TEST_F(ScaleSimTaskTest, AttachesGoAroundTheSwitchesInBatches) {
  options_.Set(
      R"({"scaleSimulation": {"numLp": 5, "batchSize": 2, "lsList": "ls-1, ls-2,ls-3,", "tzUuid": "z1"}})");
  EXPECT_THAT(Run([this](size_t wait) {
                if (wait == 1) health_.mpaConnected();
                if (wait == 2) host_.SetHostId("node");
                return true;
              }),
              ElementsAre("6s", "6s", "ls-1", "ls-2", "12s", "ls-3", "ls-1", "12s", "ls-2"));
  EXPECT_EQ(last_->op_code, VifRequest::kAttachToVifUuid);
  EXPECT_EQ(last_->gcf_path, "knlnic");
  EXPECT_EQ(last_->vif_id, "scaleSim-4-ls-2");
  EXPECT_EQ(last_->zone_id, "z1");
  // The stop of the daemon ends it between two batches.
  EXPECT_THAT(Run([](size_t) { return false; }), ElementsAre("ls-1", "ls-2", "12s"));
}

TEST_F(ScaleSimTaskTest, ItGivesUpWithoutAManagerOrAnId) {
  options_.Set(R"({"scaleSimulation": {"lsList": "ls-1"}})");
  EXPECT_THAT(Run(), ::testing::SizeIs(20));
  EXPECT_TRUE(log_.Contains("ScaleSimTask timeout waiting for MPA connection. Ending ScaleSimTask."));
  health_.mpaConnected();
  EXPECT_THAT(Run(), ::testing::SizeIs(20));
  EXPECT_TRUE(log_.Contains("hostId found not set after multiple wait and checks. Ending ScaleSimTask."));
  host_.SetHostId("node");
  options_.Set(R"({"scaleSimulation": {"lsList": " ,", "batchSize": 0}})");
  EXPECT_THAT(Run(), IsEmpty());
}

}  // namespace
}  // namespace zem::zema
