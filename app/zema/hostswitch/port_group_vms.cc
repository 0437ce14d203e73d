#include "app/zema/hostswitch/port_group_vms.h"

#include <string>
#include <string_view>
#include <vector>

#include "app/zema/proxy/lum_commands.h"
#include "app/zema/proxy/lum_reply.h"
#include "framework/log/log.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr size_t kVmTokens = 6;

}  // namespace

void RetrieveVmsConnectedToDvpg(LumCommands& lum, orlane::zem::switching::HostConfigMsg* config) {
  ZLOG_INFO("RetrieveVmsConnectedToDvpg started");
  const std::string data = config->SerializeAsString();
  ZLOG_INFO("RetrieveVmsConnectedToDvpg HostConfigMsg : %s, size : %d", config->ShortDebugString().c_str(),
            static_cast<int>(data.size()));
  std::string reply;
  if (lum.InvokeRPC(LumOperation::kVmsOnPortGroups, data, &reply) != LumCommands::kRpcSucceeded) {
    ZLOG_ERROR("44421", "RetrieveVmsConnectedToDvpg failed");
    ZLOG_ERROR("44421", "Data : %s, ErrorStr : %s", config->ShortDebugString().c_str(), reply.c_str());
    return;
  }
  ZLOG_INFO("RetrieveVmsConnectedToDvpg returned Data of length : %lu",
            static_cast<unsigned long>(reply.size()));
  int count = 0;
  for (const std::string_view line : SplitTokens(reply, '\n')) {
    if (line.empty()) continue;
    const std::vector<std::string_view> tokens = SplitTokens(line, '|');
    const std::string text(line);
    if (tokens.size() != kVmTokens) {
      ZLOG_INFO("RetrieveVmsConnectedToDvpg unable to parse : %s", text.c_str());
      continue;
    }
    auto& vm = *config->add_vm_information();
    for (const std::string_view token : tokens) vm.add_token(std::string(token));
    ZLOG_INFO("RetrieveVmsConnectedToDvpg add vm : %s to HostConfigMsg", text.c_str());
    ++count;
  }
  ZLOG_INFO("RetrieveVmsConnectedToDvpg vm_count : %d", count);
}

}  // namespace zem::zema
