#include <array>
#include <boost/program_options.hpp>
#include <cstdio>

#include "ctl/daemon_client.h"
#include "ctl/listing.h"
#include "ctl/outcome.h"
#include "ctl/screen.h"
#include "ctl/subcommand.h"
#include "framework/options/option_check.h"

namespace zem::ctl {
namespace {

namespace po = boost::program_options;

constexpr std::array kColumns = {
    Column{"key", "OPTION"},  Column{"value", "VALUE"},   Column{"default", "DEFAULT"},
    Column{"range", "RANGE"}, Column{"effect", "EFFECT"},
};

void Declare(po::options_description* options, po::positional_options_description*) {
  options->add_options()("check", po::value<std::string>()->value_name("FILE"),
                         "what the daemon would make of this file; needs no daemon");
}

int Check(const Work& work) {
  const std::string path = work.options["check"].as<std::string>();
  const Tarvik::OptionCheck check = Tarvik::CheckOptions(path);
  const Json json = Json::Parse(check.json);
  if (work.json) {
    PrintJson(json);
  } else {
    ShowTable(work.screen, json["options"], kColumns, "");
    for (const Tarvik::OptionFault& fault : check.faults) {
      work.screen.Line(path + (fault.line > 0 ? ":" + std::to_string(fault.line) : std::string()) + ": " +
                           (fault.key.empty() ? std::string() : fault.key + " ") + fault.what,
                       Colour::kBad);
    }
  }
  return check.faults.empty() ? kHealthy : kDegraded;
}

int Run(const Work& work) {
  if (work.options.count("check") != 0) return Check(work);
  return ShowList(work, "get/options", "options", kColumns, "");
}

}  // namespace

extern const Subcommand kOptions;
const Subcommand kOptions{"options", " [--check FILE]",
                          "The daemon's options with their values, or what it would make of a file", &Declare,
                          &Run};

}  // namespace zem::ctl
