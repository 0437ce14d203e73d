#include "bench/guest-events/bench_engine.h"

#include "app/ctxteng/engine/ctxt_core.h"
#include "app/ctxteng/firewall/fw_lib.h"

namespace zem::bench {

const uint32_t kClients = Ctxt::kIdfwBit | Ctxt::kIdsBit | Ctxt::kZemiBit;

NoFirewall::NoFirewall() : DfwConnector([] { return std::unique_ptr<Ctxt::IFwLib>(); }) {}

std::string NameOf(int number) { return "d" + std::to_string(number); }

std::string UuidOf(int number) {
  return std::string("502a1122-3344-5566-7788-99aabbccdd") + (number < 10 ? "0" : "") +
         std::to_string(number);
}

void AddGuest(sim::guest::GuestWorld& world, int number) {
  const std::string name = NameOf(number);
  world.AddGuest({.name = name, .vc_uuid = UuidOf(number)}, "vc.uuid = \"" + UuidOf(number) + "\"\n");
  world.SetUser(name, "alice",
                {.name = "alice",
                 .domain = "corp",
                 .sid = "S-1-5-21-1-1-1-1001",
                 .groups = {"S-1-5-21-1-1-1-513", "S-1-5-32-545"}});
  world.PowerOn(name);
  world.StartProcess(name, {.pid = 100,
                            .ctime = 7,
                            .user = "alice",
                            .name = "C:\\Program Files\\a.exe",
                            .command_line = "a.exe --verbose",
                            .hash = std::string(32, '\x5a')});
}

sim::guest::Socket Connection() {
  return {.pid = 100,
          .source_ip = "10.0.0.1",
          .source_port = 4000,
          .destination_ip = "10.0.0.2",
          .destination_port = 443};
}

void StartEngine(sim::guest::GuestWorld& world, NoFirewall& firewall,
                 const std::shared_ptr<CountingClient>& client, bool everywhere,
                 sim::guest::WrapNetworkHandler wrap) {
  Ctxt::EngineParts parts;
  parts.firewall = &firewall;
  parts.clients.idfw = client;
  if (everywhere) parts.clients.ids = parts.clients.pace = client;
  parts.make_library = [&world, wrap] { return sim::guest::MakeSimEndvatLib(world, wrap); };
  Ctxt::CtxtCore& core = Ctxt::CtxtCore::GetInstance();
  core.Initialize(
      {.listen_port = "48655", .worker_threads = "2", .max_events_per_vm = "50", .client_ids = kClients},
      parts, nullptr, nullptr);
  core.WaitForStart();
}

}  // namespace zem::bench
