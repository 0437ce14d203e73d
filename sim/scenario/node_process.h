#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sim/control/json.h"
#include "sim/scenario/control_client.h"

namespace zem::sim {

/// A node that is driven from outside: runs "zem-node run" in a temporary folder that is removed with the
/// object.
///
/// Threads: one owner.
/// Errors: std::runtime_error with the node's own text.
class NodeProcess {
 public:
  /// `program` is zem-node; `arguments` are those of "run", without the folder.
  NodeProcess(const std::string& program, std::vector<std::string> arguments);
  ~NodeProcess();
  NodeProcess(const NodeProcess&) = delete;
  NodeProcess& operator=(const NodeProcess&) = delete;

  /// Returns the result of a command; throws when the command is refused.
  Json Do(const std::string& command);
  /// Repeats the command until `good(result)`; throws when the time is over first.
  Json Await(const std::string& command, Duration patience, const std::function<bool(const cJSON*)>& good);

  const std::string& directory() const { return directory_; }

 private:
  std::string directory_;
  pid_t pid_ = -1;
  std::unique_ptr<ControlClient> client_;
};

/// Returns a number or a text at a dotted path of member names; 0 or an empty text when it is not there.
double NumberAt(const cJSON* json, const std::string& path);
std::string TextAt(const cJSON* json, const std::string& path);
const cJSON* At(const cJSON* json, const std::string& path);

}  // namespace zem::sim
