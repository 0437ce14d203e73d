#pragma once

#include <string>

#include "app/zema/manager/mpa_message_task.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {

class LumCommands;

/// The answer to a host profile that failed.
orlane::zem::switching::HostProfileMsg RefusedHostProfile(const std::string& error);

/// Passes the host's part of a profile to the host and reports the outcome to the manager.
class HostProfileTask final : public MpaMessageTask<orlane::zem::switching::HostProfileMsg> {
 public:
  HostProfileTask(LumCommands& lum, MpaMessageSender* sender, std::string correlation_id,
                  std::string reply_to, orlane::zem::switching::HostProfileMsg message);

  void Run() override;

 private:
  LumCommands& lum_;
};

}  // namespace zem::zema
