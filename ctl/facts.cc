// Commands that show one object, a line for each member.

#include <array>

#include "ctl/daemon_client.h"
#include "ctl/listing.h"
#include "ctl/outcome.h"
#include "ctl/screen.h"

namespace zem::ctl {
namespace {

int ShowFacts(const Work& work, const char* command, std::span<const Column> facts) {
  const Json answer = work.daemon.AskJson(command);
  if (work.json) {
    PrintJson(answer);
    return kHealthy;
  }
  size_t width = 0;
  for (const Column& fact : facts) width = std::max(width, std::string_view(fact.heading).size());
  for (const Column& fact : facts) {
    const std::string heading(fact.heading);
    work.screen.Line(heading + std::string(width - heading.size() + 2, ' ') +
                     Shown(answer[fact.member], fact.show));
  }
  return kHealthy;
}

constexpr std::array kInventoryFacts = {
    Column{"state", "state"},
    Column{"records_waiting", "records waiting", Show::kNumber},
    Column{"messages_sent", "messages sent", Show::kNumber},
};

constexpr std::array kStoreFacts = {
    Column{"state", "connection"},
    Column{"pending_writes", "writes waiting", Show::kNumber},
};

constexpr std::array kAlarmFacts = {
    Column{"collector_agreed", "collector agreed"},
    Column{"reports_sent", "reports sent", Show::kNumber},
    Column{"report_kept", "report to be sent again"},
    Column{"events_waiting", "events waiting", Show::kNumber},
    Column{"status_waiting", "status waiting", Show::kNumber},
    Column{"sources", "sources"},
};

int RunInventory(const Work& work) { return ShowFacts(work, "get/inventory", kInventoryFacts); }
int RunStore(const Work& work) { return ShowFacts(work, "get/store", kStoreFacts); }
int RunAlarms(const Work& work) { return ShowFacts(work, "get/alarms", kAlarmFacts); }

}  // namespace

extern const Subcommand kInventory;
const Subcommand kInventory{"inventory", "", "How the host's inventory gets to the manager", nullptr,
                            &RunInventory};
extern const Subcommand kStore;
const Subcommand kStore{"store", "", "The connection to the local store, and what waits for it", nullptr,
                        &RunStore};
extern const Subcommand kAlarms;
const Subcommand kAlarms{"alarms", "", "The conversation with the alarm collector, and its sources", nullptr,
                         &RunAlarms};

}  // namespace zem::ctl
