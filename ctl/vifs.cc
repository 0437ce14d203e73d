#include <array>

#include "ctl/listing.h"

namespace zem::ctl {
namespace {

constexpr std::array kColumns = {
    Column{"vif", "VIF"},
    Column{"switch", "SWITCH"},
    Column{"port", "PORT"},
};

int Run(const Work& work) {
  return ShowList(work, "get/vifs", "vifs", kColumns, "No VIF is known on a port.");
}

}  // namespace

extern const Subcommand kVifs;
const Subcommand kVifs{"vifs", "", "The VIFs and the ports that hold them", nullptr, &Run};

}  // namespace zem::ctl
