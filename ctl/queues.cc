#include <array>

#include "ctl/listing.h"

namespace zem::ctl {
namespace {

constexpr std::array kColumns = {
    Column{"name", "QUEUE"},
    Column{"depth", "DEPTH", Show::kNumber},
    Column{"limit", "LIMIT", Show::kNumber},
    Column{"most", "MOST", Show::kNumber},
    Column{"oldest_us", "OLDEST", Show::kMicros},
    Column{"longest_wait_us", "LONGEST WAIT", Show::kMicros},
    Column{"dropped", "DROPPED", Show::kNumber},
};

int Run(const Work& work) {
  return ShowList(work, "get/queueFigures", "queues", kColumns, "There is no queue.");
}

}  // namespace

extern const Subcommand kQueues;
const Subcommand kQueues{"queues", "", "The process's queues: how many wait, the longest wait, drops",
                         nullptr, &Run};

}  // namespace zem::ctl
