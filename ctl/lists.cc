// Commands that show a list of objects, a line for each.

#include <array>
#include <utility>

#include "ctl/listing.h"

namespace zem::ctl {
namespace {

struct List {
  std::string_view name;
  std::string_view summary;
  const char* command;
  /// The array in the answer.
  const char* member;
  /// For people, instead of an empty table.
  const char* none;
  std::span<const Column> columns;
};

constexpr std::array kVerticalColumns = {
    Column{"name", "VERTICAL"},
    Column{"state", "STATE", Show::kState},
    Column{"seconds", "SINCE", Show::kAge},
    Column{"received", "RECEIVED", Show::kNumber},
    Column{"sent", "SENT", Show::kNumber},
    Column{"failed", "FAILED", Show::kNumber},
    Column{"p99_us", "P99", Show::kMicros},
    Column{"max_us", "LONGEST", Show::kMicros},
};
constexpr std::array kSwitchColumns = {
    Column{"name", "SWITCH"},     Column{"id", "ID"},
    Column{"mode", "MODE"},       Column{"mtu", "MTU", Show::kNumber},
    Column{"uplinks", "UPLINKS"}, Column{"endpoints", "ENDPOINTS"},
};
constexpr std::array kPortColumns = {
    Column{"switch_name", "SWITCH"},
    Column{"switch", "SWITCH ID"},
    Column{"port", "PORT"},
    Column{"vif", "VIF"},
};
constexpr std::array kVifColumns = {
    Column{"vif", "VIF"},
    Column{"switch_name", "SWITCH"},
    Column{"switch", "SWITCH ID"},
    Column{"port", "PORT"},
};
constexpr std::array kTaskColumns = {
    Column{"name", "LOOP"},
    Column{"kind", "KIND"},
    Column{"state", "STATE", Show::kState},
    Column{"step", "AT"},
    Column{"age_us", "FOR", Show::kMicros},
    Column{"steps", "STEPS", Show::kNumber},
    Column{"longest_us", "LONGEST", Show::kMicros},
    Column{"longest_step", "WITH"},
};
constexpr std::array kQueueColumns = {
    Column{"name", "QUEUE"},
    Column{"depth", "DEPTH", Show::kNumber},
    Column{"limit", "LIMIT", Show::kNumber},
    Column{"most", "MOST", Show::kNumber},
    Column{"oldest_us", "OLDEST", Show::kMicros},
    Column{"longest_wait_us", "LONGEST WAIT", Show::kMicros},
    Column{"dropped", "DROPPED", Show::kNumber},
};
constexpr std::array kGuestColumns = {
    Column{"id", "GUEST"},
    Column{"system", "SYSTEM"},
    Column{"vm_events", "VM", Show::kNumber},
    Column{"system_events", "SYSTEM", Show::kNumber},
    Column{"network_events", "NETWORK", Show::kNumber},
};
constexpr std::array kCaptureColumns = {
    Column{"id", "SESSION"},
    Column{"interface_type", "TYPE"},
    Column{"interface", "INTERFACE"},
    Column{"direction", "DIRECTION"},
    Column{"mode", "MODE"},
    Column{"target", "TARGET"},
    Column{"seconds", "LENGTH", Show::kAge},
    Column{"state", "STATE"},
};

constexpr std::array kLists = {
    List{"verticals", "The manager's verticals: state, calls, how long they took", "get/verticals",
         "verticals", "No vertical is registered.", kVerticalColumns},
    List{"switches", "The switches of the host configuration in force", "get/switches", "switches",
         "No switch is configured.", kSwitchColumns},
    List{"ports", "The ports that hold VIFs, by switch", "get/ports", "ports", "No port with a VIF is known.",
         kPortColumns},
    List{"vifs", "The VIFs and the ports that hold them", "get/vifs", "vifs", "No VIF is known on a port.",
         kVifColumns},
    List{"tasks", "The process's loops: what each does now, and its longest step", "get/tasks", "tasks",
         "There is no loop.", kTaskColumns},
    List{"queues", "The process's queues: how many wait, the longest wait, drops", "get/queueFigures",
         "queues", "There is no queue.", kQueueColumns},
    List{"guests", "The guests that the context engine knows, with their events", "get/guests", "guests",
         "No guest is on.", kGuestColumns},
    List{"captures", "The packet captures, of operators and of the manager", "get/captures", "captures",
         "No capture runs.", kCaptureColumns},
};

template <size_t kRow>
int Run(const Work& work) {
  const List& list = kLists[kRow];
  return ShowList(work, list.command, list.member, list.columns, list.none);
}

template <size_t... kRow>
constexpr std::array<Subcommand, sizeof...(kRow)> Rows(std::index_sequence<kRow...>) {
  return {Subcommand{kLists[kRow].name, "", kLists[kRow].summary, nullptr, &Run<kRow>}...};
}
constexpr auto kSubcommands = Rows(std::make_index_sequence<kLists.size()>());

}  // namespace

std::span<const Subcommand> ListSubcommands() { return kSubcommands; }

}  // namespace zem::ctl
