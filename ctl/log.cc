#include <array>
#include <boost/program_options.hpp>
#include <cstdio>
#include <string_view>

#include "ctl/daemon_client.h"
#include "ctl/outcome.h"
#include "ctl/screen.h"
#include "ctl/subcommand.h"
#include "platform/core/nearest_name.h"

namespace zem::ctl {
namespace {

namespace po = boost::program_options;

constexpr std::array<std::string_view, 7> kLevels = {"off",  "fatal", "error", "warn",
                                                     "info", "debug", "trace"};
// What stands in the daemon's answer before the level.
constexpr std::string_view kBeforeLevel = "level is: ";

void Declare(po::options_description* options, po::positional_options_description* arguments) {
  options->add_options()("level", po::value<std::string>(), "off, fatal, error, warn, info, debug or trace");
  arguments->add("level", 1);
}

std::string CurrentLevel(const DaemonClient& daemon) {
  const std::string answer = daemon.Ask("get/loglevel");
  const size_t at = answer.find(kBeforeLevel);
  return at == std::string::npos ? answer : answer.substr(at + kBeforeLevel.size());
}

int Run(const Work& work) {
  if (work.options.count("level") != 0) {
    const std::string level = work.options["level"].as<std::string>();
    bool known = false;
    for (const std::string_view name : kLevels) known = known || name == level;
    if (!known) {
      const std::string_view nearest = NearestName(level, kLevels);
      throw Failure(
          kUsage, "there is no level \"" + level + "\"" +
                      (nearest.empty() ? std::string() : "; did you mean \"" + std::string(nearest) + "\"?"));
    }
    work.daemon.Ask("set/loglevel", {level});
  }
  const std::string level = CurrentLevel(work.daemon);
  if (work.json) {
    std::printf("{\"level\":%s}\n", Json::Quoted(level).c_str());
  } else {
    work.screen.Line(level);
  }
  return kHealthy;
}

}  // namespace

extern const Subcommand kLog;
const Subcommand kLog{"log", " [LEVEL]",
                      "Shows the level of the daemon's log lines, or sets it until the next start", &Declare,
                      &Run};

}  // namespace zem::ctl
