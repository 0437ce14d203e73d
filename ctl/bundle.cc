#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <boost/program_options.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "ctl/daemon_client.h"
#include "ctl/outcome.h"
#include "ctl/screen.h"
#include "ctl/subcommand.h"
#include "platform/core/clock.h"

// What a developer asks for first, in one text file: the answers of all commands at one time.  What cannot be
// had is written down as well, because that is part of the picture.

namespace zem::ctl {
namespace {

namespace po = boost::program_options;

constexpr std::array kQuestions = {
    "get/status",  "get/verticals", "get/tasks",  "get/queueFigures", "get/store",    "get/switches",
    "get/ports",   "get/vifs",      "get/guests", "get/alarms",       "get/captures", "get/inventory",
    "get/options", "get/loglevel",  "get/lum",    "get/why",          "get/metrics"};
constexpr mode_t kOwnerOnly = 0600;

void Declare(po::options_description* options, po::positional_options_description* arguments) {
  options->add_options()("file", po::value<std::string>(), "the file to write; it must not exist");
  arguments->add("file", 1);
}

std::string DefaultName() {
  const std::time_t now = std::chrono::system_clock::to_time_t(Clock::Process().WallNow());
  std::tm parts{};
  ::gmtime_r(&now, &parts);
  std::array<char, 64> name;
  std::strftime(name.data(), name.size(), "zem-tarvik-%Y%m%dT%H%M%SZ.txt", &parts);
  return name.data();
}

void WriteAll(int fd, const std::string& path, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throw Failure(kDegraded, path + ": " + std::strerror(errno));
    text.remove_prefix(static_cast<size_t>(written));
  }
}

int Run(const Work& work) {
  const std::string path =
      work.options.count("file") != 0 ? work.options["file"].as<std::string>() : DefaultName();
  std::string text;
  int code = kHealthy;
  for (const char* const question : kQuestions) {
    text += std::string("=== ") + question + "\n";
    try {
      text += work.daemon.Ask(question) + "\n";
    } catch (const Failure& failure) {
      text += std::string("(") + failure.what() + ")\n";
      code = std::max<int>(code, failure.code());
    }
  }
  // Never through a link or over a file that somebody has put there.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kOwnerOnly);
  if (fd < 0) throw Failure(kUsage, path + ": " + std::strerror(errno));
  try {
    WriteAll(fd, path, text);
  } catch (const Failure&) {
    ::close(fd);
    ::unlink(path.c_str());
    throw;
  }
  const bool synced = ::fsync(fd) == 0;
  if (::close(fd) != 0 || !synced) throw Failure(kDegraded, path + ": " + std::strerror(errno));
  if (work.json) {
    std::printf("{\"file\":%s}\n", Json::Quoted(path).c_str());
  } else {
    work.screen.Line(path);
  }
  return code;
}

}  // namespace

extern const Subcommand kBundle;
const Subcommand kBundle{"bundle", " [FILE]",
                         "Writes the answers of all commands to a file, for whoever looks at a fault",
                         &Declare, &Run};

}  // namespace zem::ctl
