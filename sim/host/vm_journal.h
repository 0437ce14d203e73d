#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>

#include "sim/control/json.h"

namespace zem::sim {

/// The host's VMs as objects by uuid: {"name", "path", "power", "vnics": {DEVICE: {"vif", "ls", "switch",
/// "port", "portGroup", "connected"}}}.  A file to which each change adds a line, so that a change costs the
/// same on a host of ten VMs and of ten thousand; simstate.py reads and writes the same.
///
/// Threads: one at a time.  Who changes holds the lock of the host's tree, from `Refresh` to the change.
/// Errors: std::system_error.
class VmJournal {
 public:
  explicit VmJournal(std::string path) : path_(std::move(path)) {}

  /// Reads what others have written since.
  void Refresh();
  const std::map<std::string, Json>& machines() const { return machines_; }
  /// Null when there is none.
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
  /// Bytes of whole lines that were read.
  uint64_t read_ = 0;
  uint64_t lines_ = 0;
};

}  // namespace zem::sim
