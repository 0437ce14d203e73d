#include "tests/world/world_life.h"

#include <array>
#include <fstream>
#include <stdexcept>

#include "sim/sandbox/small_disk.h"

namespace zem::world {
namespace {

using namespace std::chrono_literals;

}  // namespace

void WorldLife::StopProxy() { node_.manager->StopProxy(); }
void WorldLife::StartProxy() { node_.manager->StartProxy(); }

void WorldLife::BreakConnection() {
  constexpr std::array kEndpoints = {kInfoEndpoint, kForwardingEndpoint, kStoreEndpoint, kAlarmsEndpoint};
  node_.network.Break(kEndpoints[Pick(kEndpoints.size())]);
}

void WorldLife::FreezeManager() { node_.network.Freeze(kForwardingEndpoint, Chance(2)); }

void WorldLife::LoseAph() {
  const char* const aph = kAphs[Pick(3)];
  const bool gone = node_.manager->RemoveAph(aph, Chance(2));
  if (!gone || Chance(2)) {
    node_.manager->RemoveAph(aph, false);
    node_.manager->AddAph(aph, false);
  }
}

void WorldLife::ChangeMaster() { node_.manager->SetMaster(Chance(6) ? "" : kAphs[Pick(3)]); }

void WorldLife::MisanswerVif() {
  using Kind = sim::VifRule::Kind;
  using Of = sim::VifRule::Of;
  struct Row {
    Kind kind;
    Of of;
  };
  constexpr std::array kRows = {Row{Kind::kSilent, Of::kAny},  Row{Kind::kLost, Of::kAny},
                                Row{Kind::kError, Of::kAny},   Row{Kind::kEmptyPort, Of::kAttach},
                                Row{Kind::kServe, Of::kAny},   Row{Kind::kError, Of::kAttach},
                                Row{Kind::kLost, Of::kAttach}, Row{Kind::kSilent, Of::kDetach}};
  const Row& row = kRows[Pick(kRows.size())];
  sim::VifRule rule;
  rule.kind = row.kind;
  rule.of = row.of;
  rule.text = "the manager refuses";
  rule.count = static_cast<int>(1 + Pick(3));
  rule.delay = row.kind == Kind::kServe ? std::chrono::milliseconds(Pick(40'000)) : Duration{};
  node_.manager->vifs().SetRule("", rule);
}

void WorldLife::BreakStore() { Chance(2) ? node_.store->StopListening() : node_.store->Listen(); }

void WorldLife::FailStoreCall() {
  constexpr std::array kCalls = {"Modify", "Get", "Query"};
  node_.store->faults().SetStatus(kCalls[Pick(kCalls.size())], 14, static_cast<int>(1 + Pick(3)));
}

void WorldLife::EndStreams() {
  // The store has forgotten the stream, or has lost its position in it.
  constexpr std::array kCodes = {2, 12};
  node_.store->store().streams().End("", rpc::Status(kCodes[Pick(2)], "the store ends it"));
}

void WorldLife::FailCommand() {
  constexpr std::array kTexts = {"^applyDvses(\\(|=|$)",          "^applyVtep(\\(|=|$)",
                                 "^GetTzToDvsMapping(\\(|=|$)",   "^createSpfPorts(\\(|=|$)",
                                 "^createOpaqueNetwork(\\(|=|$)", "^deleteDvs",
                                 "^migrateToLS(\\(|=|$)",         "^migrateToPLN(\\(|=|$)"};
  constexpr std::array kCalls = {"^op 11$", "^op 12$", "^op 15$", "^op 17$", "^op 19$"};
  constexpr std::array kEnds = {"close\t", "die\t", "exit\t", "half-text\t"};
  constexpr std::array kReplies = {"reply\tthe host refuses", "reply\t|~,;ok||~~|=garbage"};
  const bool call = Chance(2);
  const char* const what = call ? kCalls[Pick(kCalls.size())] : kTexts[Pick(kTexts.size())];
  // Only statuses that mean failure are injected: a call that claims success is believed.
  const char* const how = Chance(2) ? kEnds[Pick(kEnds.size())] : call ? "status\t0" : kReplies[Pick(2)];
  node_.host.AddFault(std::string(what) + "\t" + std::to_string(Pick(2)) + "\t1\t" + how);
}

void WorldLife::FailLibraryCall() {
  constexpr std::array kFunctions = {"DVSKNL_CreatePort",      "DVSKNL_DestroyPort",
                                     "DVSKNL_SetPortProperty", "DVSKNL_GetPortProperty",
                                     "DVSKNL_SavePortData",    "DVSKNL_LoadPortData"};
  std::string error;
  if (!node_.switches.AddFault(std::string(kFunctions[Pick(kFunctions.size())]) +
                                   " skip=" + std::to_string(Pick(3)) + " count=1 ret=22",
                               &error)) {
    Say(error);
  }
}

void WorldLife::FillDisk() {
  try {
    static_cast<void>(sim::FillDisk(kStateFolder));
  } catch (const std::runtime_error& error) {
    Say(error.what());
  }
}

void WorldLife::FailMaintenanceTool() {
  std::ofstream(sim::HostState::DefaultRoot() + "/host/zemcli.result") << "1 the host has other worries\n";
}

void WorldLife::AlarmClientGoesOrComes() { alarms_->ClientGoesOrComes(); }
void WorldLife::AlarmClientMisbehaves() { alarms_->ClientMisbehaves(); }
void WorldLife::CollectorMisanswers() { alarms_->CollectorMisanswers(); }
void WorldLife::LogonsMisanswered() { node_.guests->Misanswer(random_); }

void WorldLife::DropHostManagement() {
  switch (Pick(3)) {
    case 0:
      return node_.host_management->Drop();
    case 1:
      return node_.host_management->Stop();
    default:
      return node_.host_management->Start();
  }
}

void WorldLife::BounceMultiplexer() { node_.introspection.BounceMux(random_); }
void WorldLife::DisturbFlow() { node_.flow->Disturb(random_); }

void WorldLife::DisturbCapture() { node_.capture->Disturb(random_); }
void WorldLife::DisturbAlerts() { node_.ids->Disturb(random_); }

void WorldLife::DisturbTraces() { node_.traces->Disturb(random_); }
void WorldLife::DisturbServices() { node_.services->Disturb(random_); }
void WorldLife::DisturbInventory() { node_.inventory->Disturb(random_); }
void WorldLife::MoveServiceVm() { node_.introspection.MoveServiceVm(random_); }

}  // namespace zem::world
