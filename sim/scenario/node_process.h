#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sim/control/json.h"
#include "sim/scenario/control_client.h"

namespace zem::sim {

/// A node of its own, for who drives one from outside: "zem-node run" in a folder that goes with the object.
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

  /// The result of a command that was done.
  Json Do(const std::string& command);
  /// The same, again and again until `good(result)` or the time is over, which is an error.
  Json Await(const std::string& command, Duration patience, const std::function<bool(const cJSON*)>& good);

  const std::string& directory() const { return directory_; }

 private:
  std::string directory_;
  pid_t pid_ = -1;
  std::unique_ptr<ControlClient> client_;
};

/// A number or a text at a path of member names with dots between; 0 or empty where there is none.
double NumberAt(const cJSON* json, const std::string& path);
std::string TextAt(const cJSON* json, const std::string& path);
const cJSON* At(const cJSON* json, const std::string& path);

}  // namespace zem::sim
