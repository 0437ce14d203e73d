#pragma once

#include <string>

#include "app/zema/manager/mpa_message_task.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {

class ConfigFiles;
class LumCommands;

/// Reports to the manager the checksums of what the host has.
class RestoreTask final : public MpaMessageTask<orlane::zem::switching::ChecksumMsg> {
 public:
  /// `files` and `lum` have to outlive the task.
  RestoreTask(ConfigFiles& files, LumCommands& lum, MpaMessageSender* sender, std::string correlation_id,
              std::string reply_to, orlane::zem::switching::ChecksumMsg message);

  void Run() override;

 private:
  ConfigFiles& files_;
  LumCommands& lum_;
};

}  // namespace zem::zema
