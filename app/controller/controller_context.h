#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/controller/controller_file.h"
#include "framework/tasks/runnable.h"

namespace zem {
class HostIdentity;
}  // namespace zem

namespace zem::controller {

/// What the tasks of the controllers' worker use.
struct ControllerContext {
  ControllerContext(ControllerFile::Settings file_settings, HostIdentity& the_host,
                    std::function<void(std::unique_ptr<Runnable>)> add)
      : file(std::move(file_settings)), host(the_host), add_task(std::move(add)) {}

  ControllerFile file;
  HostIdentity& host;
  /// The transport node id in the stored host configuration, empty when it has none; nullopt when the file
  /// cannot be read.
  std::function<std::optional<std::string>()> stored_node_id = [] { return std::string(); };
  /// To the controllers' worker.
  std::function<void(std::unique_ptr<Runnable>)> add_task;
  /// Whether that worker has room for what the manager asks; a refusal is logged and counted.
  std::function<bool()> takes_request = [] { return true; };
  /// As `add_task`, so much later; replaces what waits already.
  std::function<void(Duration, std::function<std::unique_ptr<Runnable>()>)> add_task_later =
      [](Duration, const auto&) {};
};

/// Has the transport node id put into the file, unless it stands there.
void UpdateTnUuidInFile(const std::shared_ptr<ControllerContext>& context, const std::string& id);

}  // namespace zem::controller
