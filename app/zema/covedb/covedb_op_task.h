#pragma once

#include <memory>

#include "framework/tasks/runnable.h"
#include "mpaclient/bus/raw_bus_message.h"

namespace zem::zema {

class CoveDbHandler;

/// Stores a message of the manager on an edge or gateway.
class CoveDbOpTask final : public Runnable {
 public:
  CoveDbOpTask(std::shared_ptr<CoveDbHandler> handler, RawBusMessage message);
  ~CoveDbOpTask() override;

  void Run() override;

 private:
  const std::shared_ptr<CoveDbHandler> handler_;
  const RawBusMessage message_;
};

}  // namespace zem::zema
