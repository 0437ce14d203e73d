// The commands of the management proxy's script: what a host would refuse is refused, and changes nothing.

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "framework/process/child_process.h"
#include "sim/switch/sim_state.h"
#include "tests/support/temp_dir.h"

namespace zem::sim {
namespace {

constexpr const char* kDriver = R"(
import sys
sys.path.insert(0, sys.argv[1])
import simstate, zemaLum
host = zemaLum.Host()
host.stage = "ready"
with host.state.locked():
    host.state.host = simstate.new_host(["vmnic0", "vmnic1", "vmnic2"], {"knl0": "management"})
for command in sys.argv[2:]:
    operation, _, data = command.partition(":")
    if operation.isdigit():
        print(host.call(int(operation), bytes.fromhex(data))[1])
    else:
        print(host.command(command))
)";

const std::string kA = "50 2e 11 11 11 11 11 11-9d 11 11 11 11 11 11 11";
const std::string kB = "50 2e 22 22 22 22 22 22-9d 22 22 22 22 22 22 22";

std::string Record(const std::string& id, const std::string& name, const std::string& mtu,
                   const std::string& pnics, const std::string& extra = "none") {
  return id + "|" + name + "|" + mtu + "|KLN|z1||" + pnics + "|u1|1||" + extra + "|0|0";
}
std::string Vtep(const std::string& settings, const std::string& list) {
  return "applyVtep(uuid=" + kA + "|defaultGateway=|ipv6DefaultGateway=|ipv6PrefixLength=|" + settings +
         "|ipv6Dhcp=0|ipv6AutoConf=0|vtep=" + list + "|vtepsMigrated=|upgrade=false)";
}

TEST(ProxyCommandsTest, WhatAHostWouldRefuseIsRefusedAndChangesNothing) {
  const test::TempDir dir;
  ::setenv("ZEM_SIM_ROOT", dir.Path("sim").c_str(), 1);
  const SwitchState state;
  const std::string good = "subnetMask=255.255.255.0|vlan=150|mtu=1700|dhcp=0";
  const std::pair<std::string, std::string> session[] = {
      {"applyDvses(" + Record(kA, "a", "1600", "vmnic1~u1") + ")", "ok"},
      {"applyDvses(" + Record(kA, "a", "9000", "vmnic1~u1") + ";" + Record(kB, "b", "12", "vmnic2~u1") + ")",
       "malformed MTU [12]"},
      {"applyDvses(" + Record(kA, "a", "9000", "vmnic1~u1") + ";" +
           Record(kB, "b", "1500", "vmnic2~u1", "nonsense") + ")",
       "malformed extra config [nonsense]"},
      {"applyDvses(" + Record(kA, "a", "9000", "vmnic2~u1") + ";" + Record(kB, "b", "1500", "vmnic2~u1") +
           ")",
       "physical NIC [vmnic2] is wanted by two host-switches"},
      {"applyDvsList(" + kA + "=4095,|" + kA + "|reset=False|management|deleteTn=False)",
       "malformed VLAN [4095]"},
      {"applyDvsList(|" + kA + "|reset=Maybe|management|deleteTn=False)", "malformed reset [Maybe]"},
      {"applyDvsList(|" + kA + "|reset=False|management|deleteTn=yes)", "malformed deleteTn [yes]"},
      {Vtep("subnetMask=255.255.255.0|vlan=many|mtu=1700|dhcp=0", "knl10~10.0.0.1~~~"),
       "malformed VLAN [many]"},
      {Vtep("subnetMask=255.255.255.0|vlan=150|mtu=99999|dhcp=0", "knl10~10.0.0.1~~~"),
       "malformed endpoint MTU [99999]"},
      {Vtep("subnetMask=255.0.255.0|vlan=150|mtu=1700|dhcp=0", ""), "ok|~ok|255.0.255.0~malformed|~ok|~ok"},
      {Vtep(good, "knl10~10.0.0.1~~~,knl11~10.0.0.1~~~"),
       "ok|~ok|255.255.255.0~ok|~ok|~ok|knl10~10.0.0.1~~ok~2551210573825|"
       "knl11~10.0.0.1~~its address is that of endpoint [knl10]"},
      {Vtep(good, "knl10~10.0.0.1~~~,knl10~10.0.0.2~~~"),
       "an endpoint is in the list twice [knl10~10.0.0.1~~~,knl10~10.0.0.2~~~]"},
      {"createOpaqueNetwork(uuid=l1|name=n|path=|zone=z2|revision=7)", "ok"},
      {"createOpaqueNetwork(uuid=l1|name=n|path=|zone=z2|revision=6)",
       "opaque network [l1] has revision 7 already"},
      {"createOpaqueNetwork(uuid=l1|name=n|path=|zone=z2|revision=7)", "ok"},
      {"11:0801", "a piece of a list that was never begun"},
      {"11:0800", ""},
      {"11:0801", ""},
  };
  Tarvik::ChildProcess::Options options;
  options.argv = {"/usr/bin/python3", "-c", kDriver, ZEM_SIM_HOST};
  for (const auto& [command, reply] : session) options.argv.push_back(command);
  options.time_limit = std::chrono::seconds(20);
  const Tarvik::ChildResult ended = Tarvik::ChildProcess(std::move(options)).Run();
  std::istringstream replies(ended.output);
  for (const auto& [command, reply] : session) {
    std::string line;
    std::getline(replies, line);
    EXPECT_EQ(line, reply) << command << "\n" << ended.errors;
  }
  EXPECT_EQ(state.SwitchIds(), std::vector<std::string>{kA});
  EXPECT_NE(dir.Read("sim/switch/switches/" + kA + "/meta.json").find("\"mtu\": 1600"), std::string::npos);
}

}  // namespace
}  // namespace zem::sim
