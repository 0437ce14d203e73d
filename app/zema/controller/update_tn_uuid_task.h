#pragma once

#include <memory>
#include <string>

#include "app/zema/common/runnable.h"

namespace zem::zema {

struct ControllerContext;

/// Puts the transport node id into the controllers' file and has the proxy process read it.
class UpdateTnUuidTask final : public Runnable {
 public:
  UpdateTnUuidTask(std::shared_ptr<ControllerContext> context, std::string id)
      : context_(std::move(context)), id_(std::move(id)) {}

  void Run() override;

 private:
  const std::shared_ptr<ControllerContext> context_;
  const std::string id_;
};

}  // namespace zem::zema
