#pragma once

#include <functional>
#include <memory>
#include <string>

#include "app/zema/common/runnable.h"
#include "app/zema/controller/controller_file.h"

namespace zem::zema {

class ConfigFiles;
class HostIdentity;

/// What the tasks of the controllers' worker stand on.
struct ControllerContext {
  ControllerContext(ControllerFile::Settings file_settings, HostIdentity& the_host, ConfigFiles& the_files,
                    std::function<void(std::unique_ptr<Runnable>)> add)
      : file(std::move(file_settings)), host(the_host), files(the_files), add_task(std::move(add)) {}

  ControllerFile file;
  HostIdentity& host;
  ConfigFiles& files;
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

}  // namespace zem::zema
