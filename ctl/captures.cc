#include <array>

#include "ctl/listing.h"

namespace zem::ctl {
namespace {

constexpr std::array kColumns = {
    Column{"id", "SESSION"},
    Column{"interface_type", "TYPE"},
    Column{"interface", "INTERFACE"},
    Column{"direction", "DIRECTION"},
    Column{"mode", "MODE"},
    Column{"target", "TARGET"},
    Column{"seconds", "LENGTH", Show::kAge},
    Column{"state", "STATE"},
};

int Run(const Work& work) { return ShowList(work, "get/captures", "captures", kColumns, "No capture runs."); }

}  // namespace

extern const Subcommand kCaptures;
const Subcommand kCaptures{"captures", "", "The packet captures, of operators and of the manager", nullptr,
                           &Run};

}  // namespace zem::ctl
