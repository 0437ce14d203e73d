#include <unistd.h>

#include <algorithm>
#include <boost/program_options.hpp>
#include <chrono>
#include <cstdio>
#include <thread>

#include "ctl/daemon_client.h"
#include "ctl/outcome.h"
#include "ctl/screen.h"
#include "ctl/subcommand.h"

namespace zem::ctl {
namespace {

namespace po = boost::program_options;

constexpr const char* kClear = "\033[H\033[2J";
constexpr double kShortest = 0.1;
constexpr double kLongest = 3'600;

void Declare(po::options_description* options, po::positional_options_description* arguments) {
  options->add_options()("interval", po::value<double>()->default_value(2)->value_name("SECONDS"),
                         "how long to wait between two times")(
      "times", po::value<int>()->default_value(0)->value_name("N"), "end after so many; 0 goes on")(
      "command", po::value<std::vector<std::string>>(), "the command and its arguments");
  arguments->add("command", -1);
}

// A daemon that goes away and comes back is what one watches for, so only wrong words end it.
int Run(const Work& work) {
  if (work.words.empty()) throw Failure(kUsage, "watch takes a command");
  std::vector<std::string> words = work.words;
  if (words.front() == "watch") throw Failure(kUsage, "watch cannot watch itself");
  words.insert(words.end(), {"--socket", work.daemon.socket_path(), "--timeout",
                             std::to_string(work.daemon.timeout_ms())});
  if (work.json) words.emplace_back("--json");
  const double seconds = work.options["interval"].as<double>();
  if (!(seconds >= kShortest && seconds <= kLongest))
    throw Failure(kUsage, "--interval takes 0.1 to 3600 seconds");
  const int times = work.options["times"].as<int>();
  if (times < 0) throw Failure(kUsage, "--times takes 0, for no end, or how often");
  const bool clear = ::isatty(STDOUT_FILENO) != 0 && !work.json;
  for (int done = 1;; done = done < times ? done + 1 : 1) {
    if (clear) std::fputs(kClear, stdout);
    const int code = RunWords(words);
    if (code == kUsage || done == times || std::ferror(stdout) != 0) return code;
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  }
}

}  // namespace

extern const Subcommand kWatch;
const Subcommand kWatch{"watch",  " COMMAND...", "Repeats a command, also while the daemon is away",
                        &Declare, &Run,          true};

}  // namespace zem::ctl
