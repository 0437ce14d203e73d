#include <array>

#include "ctl/listing.h"

namespace zem::ctl {
namespace {

constexpr std::array kColumns = {
    Column{"name", "SWITCH"},     Column{"id", "ID"},
    Column{"mode", "MODE"},       Column{"mtu", "MTU", Show::kNumber},
    Column{"uplinks", "UPLINKS"}, Column{"endpoints", "ENDPOINTS"},
};

int Run(const Work& work) {
  return ShowList(work, "get/switches", "switches", kColumns, "No switch is configured.");
}

}  // namespace

extern const Subcommand kSwitches;
const Subcommand kSwitches{"switches", "", "The switches of the host configuration in force", nullptr, &Run};

}  // namespace zem::ctl
