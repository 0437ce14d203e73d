// Port operations over 1,000 and 10,000 ports against the bare library calls of which they consist.  Ends
// with lines "ports CASE METRIC ours=NUMBER peer=NUMBER ratio=NUMBER"; a ratio of 1 means that the agent adds
// no time.

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>

#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/port_walk.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/proxy/lum_commands.h"
#include "framework/log/logger.h"
#include "framework/node/host_identity.h"
#include "sim/switch/library_folder.h"
#include "sim/switch/sim_state.h"
#include "sim/switch/tree/port_table.h"

namespace {

using namespace zem::zema;

constexpr const char* kDvs = "50 2e 00";
constexpr const char* kLs = "5b0c2a52-6d1c-4d2f-9a55-0c8c5f0f8d01";
constexpr int kRounds = 7;
constexpr size_t kSizes[] = {1000, 10000};

class NoHost final : public LumCommands {
 public:
  int InvokeCommand(const std::string&, const std::string&, std::string*) override { return kFailed; }
  int InvokeRPC(zem::zema::LumOperation, std::string_view, std::string*) override {
    return kRpcSocketFailure;
  }
};

// A state tree that is deleted with the object.
class Tree {
 public:
  Tree() {
    // In memory if there is such a file system, because the disk is not what is measured.
    const std::filesystem::path memory = "/dev/shm";
    std::string pattern =
        (std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path()) /
        "zem-bench-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
    path_ = pattern;
    setenv("ZEM_SIM_ROOT", path_.c_str(), 1);
  }
  ~Tree() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

 private:
  std::filesystem::path path_;
};

std::string Key(size_t number) {
  char key[48];
  std::snprintf(key, sizeof(key), "00000000-0000-4000-8000-%012zu", number);
  return key;
}

void Fill(zem::sim::SwitchState& state, size_t count) {
  for (size_t i = state.Ports(kDvs).size(); i < count; ++i) {
    zem::sim::ValueList properties;
    const auto text = [&](const char* name, const std::string& value) {
      properties.Update(name, {value.c_str(), value.size() + 1}, DVS_PROPERTY_FLAGS);
    };
    text(port_props::kAlias, Key(i));
    text(port_props::kOpaqueNetworkId, i % 2 == 0 ? kLs : "another");
    text(port_props::kExternalId, "vif-" + std::to_string(i));
    if (zem::sim::ports::Add(kDvs, Key(i), properties) != 0) throw std::runtime_error("a port was not made");
  }
}

void Require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

double Seconds(const std::function<void()>& work) {
  const auto begun = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
}

// --- the bare calls

size_t BareList(const SwitchLibrary::Calls& calls, const std::function<void(const char*)>& each) {
  void* buffer = nullptr;
  uint32_t length = 0;
  Require(calls.switch_port_list(kDvs, &buffer, &length) == 0, "the list failed");
  DVSPortListHeader header;
  std::memcpy(&header, buffer, sizeof(header));
  const auto* const records =
      reinterpret_cast<const DVSPortRecord*>(static_cast<const char*>(buffer) + sizeof(header));
  for (uint32_t i = 0; i < header.count; ++i) each(records[i].key);
  std::free(buffer);
  return header.count;
}

bool BareIs(const SwitchLibrary::Calls& calls, const char* port, const char* property, const char* text) {
  void* value = nullptr;
  uint32_t length = 0;
  if (calls.port_data_get(kDvs, port, property, &value, &length) != 0) return false;
  const bool same = std::strncmp(static_cast<const char*>(value), text, length) == 0;
  std::free(value);
  return same;
}

size_t BareFind(const SwitchLibrary::Calls& calls, const char* vif) {
  size_t hits = 0;
  BareList(calls, [&](const char* port) {
    if (BareIs(calls, port, port_props::kExternalId, vif)) ++hits;
  });
  return hits;
}

struct Figures {
  double ours = std::numeric_limits<double>::max();
  double peer = std::numeric_limits<double>::max();
};

// The best of alternating rounds, in microseconds per port.
Figures Measure(zem::sim::SwitchState& state, size_t ports, const std::function<void()>& ours,
                const std::function<void()>& peer) {
  Figures best;
  for (int round = 0; round < kRounds; ++round) {
    best.peer = std::min(best.peer, Seconds(peer) * 1e6 / static_cast<double>(ports));
    best.ours = std::min(best.ours, Seconds(ours) * 1e6 / static_cast<double>(ports));
    state.journal().Clear();
  }
  return best;
}

void Print(const std::string& name, const char* metric, double ours, double peer) {
  std::printf("ports %s %s ours=%.3f peer=%.3f ratio=%.2f\n", name.c_str(), metric, ours, peer, peer / ours);
}

int Run() {
  const Tree tree;
  zem::sim::SwitchState state;
  Require(state.MakeSwitch({kDvs, "ks-1", "KLN", {"z1"}, {}}), "the switch was not made");
  SwitchLibrary library(zem::sim::LibraryFolder::Built() + "/libklnPublic.so");
  std::string error;
  Require(library.Open(&error), error.c_str());
  NoHost host;
  zem::HostIdentity identity;
  PortOpsManager manager(library, host, identity);
  manager.zones().SetTzToDvsCache({{"z1", kDvs, "KLN"}});
  const SwitchLibrary::Calls& calls = library.calls();

  Figures list[2];
  Figures find[2];
  for (size_t i = 0; i < std::size(kSizes); ++i) {
    const size_t count = kSizes[i];
    Fill(state, count);
    list[i] = Measure(
        state, count,
        [&] {
          size_t seen = 0;
          PortWalk(library, {kDvs}).Visit([&](const std::string&, const std::string&) {
            ++seen;
            return false;
          });
          Require(seen == count, "ports are missing from the list");
        },
        [&] { Require(BareList(calls, [](const char*) {}) == count, "ports are missing from the list"); });
    find[i] = Measure(
        state, count,
        [&] {
          PortLocation found;
          std::string path;
          Require(!manager.search().FindPortByVifUuid("vif-none", kLs, &path, &found).done(),
                  "a port was found");
        },
        [&] { Require(BareFind(calls, "vif-none") == 0, "a port was found"); });
  }
  for (size_t i = 0; i < std::size(kSizes); ++i) {
    const std::string size = std::to_string(kSizes[i]);
    Print("list-" + size, "us_per_port", list[i].ours, list[i].peer);
    Print("find-" + size, "us_per_port", find[i].ours, find[i].peer);
  }
  // Here the peer is the agent itself with a tenth of the ports.
  Print("list-growth", "us_per_port", list[1].ours, list[0].ours);
  Print("find-growth", "us_per_port", find[1].ours, find[0].ours);
  return 0;
}

}  // namespace

int main() {
  zem::Logger::logLevel = static_cast<uint32_t>(zem::kLogWarning);
  try {
    return Run();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "ports: %s\n", failure.what());
    return 1;
  }
}
