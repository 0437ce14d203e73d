#include "sim/sinks/log_commands.h"

#include <array>
#include <optional>
#include <regex>

#include "platform/core/thread.h"
#include "sim/control/command_options.h"
#include "sim/control/number.h"
#include "sim/sinks/log_sink.h"

namespace zem::sim {
namespace {

constexpr size_t kEveryLine = LogSink::kMaxLines;
constexpr size_t kShown = 20;
constexpr int kFirstLocal = 16;
constexpr std::array kSeverities = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};

double Number(const std::string& text, double otherwise) {
  const auto number = NumberOf<double>(text);
  return number && *number >= 0 ? *number : otherwise;
}

double NumberAt(const Arguments& arguments, size_t index, double otherwise) {
  return index < arguments.size() ? Number(arguments[index], otherwise) : otherwise;
}

Json LineJson(const LogLine& line) {
  Json item = JsonObject();
  AddMember(item.get(), "number", line.number);
  AddMember(item.get(), "facility", line.facility);
  AddMember(item.get(), "severity", line.severity);
  AddMember(item.get(), "identity", line.identity);
  AddMember(item.get(), "pid", line.pid);
  AddMember(item.get(), "text", line.text);
  return item;
}

Json LinesJson(const std::vector<LogLine>& lines, uint64_t last_number) {
  Json list = JsonArray();
  for (const LogLine& line : lines) AddItem(list.get(), LineJson(line));
  Json result = JsonObject();
  AddMember(result.get(), "count", static_cast<uint64_t>(lines.size()));
  AddMember(result.get(), "last_number", last_number);
  AddMember(result.get(), "lines", std::move(list));
  return result;
}

// Formats a line as "local6.info zem-tarvik[12]: text".
std::string WholeLine(const LogLine& line) {
  std::string whole = line.facility >= kFirstLocal ? "local" + std::to_string(line.facility - kFirstLocal)
                      : line.facility == 1         ? "user"
                                                   : std::to_string(line.facility);
  whole += std::string(".") + kSeverities.at(static_cast<size_t>(line.severity)) + " " + line.identity;
  if (line.pid != 0) whole += "[" + std::to_string(line.pid) + "]";
  return whole + ": " + line.text;
}

std::optional<std::regex> Pattern(const std::string& pattern, const Reply& reply) {
  try {
    return std::regex(pattern);
  } catch (const std::regex_error& error) {
    reply.Fail("bad pattern " + pattern + ": " + error.what());
    return std::nullopt;
  }
}

void Wait(const LogSink& log, const Arguments& arguments, const Reply& reply) {
  if (!Pattern(arguments[0], reply)) return;
  const Duration timeout(static_cast<int64_t>(NumberAt(arguments, 1, 10) * 1e9));
  const auto after = static_cast<uint64_t>(NumberAt(arguments, 2, 0));
  // Waits on a thread of its own, so that the control thread stays free for other commands of the scenario.
  NativeThread::Options options;
  options.detached = true;
  const NativeThread started(std::move(options), [&log, pattern = arguments[0], timeout, after, reply] {
    if (const auto line = log.Wait(pattern, after, timeout)) {
      reply.Ok(LineJson(*line));
    } else {
      reply.Fail("no log line matches " + pattern);
    }
  });
}

void Find(const LogSink& log, const Arguments& arguments, const Reply& reply) {
  const std::string pattern = arguments.empty() ? "" : arguments[0];
  if (!Pattern(pattern, reply)) return;
  const auto limit = static_cast<size_t>(NumberAt(arguments, 1, kShown));
  const auto after = static_cast<uint64_t>(NumberAt(arguments, 2, 0));
  reply.Ok(LinesJson(log.Find(pattern, after, limit), log.last_number()));
}

void Unlike(const LogSink& log, const Arguments& arguments, const Reply& reply) {
  const auto pattern = Pattern(arguments[0], reply);
  if (!pattern) return;
  std::vector<LogLine> others;
  for (const LogLine& line : log.Find("", 0, kEveryLine)) {
    if (line.identity == "zem-tarvik" && !std::regex_search(WholeLine(line), *pattern))
      others.push_back(line);
  }
  Json result =
      LinesJson({others.begin(), others.begin() + static_cast<ptrdiff_t>(std::min(others.size(), kShown))},
                log.last_number());
  cJSON_DeleteItemFromObject(result.get(), "count");
  AddMember(result.get(), "count", static_cast<uint64_t>(others.size()));
  reply.Ok(std::move(result));
}

void Order(const LogSink& log, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--after"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  const auto after = static_cast<uint64_t>(Number(options.Value("--after").value_or("0"), 0));
  const std::vector<LogLine> lines = log.Find("", after, kEveryLine);
  uint64_t before = 0;
  std::string before_pattern;
  for (const std::string& text : options.positional()) {
    const auto pattern = Pattern(text, reply);
    if (!pattern) return;
    const auto found = std::find_if(lines.begin(), lines.end(), [&](const LogLine& line) {
      return std::regex_search(line.text, *pattern);
    });
    if (found == lines.end()) return reply.Fail("no log line matches " + text);
    if (found->number <= before) return reply.Fail(text + " came first before " + before_pattern);
    before = found->number;
    before_pattern = text;
  }
  reply.Ok();
}

}  // namespace

void RegisterLogCommands(CommandTable& table, const LogSink& log) {
  constexpr size_t kMany = 100;
  const LogSink* const l = &log;
  table.Register({"log/wait", "PATTERN [SECONDS [AFTER]]",
                  "Waits for a line of the node's log that matches (10 seconds), after line number AFTER.", 1,
                  3, [l](const Arguments& arguments, const Reply& reply) { Wait(*l, arguments, reply); }});
  table.Register({"log/find", "[PATTERN [LIMIT [AFTER]]]",
                  "Shows the newest lines of the node's log that match.", 0, 3,
                  [l](const Arguments& arguments, const Reply& reply) { Find(*l, arguments, reply); }});
  table.Register(
      {"log/unlike", "PATTERN",
       "Counts and shows the daemon's lines that do not match; they are matched as \"FACILITY.SEVERITY "
       "IDENTITY[PID]: TEXT\".",
       1, 1, [l](const Arguments& arguments, const Reply& reply) { Unlike(*l, arguments, reply); }});
  table.Register({"log/order", "[--after NUMBER] PATTERN...",
                  "Refuses when the first lines that match the patterns are not there in this order.", 2,
                  kMany,
                  [l](const Arguments& arguments, const Reply& reply) { Order(*l, arguments, reply); }});
}

}  // namespace zem::sim
