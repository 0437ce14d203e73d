#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "app/zema/hostlib/switch_library.h"
#include "sim/switch/sim_state.h"

namespace zem::bench {

/// An interface of a VM of its own.
struct Vif {
  std::string id;
  std::string port;
  std::string gcf_path;
  /// The one that it moves to.
  std::string next_port;
};

/// One host switch behind the simulated library, and VMs; all files are in memory where there is such a
/// place, since the disk is not what is measured, but for the VMs' when they are given another.
///
/// Threads: one owner.  Errors: std::runtime_error.
class World {
 public:
  static constexpr const char* kDvs = "50 2e 6b 1a 77 c0 41 aa-9d 11 00 00 00 00 00 01";
  static constexpr const char* kZone = "a0000000-0000-4000-8000-0000000000a1";
  static constexpr const char* kLs = "5b0c2a52-6d1c-4d2f-9a55-0c8c5f0f8d01";
  static constexpr const char* kNextLs = "5b0c2a52-6d1c-4d2f-9a55-0c8c5f0f8d02";

  /// Empty: with the others.
  explicit World(const std::string& vms_folder);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  /// Puts ports of other VMs on the switch until there are so many.
  void FillUpTo(size_t count);
  /// Interfaces that there never were, with the directories of their VMs.
  std::vector<Vif> NewVifs(size_t count);
  /// Their ports and files go.
  void Remove(const std::vector<Vif>& vifs);
  /// Each VIF is on its next port and not on the one before; the next port goes.
  void TakeMoved(const std::vector<Vif>& vifs);
  /// Each port is there, with its VIF, and its file.
  void Check(const std::vector<Vif>& vifs);

  zema::SwitchLibrary& library() { return library_; }
  sim::SwitchState& state() { return *state_; }
  size_t ports() const { return ports_; }

 private:
  std::filesystem::path path_;
  std::filesystem::path vms_;
  std::unique_ptr<sim::SwitchState> state_;
  zema::SwitchLibrary library_;
  size_t ports_ = 0;
  size_t vifs_ = 0;
};

void Require(bool condition, const std::string& what);

}  // namespace zem::bench
