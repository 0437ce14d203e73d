#include "app/zemda/base/shell_command.h"

#include <chrono>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include "app/zemda/base/interruption.h"
#include "framework/log/log.h"
#include "framework/process/child_process.h"

namespace ZemDa {
namespace {

using zem::Tarvik::ChildEnd;
using zem::Tarvik::ChildProcess;
using zem::Tarvik::ChildResult;

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr size_t kMostWords = 6;
constexpr size_t kMostOutput = 4 << 20;
constexpr auto kLongest = std::chrono::seconds(30);

std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  std::istringstream in(line);
  for (std::string word; words.size() < kMostWords && std::getline(in, word, ' ');) {
    if (!word.empty()) words.push_back(std::move(word));
  }
  return words;
}

}  // namespace

int ExecuteCommand(const shellCommand& command, std::string* output, Interruption* interruption) {
  ChildProcess::Options options;
  options.argv = Words(command.command);
  options.time_limit = kLongest;
  options.output_limit = kMostOutput;
  options.output_rule = ChildProcess::OutputRule::kEndChild;
  options.own_group = true;
  ChildProcess child(std::move(options));
  ChildResult result;
  {
    std::optional<Interruption::Hook> hook;
    if (interruption != nullptr) hook.emplace(*interruption, [&child] { child.Stop(); });
    result = child.Run();
  }
  output->append(result.output);
  const char* const what = command.description.c_str();
  switch (result.end) {
    case ChildEnd::kNoPipe:
      ZLOG_ERROR("MPA21011", "Failed to create stdout pipe: %d", result.value);
      return -1;
    case ChildEnd::kNotStarted:
      ZLOG_ERROR("MPA21011", "KnluserCompat_ForkExec failed for %s command.", what);
      return -1;
    default:
      break;
  }
  if (result.output.empty()) {
    ZLOG_ERROR("MPA20010", "ReadBuf failed with bytes read %u, error %d", 0U, result.value);
    ZLOG_ERROR("MPA21011", "Reading pipe failed with err %d for command %s.", result.value, what);
  }
  switch (result.end) {
    case ChildEnd::kExited:
      return result.value;
    case ChildEnd::kSignalled:
    case ChildEnd::kGone:
      ZLOG_WARN("Child process terminated abnormally: %d.", result.value);
      return 0;
    default:
      ZLOG_WARN("The command %s was ended: it took too long, printed too much, or the agent stops", what);
      return -1;
  }
}

}  // namespace ZemDa
