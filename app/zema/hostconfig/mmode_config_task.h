#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/zema/manager/mpa_message_task.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {

class ConfigFiles;
class HealthRecord;
class LumCommands;
class ZemManager;

/// The objects that maintenance mode uses.  Everything outlives the tasks.
struct MmodeContext {
  LumCommands& lum;
  ConfigFiles& files;
  HealthRecord& health;
  ZemManager& manager;
  /// Runs a shell command; returns its exit code and sets `output` to what it printed.
  std::function<int(const std::string& command, std::string* output)> run;
};

/// Takes the node into and out of maintenance mode.
///
/// Threads: the host configurations' worker.
class MmodeConfigTask : public MpaMessageTask<orlane::zem::switching::MaintenanceModeConfigMsg> {
 public:
  using MpaMessageTask::MpaMessageTask;

  void Run() override;
  bool IsBatchable() const override { return false; }

  virtual void Apply() = 0;
  virtual orlane::zem::switching::MaintenanceModeConfigResultMsg BuildReply() = 0;
};

/// On a hypervisor: refused while a VM is connected, unless the manager forces it.
class MmodeConfigTaskQub final : public MmodeConfigTask {
 public:
  MmodeConfigTaskQub(std::shared_ptr<MmodeContext> context, MpaMessageSender* sender,
                     std::string correlation_id, std::string reply_to,
                     orlane::zem::switching::MaintenanceModeConfigMsg message);

  void Apply() override;
  orlane::zem::switching::MaintenanceModeConfigResultMsg BuildReply() override;

 private:
  bool ValidateMmodeConfigMsg();
  void SetProxyMaintenanceMode(bool enabled);
  bool Refuse(uint32_t code, const char* text);

  const std::shared_ptr<MmodeContext> context_;
  uint32_t error_code_ = 0;
  std::vector<std::string> errors_;
};

/// The node's state in a reply: in maintenance mode or not.
uint32_t MmodeResultState(MmodeContext& context);

/// Restores, at the start of the agent, the maintenance mode in which it ended.
void RestoreMmode(MmodeContext& context);

}  // namespace zem::zema
