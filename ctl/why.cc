#include <boost/program_options.hpp>

#include "ctl/daemon_client.h"
#include "ctl/listing.h"
#include "ctl/outcome.h"
#include "ctl/output_file.h"
#include "ctl/screen.h"
#include "ctl/subcommand.h"
#include "ctl/timeline.h"

namespace zem::ctl {
namespace {

namespace po = boost::program_options;

void Declare(po::options_description* options, po::positional_options_description* arguments) {
  options->add_options()(
      "id", po::value<std::string>(),
      "a host configuration, an operation, a VIF, a switch (id or name), a node; a list without it")(
      "all", "show every operation of it in full, not only the newest one")(
      "trace", po::value<std::string>(), "write FILE in the trace event form that trace viewers open");
  arguments->add("id", 1);
}

int Run(const Work& work) {
  std::vector<std::string> arguments;
  if (work.options.count("id") != 0) arguments.push_back(work.options["id"].as<std::string>());
  if (!arguments.empty() && arguments.front().empty()) throw Failure(kUsage, "the id is empty");
  if (arguments.empty() && work.options.count("trace") != 0) {
    throw Failure(kUsage, "--trace needs an id; \"why\" alone lists what there is");
  }
  const Json answer = work.daemon.AskJson("get/why", arguments);
  const Json operations = answer["operations"];
  if (work.options.count("trace") != 0) {
    WriteOutputFile(work.options["trace"].as<std::string>(), TraceEvents(operations));
  }
  if (work.json) {
    PrintJson(answer);
    return kHealthy;
  }
  if (arguments.empty()) {
    ShowOperations(work.screen, operations);
    return kHealthy;
  }
  const std::vector<Json> all = operations.elements();
  const size_t shown = work.options.count("all") != 0 ? all.size() : 1;
  for (size_t i = 0; i < shown && i < all.size(); ++i) {
    if (i != 0) work.screen.Line("");
    ShowTimeline(work.screen, all[i]);
  }
  if (all.size() > shown) {
    work.screen.Line("");
    work.screen.Line(
        std::to_string(all.size()) + " operations are known, the newest is shown; --all shows each:",
        Colour::kFaint);
    ShowOperations(work.screen, operations);
  }
  return kHealthy;
}

}  // namespace

extern const Subcommand kWhy;
const Subcommand kWhy{
    "why", " [ID] [--all] [--trace FILE]",
    "What became of an operation, step by step, also when it failed before the last restart", &Declare, &Run};

}  // namespace zem::ctl
