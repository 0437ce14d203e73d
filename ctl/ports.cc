#include <array>

#include "ctl/listing.h"

namespace zem::ctl {
namespace {

constexpr std::array kColumns = {
    Column{"switch", "SWITCH"},
    Column{"port", "PORT"},
    Column{"vif", "VIF"},
};

int Run(const Work& work) {
  return ShowList(work, "get/ports", "ports", kColumns, "No port with a VIF is known.");
}

}  // namespace

extern const Subcommand kPorts;
const Subcommand kPorts{"ports", "", "The ports that hold VIFs, by switch", nullptr, &Run};

}  // namespace zem::ctl
