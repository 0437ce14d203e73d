#include "bench/kill/sweep/sweep_store.h"

#include <utility>

#include "sim/store/logical_switches.h"

namespace zem::bench {
namespace {

using sim::Json;
using sim::TextAt;

constexpr uint32_t kSwitchesAtOnce = 12;

}  // namespace

std::string SweepStore::NewSwitches() {
  const auto first = static_cast<uint32_t>(switches_.empty() ? 1 : *switches_.rbegin() + 1);
  ++barrier_;
  for (uint32_t i = 0; i < kSwitchesAtOnce; ++i) switches_.insert(first + i);
  return "switches/put " + std::to_string(kSwitchesAtOnce) + " " + std::to_string(barrier_) + " " +
         std::to_string(first) + " 2 " + std::to_string(barrier_);
}

void SweepStore::PutSwitches() { ChangeStore(NewSwitches()); }

void SweepStore::PutSwitchesUnheard() { run_.node().Do("store " + NewSwitches()); }

void SweepStore::DeleteSwitches() {
  const uint32_t first = *switches_.rbegin() + 1 - kSwitchesAtOnce;
  ++barrier_;
  for (uint32_t i = 0; i < kSwitchesAtOnce; ++i) switches_.erase(first + i);
  ChangeStore("switches/delete " + std::to_string(kSwitchesAtOnce) + " " + std::to_string(barrier_) + " " +
              std::to_string(first));
}

bool SweepStore::many() const { return switches_.size() > size_t{2} * kSwitchesAtOnce; }

void SweepStore::ForgetSwitches() { forgotten_.merge(switches_); }

// The manager writes the switches again for a host that comes back.
void SweepStore::WriteForgottenSwitches() {
  const uint32_t first = *forgotten_.begin();
  const uint32_t count = *forgotten_.rbegin() + 1 - first;
  switches_.merge(forgotten_);
  forgotten_.clear();
  ++barrier_;
  ChangeStore("switches/put " + std::to_string(count) + " " + std::to_string(barrier_) + " " +
              std::to_string(first) + " 2 " + std::to_string(barrier_));
}

void SweepStore::ChangeStore(const std::string& change) {
  run_.node().Do("store " + change);
  run_.Begin(
      [processed = "value: " + std::to_string(barrier_)](Background::Node& node) {
        return node.Until("store get 112", [&](const cJSON* objects) {
          return TextAt(cJSON_GetArrayItem(objects, 0), "object") == processed;
        });
      },
      [](const std::string&) {});
}

std::string SweepStore::Disagreement(bool configured) {
  std::set<std::string> wanted;
  std::set<std::string> allowed;
  if (configured) {
    for (const uint32_t number : switches_) wanted.insert(sim::LogicalSwitchUuid(number));
    for (const uint32_t number : forgotten_) allowed.insert(sim::LogicalSwitchUuid(number));
  }
  std::set<std::string> had;
  const Json networks = run_.node().Do("host networks");
  const cJSON* each = nullptr;
  cJSON_ArrayForEach(each, networks.get()) had.insert(each->string);
  for (const std::string& uuid : wanted) {
    if (had.count(uuid) == 0) return "lacks network " + uuid;
  }
  for (const std::string& uuid : had) {
    if (wanted.count(uuid) == 0 && allowed.count(uuid) == 0) return "has network " + uuid + " without reason";
  }
  if (!configured || barrier_ == 0 || !forgotten_.empty()) return {};
  const Json objects = run_.node().Do("store get 112");
  const std::string processed = TextAt(cJSON_GetArrayItem(objects.get(), 0), "object");
  if (processed == "value: " + std::to_string(barrier_)) return {};
  return "the processed barrier is [" + processed + "] instead of " + std::to_string(barrier_);
}

}  // namespace zem::bench
