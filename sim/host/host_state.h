#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "sim/control/json.h"

namespace zem::sim {

/// The simulated host's state, as its management script keeps it: a file tree that both change under one
/// lock.  simstate.py describes the format.
///
/// Threads: all operations from any thread.  Errors: std::runtime_error with a readable text.
class HostState {
 public:
  /// The root of the tree: the environment's ZEM_SIM_ROOT, or the default path.
  static std::string DefaultRoot();

  explicit HostState(std::string root) : root_(std::move(root)) {}

  /// The host without its opaque networks; its VMs are under "vms".
  Json Read() const;
  std::string VmFile() const { return Path("vms.log"); }
  /// Sets the value at a dotted path of member names; all members on the way have to exist.
  void Set(const std::string& path, const std::string& value) const;

  /// The opaque networks by uuid, each a JSON object.
  Json Networks() const;

  /// The rows of the faults file.
  std::vector<std::string> Faults() const;
  void AddFault(const std::string& row) const;
  void ClearFaults() const;

  /// How the next start of the script begins: `word` is the first answer to "ping", or "never" for none;
  /// after the login it reports "initializing" `polls` times.
  void SetStart(const std::string& word, int polls) const;

  void KeepFramesWhole(bool on) const;
  /// The last `count` frames that contain `part`, oldest first.
  Json Frames(size_t count, const std::string& part) const;

  /// The last `count` requests to reload the controllers' file, each with the file's content at that time.
  Json Reloads(size_t count) const;
  /// The last `count` runs of the resync script, each with its arguments and its output.
  Json ResyncRuns(size_t count) const { return Lines("resync_runs.log", count, ""); }
  /// Sets the exit code and the output of the following reloads.
  void SetReload(int code, const std::string& text) const;

 private:
  Json Lines(const char* name, size_t count, const std::string& part) const;
  void WriteVms(const std::string& path, const cJSON* vms) const;
  std::string Path(const char* name) const { return root_ + "/host/" + name; }
  void Locked(const std::function<void()>& change) const;

  const std::string root_;
};

}  // namespace zem::sim
