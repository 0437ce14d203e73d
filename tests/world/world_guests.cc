#include "tests/world/world_guests.h"

#include "bench/guest-events/sim_endvat_lib.h"

namespace zem::world {
namespace {

constexpr const char* kFolder = "/run/orlane/guests";

}  // namespace

WorldGuests::WorldGuests() : world_(kFolder) {}

WorldGuests::~WorldGuests() = default;

void WorldGuests::StartAgent() {
  Ctxt::EngineParts parts;
  parts.make_library = [this] { return sim::guest::MakeSimEndvatLib(world_); };
  parts.firewall = &firewall_;
  parts.clients.idfw = client_;
  parts.clients.is_well_known_sid = [](const std::string& sid) { return sid == Ctxt::test::kSystemAccount; };
  Ctxt::CtxtCore& core = Ctxt::CtxtCore::GetInstance();
  core.Initialize({.listen_port = "48655",
                   .worker_threads = "2",
                   .max_events_per_vm = "50",
                   .client_ids = Ctxt::kIdfwBit},
                  parts, nullptr, nullptr);
  core.WaitForStart();
  if (world_.guests().empty()) life_.AddGuests();
}

void WorldGuests::StopAgent() {
  Ctxt::CtxtCore::GetInstance().Shutdown(Ctxt::kIdfwBit);
  std::lock_guard lock(client_->mutex);
  client_->guests.clear();
}

void WorldGuests::Change(std::mt19937_64& random) {
  const auto number = [&random](int below) {
    return static_cast<int>(random() % static_cast<unsigned>(below));
  };
  for (int steps = 1 + number(8); steps > 0; --steps) life_.Step(number);
}

void WorldGuests::Calm() { life_.Calm(); }

std::vector<std::string> WorldGuests::Check(const std::function<void()>& settle) {
  return life_.Check(settle);
}

}  // namespace zem::world
