// Tasks that the manager requests: its own full sync, host profiles, checksums.

#include "app/zema/covedb/config_files.h"
#include "app/zema/hostconfig/host_profile_task.h"
#include "app/zema/hostconfig/restore_task.h"
#include "app/zema/lswitch/logical_switch_full_sync_task.h"
#include "tests/app/zema/lswitch/fake_host_parts.h"
#include "tests/app/zema/lswitch/fake_networks.h"
#include "tests/app/zema/lswitch/fake_sender.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

#include <gmock/gmock.h>

namespace zem::zema {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ManagerTasksTest : public testing::Test {
 protected:
  FakeNetworks host;
  FakeSender manager;
  test::LogCapture log;
  WorkerTable workers;
  FakeHostParts parts;
  std::shared_ptr<LogicalSwitchContext> context = parts.Context(host, nullptr, workers);
};

TEST_F(ManagerTasksTest, AFullSyncOfTheManagerGoesToTheHostAsItCame) {
  orlane::zem::switching::LogicalSwitchBulkMsg bulk;
  bulk.set_continuation_flag(0);
  bulk.add_logical_switches_of_tz()->add_logical_switch_info()->set_logical_switch_id("u");
  LogicalSwitchFullSyncTask(context, &manager, "c", "r", bulk.SerializeAsString()).Run();
  EXPECT_THAT(host.networks(), SizeIs(1));
  EXPECT_THAT(manager.Take(), ElementsAre("FullSync c r continuation_flag: 2 status: 0"));
  LogicalSwitchFullSyncTask(context, &manager, "c", "r", "\xff").Run();
  EXPECT_THAT(manager.Take(),
              ElementsAre("FullSync c r continuation_flag: 2 status: 1 error_text: \"no bulk message\""));
  EXPECT_THAT(MP_RemoveAllLogicalSwitches(context), IsEmpty());
  EXPECT_THAT(host.networks(), IsEmpty());
  EXPECT_TRUE(log.Contains("LogicalSwitchFullSyncTask reply skipped"));
  host.Fail("op 11", 0, 1, "not now");
  EXPECT_EQ(MP_RemoveAllLogicalSwitches(context), "Failed to remove all logical switches, error: not now");
  EXPECT_TRUE(log.Contains("MPA41539"));
}

TEST_F(ManagerTasksTest, AHostProfileIsAnsweredWithItsOutcome) {
  host.answers["CheckQUBiVersion70AndUnusedCkln()"] = "ok|1|0";
  HostProfileTask(host, &manager, "c", "r", {}).Run();
  host.answers.clear();
  HostProfileTask(host, nullptr, "c", "r", {}).Run();
  host.Fail("op 14", 0, 1, "bad profile");
  HostProfileTask(host, &manager, "c", "r", {}).Run();
  EXPECT_THAT(manager.Take(),
              ElementsAre("HostProfile c r reply_marker: 2 status: 1",
                          "HostProfile c r reply_marker: 2 status: 2 error_text: \"bad profile\""));
  EXPECT_TRUE(log.Contains("HostProfile reply skipped"));
  EXPECT_THAT(host.TakeCalls(),
              ElementsAre("CheckQUBiVersion70AndUnusedCkln()", "op 14", "CheckQUBiVersion70AndUnusedCkln()",
                          "op 14", "CheckQUBiVersion70AndUnusedCkln()", "op 14"));
}

TEST_F(ManagerTasksTest, ChecksumsReportTheConfigurationOfTheHostOrItsAbsence) {
  const test::TempDir folder;
  ConfigFiles files({folder.Path("a"), folder.Path("b")});
  orlane::zem::switching::ChecksumMsg request;
  request.set_id("asked");
  const auto run = [&] { RestoreTask(files, host, &manager, "c", "r", request).Run(); };
  run();
  EXPECT_THAT(manager.Take(), ElementsAre("Restore  r id: \"asked\""));
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  orlane::zem::switching::HostConfigMsg config;
  config.set_transport_node_id("a");
  config.set_id("b");
  config.set_revision("c");
  ASSERT_EQ(files.PersistHostConfigToFile(config), 0);
  run();
  EXPECT_THAT(manager.Take(), IsEmpty()) << "half an answer would have the manager send everything";
  const std::string host_part =
      "Restore  r id: \"a\" checksum: \"ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\"";
  host.answers["getAllOpaqueNetworkChecksum()"] = "";
  run();
  host.answers["getAllOpaqueNetworkChecksum()"] = "12ab";
  run();
  EXPECT_THAT(manager.Take(), ElementsAre(host_part, host_part + " logical_switch_checksum: \"12ab\""));
  // The stored configuration is not in force on the host: the manager must not take it for applied.
  files.apply_mark().SetNotInForce();
  run();
  EXPECT_THAT(manager.Take(), ElementsAre(testing::AllOf(testing::HasSubstr("id: \"a\" checksum: \""),
                                                         testing::Not(testing::HasSubstr("ba7816bf")))));
}

}  // namespace
}  // namespace zem::zema
