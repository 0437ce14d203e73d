#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "sim/control/json.h"

namespace zem::sim {

/// The simulated host's state, as its management script keeps it: a file tree that both change under one
/// lock. Its form is told by simstate.py.
///
/// Threads: all operations from any thread.  Errors: std::runtime_error with a text for people.
class HostState {
 public:
  /// The environment's ZEM_SIM_ROOT, or where it is without.
  static std::string DefaultRoot();

  explicit HostState(std::string root) : root_(std::move(root)) {}

  /// The host without its opaque networks; its VMs are under "vms".
  Json Read() const;
  std::string VmFile() const { return Path("vms.log"); }
  /// Puts `value` at a path of member names with dots between; the members on the way must be there.
  void Set(const std::string& path, const std::string& value) const;

  /// The opaque networks by uuid, each an object.
  Json Networks() const;

  /// The faults' rows.
  std::vector<std::string> Faults() const;
  void AddFault(const std::string& row) const;
  void ClearFaults() const;

  /// How the next start of the script begins: the first answer to "ping", or "never"; and how often it is
  /// still "initializing" after the login.
  void SetStart(const std::string& word, int polls) const;

  void KeepFramesWhole(bool on) const;
  /// The last `count` frames that hold `part`, in their order.
  Json Frames(size_t count, const std::string& part) const;

  /// The last `count` calls to read the controllers' file, each with the file as it was then.
  Json Reloads(size_t count) const;
  /// The last `count` runs of the resync's script, each with its arguments and what it said.
  Json ResyncRuns(size_t count) const { return Lines("resync_runs.log", count, ""); }
  /// How further ones go: the code and what is printed.
  void SetReload(int code, const std::string& text) const;

 private:
  Json Lines(const char* name, size_t count, const std::string& part) const;
  void WriteVms(const std::string& path, const cJSON* vms) const;
  std::string Path(const char* name) const { return root_ + "/host/" + name; }
  void Locked(const std::function<void()>& change) const;

  const std::string root_;
};

}  // namespace zem::sim
