#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "app/zema/hostlib/switch_library.h"
#include "sim/switch/sim_state.h"

namespace zem::bench {

/// An interface of a VM; each VM has one.
struct Vif {
  std::string id;
  std::string port;
  std::string gcf_path;
  /// The logical switch to which it moves.
  std::string next_port;
};

/// One host switch behind the simulated library, and VMs.  All files are in memory if possible, since the
/// disk is not what is measured; only the VMs' files may be given another folder.
///
/// Threads: one owner.  Errors: std::runtime_error.
class World {
 public:
  static constexpr const char* kDvs = "50 2e 6b 1a 77 c0 41 aa-9d 11 00 00 00 00 00 01";
  static constexpr const char* kZone = "a0000000-0000-4000-8000-0000000000a1";
  static constexpr const char* kLs = "5b0c2a52-6d1c-4d2f-9a55-0c8c5f0f8d01";
  static constexpr const char* kNextLs = "5b0c2a52-6d1c-4d2f-9a55-0c8c5f0f8d02";

  /// Empty: with the other files.
  explicit World(const std::string& vms_folder);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  /// Adds ports of other VMs to the switch until there are that many.
  void FillUpTo(size_t count);
  /// Returns interfaces that have not been used before, with the directories of their VMs.
  std::vector<Vif> NewVifs(size_t count);
  /// Removes their ports and files.
  void Remove(const std::vector<Vif>& vifs);
  /// Checks that each VIF is on its next port and no longer on the one before, and removes the next port.
  void TakeMoved(const std::vector<Vif>& vifs);
  /// Checks that each port exists, with its VIF and its file.
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
