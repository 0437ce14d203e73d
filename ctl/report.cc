#include <array>
#include <boost/program_options.hpp>
#include <ctime>
#include <set>

#include "ctl/daemon_client.h"
#include "ctl/outcome.h"
#include "ctl/output_file.h"
#include "ctl/report_page.h"
#include "ctl/screen.h"
#include "ctl/subcommand.h"
#include "platform/core/clock.h"

namespace zem::ctl {
namespace {

namespace po = boost::program_options;

// What the page shows, by the name under which its script looks for it.  A daemon that does not have one of
// them leaves its place on the page empty, with the reason.
struct Source {
  const char* name;
  const char* command;
};
constexpr std::array kSources = {
    Source{"status", "get/status"},       Source{"verticals", "get/verticals"},
    Source{"queues", "get/queueFigures"}, Source{"tasks", "get/tasks"},
    Source{"switches", "get/switches"},   Source{"ports", "get/ports"},
    Source{"vifs", "get/vifs"},           Source{"mpaclient", "get/mpaclient"},
};

constexpr size_t kMostFailed = 30;
constexpr size_t kMostOthers = 50;

void Declare(po::options_description* options, po::positional_options_description* arguments) {
  options->add_options()("file", po::value<std::string>(), "the page to write");
  arguments->add("file", 1);
}

std::string Answer(const DaemonClient& daemon, const Source& source) {
  try {
    return daemon.AskJson(source.command).Compact();
  } catch (const Failure& failure) {
    if (failure.code() == kNoDaemon) throw;
    return std::string("{\"refused\":") + Json::Quoted(failure.what()) + "}";
  }
}

// The list of all operations, and in full those that failed and the newest others.
void AddOperations(const DaemonClient& daemon, std::string* data) {
  const Json list = daemon.AskJson("get/why")["operations"];
  *data += ",\"operations\":" + list.Compact() + ",\"timelines\":[";
  size_t failed = 0;
  size_t others = 0;
  bool first = true;
  std::set<std::string> asked;
  for (const Json& operation : list.elements()) {
    const bool is_failed = operation["state"].text() == "failed";
    if (is_failed ? failed++ >= kMostFailed : others++ >= kMostOthers) continue;
    const std::string number = operation["number"].text();
    // An earlier life's operations have numbers of their own, and come with the same answer.
    if (!asked.insert(number).second) continue;
    Json found;
    try {
      found = daemon.AskJson("get/why", {"#" + number});
    } catch (const Failure& failure) {
      if (failure.code() == kNoDaemon) throw;
      continue;  // newer ones have taken its place meanwhile
    }
    for (const Json& each : found["operations"].elements()) {
      *data += (first ? "" : ",") + each.Compact();
      first = false;
    }
  }
  *data += "]";
}

std::string UtcNow() {
  const std::time_t now = std::chrono::system_clock::to_time_t(Clock::Process().WallNow());
  std::tm utc{};
  ::gmtime_r(&now, &utc);
  std::array<char, 32> text;
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &utc)};
}

int Run(const Work& work) {
  if (work.options.count("file") == 0) throw Failure(kUsage, "report needs the name of the page to write");
  const std::string path = work.options["file"].as<std::string>();
  std::string data = "{\"made\":" + Json::Quoted(UtcNow());
  for (const Source& source : kSources)
    data += std::string(",\"") + source.name + "\":" + Answer(work.daemon, source);
  AddOperations(work.daemon, &data);
  data += "}";
  WriteOutputFile(path, ReportPage(data));
  if (work.json) {
    std::printf("{\"file\":%s}\n", Json::Quoted(path).c_str());
  } else {
    work.screen.Line(path + " is written; it opens in any browser, without a network");
  }
  return kHealthy;
}

}  // namespace

extern const Subcommand kReport;
const Subcommand kReport{
    "report", " FILE.html",
    "One page for a browser: the node, what is degraded and why, operations, queues, latencies", &Declare,
    &Run};

}  // namespace zem::ctl
