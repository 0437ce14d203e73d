#include <cstdio>

#include "ctl/daemon_client.h"
#include "ctl/outcome.h"
#include "ctl/screen.h"
#include "ctl/subcommand.h"

namespace zem::ctl {
namespace {

// The text is for programs already, so there is no JSON of it.
int Run(const Work& work) {
  if (work.json) throw Failure(kUsage, "metrics are text for monitoring; there is no JSON of them");
  const std::string text = work.daemon.Ask("get/metrics");
  std::printf("%s\n", text.c_str());
  return kHealthy;
}

}  // namespace

extern const Subcommand kMetrics;
const Subcommand kMetrics{"metrics", "", "All metrics in the text form of the usual monitoring", nullptr,
                          &Run};

}  // namespace zem::ctl
