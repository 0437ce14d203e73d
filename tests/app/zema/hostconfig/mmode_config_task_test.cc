#include "app/zema/hostconfig/mmode_config_task.h"

#include <gtest/gtest.h>

#include "app/zema/covedb/config_files.h"
#include "app/zema/manager/zem_manager.h"
#include "app/zema/state/health_record.h"
#include "app/zema/state/realization_options.h"
#include "framework/node/host_identity.h"
#include "tests/app/zema/lswitch/fake_sender.h"
#include "tests/app/zema/manager/no_vifs.h"
#include "tests/app/zema/proxy/fake_lum_commands.h"
#include "tests/app/zema/state/no_publisher.h"
#include "tests/support/temp_dir.h"

namespace zem::zema {
namespace {

using orlane::zem::switching::MaintenanceModeConfigMsg;

class MmodeConfigTaskTest : public ::testing::Test {
 protected:
  std::string Run(std::optional<uint32_t> state) {
    MaintenanceModeConfigMsg message;
    message.set_id("m1");
    if (state) message.set_state(*state);
    MmodeConfigTaskQub(context_, &sender_, "corr", "reply", message).Run();
    const auto sent = sender_.Take();
    return sent.size() == 1 ? sent[0] : "not one answer";
  }
  static std::string Answer(int state, int code, const std::string& text) {
    return "TnMmode corr reply transport_node_id: \"\" id: \"m1\" revision: \"\" state: " +
           std::to_string(state) + " error_code: " + std::to_string(code) + " error_text: \"" + text + "\"";
  }

  test::TempDir directory_;
  FakeLumCommands lum_;
  ConfigFiles files_{{directory_.Path("host_config.bin"), directory_.Path("mmode.bin")}};
  NoPublisher publisher_;
  HealthRecord health_{publisher_, false};
  HostIdentity host_;
  OptionsStore options_;
  NoVifs vifs_;
  ZemManager manager_{vifs_, host_, options_};
  FakeSender sender_;
  int zemcli_code_ = 0;
  std::vector<std::string> commands_;
  std::shared_ptr<MmodeContext> context_ = std::make_shared<MmodeContext>(
      MmodeContext{lum_, files_, health_, manager_, [this](const std::string& command, std::string* reply) {
                     commands_.push_back(command);
                     *reply = command.find("enabled\"") != std::string::npos ? "Maintenance Mode: enabled"
                                                                             : "Maintenance Mode: disabled";
                     return zemcli_code_;
                   }});
};

TEST_F(MmodeConfigTaskTest, AConnectedVmKeepsTheNodeOutUnlessTheManagerInsists) {
  lum_.Script("checkVmConnection()", {"vif-1"});
  EXPECT_EQ(Run(1), Answer(3, 8751, "Detected VIF connection to  network"));
  EXPECT_FALSE(files_.HasMmodeCfgFile());
  EXPECT_TRUE(commands_.empty());
  EXPECT_EQ(Run(2), Answer(1, 0, ""));
  EXPECT_TRUE(health_.in_tn_mmode());
  EXPECT_EQ(commands_, std::vector<std::string>{
                           "/opt/orlane/zem-cli/bin/scripts/zemcli --cmd \"set maintenance-mode enabled\""});
  // The node is in the mode already, so the host is not asked for its VMs again.
  lum_.commands.clear();
  EXPECT_EQ(Run(1), Answer(1, 0, ""));
  EXPECT_TRUE(lum_.commands.empty());
  EXPECT_EQ(Run(0), Answer(3, 0, ""));
  EXPECT_FALSE(health_.in_tn_mmode());
}

TEST_F(MmodeConfigTaskTest, BadRequestsChangeNothingAndARefusalOfTheProxyIsReported) {
  EXPECT_EQ(Run(std::nullopt), Answer(3, 8750, "Invalid mmode setting - null"));
  EXPECT_EQ(Run(7), Answer(3, 8750, "Invalid mmode setting"));
  EXPECT_FALSE(files_.HasMmodeCfgFile());
  zemcli_code_ = 3;
  EXPECT_EQ(Run(2), Answer(1, 8754,
                           "zemcli set maintenance-mode enabled failed with return code [3]  and reply "
                           "[Maintenance Mode: enabled]"));
}

TEST_F(MmodeConfigTaskTest, TheModeOutlivesTheAgent) {
  RestoreMmode(*context_);
  EXPECT_FALSE(manager_.InMaintenanceMode());
  Run(2);
  manager_.SetMaintenanceMode(false);
  health_.exitTnMmode();
  commands_.clear();
  RestoreMmode(*context_);
  EXPECT_TRUE(manager_.InMaintenanceMode());
  EXPECT_TRUE(health_.in_tn_mmode());
  EXPECT_TRUE(commands_.empty()) << "the proxy knows";
}

}  // namespace
}  // namespace zem::zema
