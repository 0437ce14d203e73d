#include <array>

#include "ctl/listing.h"

namespace zem::ctl {
namespace {

constexpr std::array kColumns = {
    Column{"id", "GUEST"},
    Column{"system", "SYSTEM"},
    Column{"vm_events", "VM", Show::kNumber},
    Column{"system_events", "SYSTEM", Show::kNumber},
    Column{"network_events", "NETWORK", Show::kNumber},
};

int Run(const Work& work) { return ShowList(work, "get/guests", "guests", kColumns, "No guest is on."); }

}  // namespace

extern const Subcommand kGuests;
const Subcommand kGuests{"guests", "", "The guests that the context engine knows, with their events", nullptr,
                         &Run};

}  // namespace zem::ctl
