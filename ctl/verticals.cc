#include <array>

#include "ctl/listing.h"

namespace zem::ctl {
namespace {

constexpr std::array kColumns = {
    Column{"name", "VERTICAL"},
    Column{"state", "STATE", Show::kState},
    Column{"seconds", "SINCE", Show::kAge},
    Column{"received", "RECEIVED", Show::kNumber},
    Column{"sent", "SENT", Show::kNumber},
    Column{"failed", "FAILED", Show::kNumber},
    Column{"p99_us", "P99", Show::kMicros},
    Column{"max_us", "LONGEST", Show::kMicros},
};

int Run(const Work& work) {
  return ShowList(work, "get/verticals", "verticals", kColumns, "No vertical is registered.");
}

}  // namespace

extern const Subcommand kVerticals;
const Subcommand kVerticals{"verticals", "", "The manager's verticals: state, calls, how long they took",
                            nullptr, &Run};

}  // namespace zem::ctl
