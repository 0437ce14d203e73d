#include "app/zemda/hosttables/host_tables.h"

#include <optional>
#include <utility>

#include "app/zemda/hosttables/capabilities.h"
#include "app/zemda/hosttables/physical_interfaces.h"
#include "app/zemda/hosttables/virtual_interfaces.h"
#include "framework/log/log.h"
#include "platform/core/text_repair.h"

namespace ZemDa {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr const char* kVirtual = "/bin/qubcfg-knlnic -l";
constexpr const char* kPhysical = "/sbin/localcli network nic list";
constexpr const char* kFastPath = "/bin/qubcfg-nics -e";
constexpr size_t kMostReply = 1024;

std::optional<std::string> Table(const HostTables::Run& run, const char* command, const char* description) {
  std::string output;
  const int status = run({command, description}, &output);
  output = zem::RepairText(std::move(output));
  if (status == 0) return output;
  ZLOG_ERROR("MPA20006", "Failed to execute command %s with reply %s", command,
             output.substr(0, kMostReply).c_str());
  return std::nullopt;
}

}  // namespace

HostTables::HostTables(Run run, std::string capabilities)
    : run_(std::move(run)), capabilities_(std::move(capabilities)) {}

void HostTables::AddInterfaces(const std::map<std::string, std::string>& properties,
                               const std::vector<std::string>& management,
                               orlane::zem::ida::HostMsg* host) const {
  if (const auto table = Table(run_, kVirtual, "virtual interfaces"))
    AddVirtualInterfaces(*table, properties, management, host);
  const auto physical = Table(run_, kPhysical, "physical interfaces");
  if (!physical) return;
  AddPhysicalInterfaces(*physical, properties, host);
  std::string flags;
  const int status = run_({kFastPath, "fast path features"}, &flags);
  flags = zem::RepairText(std::move(flags));
  if (status != 0 || !IsFastPathTable(flags)) {
    ZLOG_DEBUG("Host probably does not support ENS feature. Therefore command %s with reply %s", kFastPath,
               flags.substr(0, kMostReply).c_str());
    return;
  }
  AddFastPathFlags(flags, kPhysical, host);
}

void HostTables::AddCapabilities(orlane::zem::ida::HostMsg* host) const {
  ReadCapabilities(capabilities_, host);
}

}  // namespace ZemDa
