#include <array>

#include "ctl/listing.h"

namespace zem::ctl {
namespace {

constexpr std::array kColumns = {
    Column{"name", "LOOP"},
    Column{"kind", "KIND"},
    Column{"state", "STATE", Show::kState},
    Column{"step", "AT"},
    Column{"age_us", "FOR", Show::kMicros},
    Column{"steps", "STEPS", Show::kNumber},
    Column{"longest_us", "LONGEST", Show::kMicros},
    Column{"longest_step", "WITH"},
};

int Run(const Work& work) { return ShowList(work, "get/tasks", "tasks", kColumns, "There is no loop."); }

}  // namespace

extern const Subcommand kTasks;
const Subcommand kTasks{"tasks", "", "The process's loops: what each does now, and its longest step", nullptr,
                        &Run};

}  // namespace zem::ctl
