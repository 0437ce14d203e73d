#include <boost/program_options.hpp>

#include "ctl/daemon_client.h"
#include "ctl/listing.h"
#include "ctl/outcome.h"
#include "ctl/screen.h"
#include "ctl/subcommand.h"

namespace zem::ctl {
namespace {

namespace po = boost::program_options;

constexpr const char* kHealthyState = "healthy";

void Declare(po::options_description* options, po::positional_options_description*) {
  options->add_options()("brief", "one line");
}

void ShowBrief(const Json& status, Screen& screen, Colour colour) {
  std::string line = status["state"].text();
  const char* separator = ": ";
  for (const Json& fault : status["faults"].elements()) {
    line += separator + fault["part"].text() + " (" + fault["what"].text() + ", " +
            Age(fault["seconds"].number()) + ")";
    separator = "; ";
  }
  screen.Line(line, colour);
}

void ShowFull(const Json& status, Screen& screen, Colour colour) {
  screen.Line(status["version"].text() + " on node " +
              (status["node_id"].text().empty() ? "without an id" : status["node_id"].text()) + ", up " +
              Age(status["uptime_seconds"].number()));
  screen.Line(status["state"].text(), colour);
  for (const Json& fault : status["faults"].elements()) {
    screen.Line("");
    screen.Line(fault["part"].text() + ": " + fault["what"].text(), Colour::kBad);
    screen.Line("  since   " + fault["since"].text() + " (" + Age(fault["seconds"].number()) + ")");
    screen.Line("  healed  " + fault["heals"].text());
  }
  std::string well;
  for (const Json& part : status["well"].elements()) well += (well.empty() ? "" : ", ") + part.text();
  if (!well.empty()) {
    screen.Line("");
    screen.Line("well: " + well, Colour::kFaint);
  }
}

int Run(const Work& work) {
  const Json status = work.daemon.AskJson("get/status");
  const std::string state = status["state"].text();
  if (state.empty()) throw Failure(kDegraded, "the daemon's answer to \"get/status\" tells no state");
  const Colour colour = state == kHealthyState ? Colour::kGood
                        : state == "degraded"  ? Colour::kBad
                                               : Colour::kWarning;
  if (work.json) {
    PrintJson(status);
  } else if (work.options.count("brief") != 0) {
    ShowBrief(status, work.screen, colour);
  } else {
    ShowFull(status, work.screen, colour);
  }
  return state == kHealthyState ? kHealthy : kDegraded;
}

}  // namespace

extern const Subcommand kStatus;
const Subcommand kStatus{
    "status", " [--brief]",
    "Whether the daemon does all of its work; if not, why, since when, and what heals it", &Declare, &Run};

}  // namespace zem::ctl
