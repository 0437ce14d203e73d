#include <cstdio>

#include "ctl/daemon_client.h"
#include "ctl/metrics_text.h"
#include "ctl/outcome.h"
#include "ctl/screen.h"
#include "ctl/subcommand.h"

namespace zem::ctl {
namespace {

int Run(const Work& work) {
  const std::string answer = work.daemon.Ask("get/metrics");
  const std::string text = work.json ? MetricsJson(answer) : answer;
  std::printf("%s\n", text.c_str());
  return kHealthy;
}

}  // namespace

extern const Subcommand kMetrics;
const Subcommand kMetrics{"metrics", "", "All metrics in the text form of the usual monitoring", nullptr,
                          &Run};

}  // namespace zem::ctl
