#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>

#include "sim/control/json.h"

namespace zem::sim {

/// The host's VMs as objects by uuid: {"name", "path", "power", "vnics": {DEVICE: {"vif", "ls", "switch",
/// "port", "portGroup", "connected"}}}.  They are kept in a file to which each change appends a line, so that
/// a change costs the same on a host with ten VMs as with ten thousand.  simstate.py reads and writes the
/// same file.
///
/// Threads: one at a time.  A writer holds the lock of the host's tree from `Refresh` until the change is
/// written.
/// Errors: std::system_error.
class VmJournal {
 public:
  explicit VmJournal(std::string path) : path_(std::move(path)) {}

  /// Reads the lines that other processes have appended since the last call.
  void Refresh();
  const std::map<std::string, Json>& machines() const { return machines_; }
  /// Returns null when there is no such VM.
  const cJSON* Find(const std::string& uuid) const;

  void Put(const std::string& uuid, Json machine);
  void Remove(const std::string& uuid);
  void Clear();

 private:
  void Take(Json change);
  void Append(Json change);
  void Rewrite();

  const std::string path_;
  std::map<std::string, Json> machines_;
  ino_t inode_ = 0;
  /// Number of bytes read so far, in whole lines.
  uint64_t read_ = 0;
  uint64_t lines_ = 0;
};

}  // namespace zem::sim
