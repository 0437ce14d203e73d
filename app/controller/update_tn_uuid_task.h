#pragma once

#include <memory>
#include <string>

#include "framework/tasks/runnable.h"
#include "platform/core/clock.h"

namespace zem::controller {

struct ControllerContext;

/// Writes the transport node id into the controllers' file and makes the proxy process read it.  A failure is
/// retried with growing delays as long as the host has this id.
class UpdateTnUuidTask final : public Runnable {
 public:
  UpdateTnUuidTask(std::shared_ptr<ControllerContext> context, std::string id,
                   Duration next_delay = std::chrono::seconds(30))
      : context_(std::move(context)), id_(std::move(id)), next_delay_(next_delay) {}

  void Run() override;

 private:
  bool Update();
  void TryLater();

  const std::shared_ptr<ControllerContext> context_;
  const std::string id_;
  const Duration next_delay_;
};

}  // namespace zem::controller
