#include "app/zema/proxy/host_switch_lists.h"

#include <boost/algorithm/string/join.hpp>

#include "app/zema/proxy/lum_commands.h"
#include "app/zema/proxy/lum_reply.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kUp = "up";
constexpr const char* kDown = "down";

// A reply that is not a list is returned as the error.
std::optional<std::vector<std::string>> AskForList(LumCommands& lum, const std::string& command,
                                                   bool keep_empty, std::string* error) {
  std::string reply;
  std::optional<std::vector<std::string>> list;
  if (lum.InvokeCommand(command, "", &reply) == LumCommands::kSucceeded)
    list = ParseOkList(reply, keep_empty);
  if (!list) {
    ZLOG_ERROR("42009", "[%s] %s failed: %s", __func__, command.c_str(), reply.c_str());
    *error = command + " failed: [" + reply + "]";
  }
  return list;
}

}  // namespace

std::optional<std::vector<std::string>> GetDvsNames(LumCommands& lum, const std::vector<std::string>& ids,
                                                    std::string* error) {
  if (ids.empty()) return std::vector<std::string>();
  const std::string command = "queryDvsNames(" + boost::join(ids, ",") + ")";
  std::optional<std::vector<std::string>> names = AskForList(lum, command, true, error);
  // The list of one empty name looks like an empty list.
  if (names && names->empty()) names->emplace_back();
  if (names && names->size() != ids.size()) {
    *error = command + " failed: [" + std::to_string(names->size()) + " names for " +
             std::to_string(ids.size()) + " switches]";
    ZLOG_ERROR("42009", "[%s] %s", __func__, error->c_str());
    return std::nullopt;
  }
  return names;
}

std::optional<std::vector<HostDvs>> GetDvsUuids(LumCommands& lum, bool reset, const DvsStatusOf& status_of,
                                                std::string* error) {
  const auto ids = AskForList(lum, "queryDvsListWithoutFlag()", false, error);
  if (!ids) return std::nullopt;
  std::vector<std::string> kept;
  for (const std::string& id : *ids) {
    const std::optional<std::string> status = status_of(id);
    if (status && (*status == kUp || (reset && *status == kDown))) kept.push_back(id);
  }
  const auto names = GetDvsNames(lum, kept, error);
  if (!names) return std::nullopt;
  std::vector<HostDvs> switches;
  for (size_t i = 0; i < kept.size(); ++i) switches.push_back({kept[i], (*names)[i]});
  return switches;
}

std::optional<bool> HasSecurityOnlySwitch(LumCommands& lum, std::string* error) {
  const auto ids = AskForList(lum, "querySecurityEnabledNonCklnList()", false, error);
  if (!ids) return std::nullopt;
  return !ids->empty();
}

}  // namespace zem::zema
