#include "framework/cli/builtin_commands.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "framework/cli/json_writer.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "platform/metrics/queue_gauge.h"
#include "platform/wft/workflow_util.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

// A loop that promises to be prompt and is not.
constexpr Duration kLoopPatience = std::chrono::seconds(1);

// A level that commands show and set; `name` stands in the texts before the word "log" or "logging".
struct LevelRow {
  const char* set_command;
  const char* get_command;
  const char* name;
  int (*get)();
  void (*set)(int level);
};

template <Library kLibrary>
int GetLibraryLevel() {
  return LibraryLevel(kLibrary);
}
template <Library kLibrary>
void SetLibraryLevel(int level) {
  LibraryLevel(kLibrary) = level;
}

constexpr std::array kLevelRows = {
    LevelRow{"set/loglevel", "get/loglevel", "", [] { return static_cast<int>(Logger::logLevel.load()); },
             [](int level) { SetLogLevel(static_cast<uint32_t>(level)); }},
    LevelRow{"set/lib-metrics/loglevel", "get/lib-metrics/loglevel", "metrics ",
             &GetLibraryLevel<Library::kMetrics>, &SetLibraryLevel<Library::kMetrics>},
    LevelRow{"set/lib-net/loglevel", "get/lib-net/loglevel", "net ", &GetLibraryLevel<Library::kNet>,
             &SetLibraryLevel<Library::kNet>},
    LevelRow{"set/lib-rpc/loglevel", "get/lib-rpc/loglevel", "rpc ", &GetLibraryLevel<Library::kRpc>,
             &SetLibraryLevel<Library::kRpc>},
    LevelRow{"set/lib-wft/loglevel", "get/lib-wft/loglevel", "workflow tracing ",
             &GetLibraryLevel<Library::kWorkflow>, &SetLibraryLevel<Library::kWorkflow>},
    LevelRow{"set/lib-sha/loglevel", "get/lib-sha/loglevel", "SHA client lib ",
             &GetLibraryLevel<Library::kSha>, &SetLibraryLevel<Library::kSha>},
};

constexpr std::array kTraceWords = {"off", "warn", "info", "debug", "trace"};

const char* TraceWord(int level) { return kTraceWords.at(static_cast<size_t>(level)); }

std::string SettingText(const std::string& what, const char* before, const std::string& after, bool done) {
  return "Setting Tarvik " + what + " level from " + before + " to " + after +
         (done ? " successfully" : " failed");
}

void SetLevel(const LevelRow& row, const std::string& word, CliReply reply) {
  const char* const before = LevelName(row.get());
  ZLOG_INFO("CliServer: setting %slog level from %s to %s", row.name, before, word.c_str());
  const std::optional<int> level = ParseLevel(word);
  if (level) row.set(*level);
  reply.Ok(SettingText(std::string(row.name) + "logging", before, word, level.has_value()));
}

void GetLevel(const LevelRow& row, CliReply reply) {
  const char* const level = LevelName(row.get());
  ZLOG_INFO("CliServer: getting %slog level %s", row.name, level);
  reply.Ok("Current Tarvik " + std::string(row.name) + "logging level is: " + level);
}

void SetTraceLevel(const CliArguments& arguments, CliReply reply) {
  const std::string& word = arguments[0];
  const char* const before = TraceWord(wft::WorkflowUtil::GetTraceLevel());
  ZLOG_INFO("CliServer: setting trace level from %s to %s", before, word.c_str());
  const auto found = std::find(kTraceWords.begin(), kTraceWords.end(), std::string_view(word));
  const bool known = found != kTraceWords.end();
  if (known) wft::WorkflowUtil::SetTraceLevel(static_cast<int>(found - kTraceWords.begin()));
  reply.Ok(SettingText("trace", before, word, known));
}

void GetTraceLevel(const CliArguments&, CliReply reply) {
  const char* const level = TraceWord(wft::WorkflowUtil::GetTraceLevel());
  ZLOG_INFO("CliServer: getting trace level %s", level);
  reply.Ok(std::string("Current Tarvik trace level is: ") + level);
}

struct StatRow {
  const char* name;
  uint64_t wft::SpanStats::*number;
};
constexpr std::array kStatRows = {
    StatRow{"Total_Req", &wft::SpanStats::total_requests},
    StatRow{"Start_Span_Err", &wft::SpanStats::start_errors},
    StatRow{"No_Parent_Err", &wft::SpanStats::no_parent_errors},
    StatRow{"Invalid_Trace_Ctx_Err", &wft::SpanStats::invalid_context_errors},
    StatRow{"Sample_Out_Span", &wft::SpanStats::sampled_out},
    StatRow{"Batch_Span", &wft::SpanStats::batch_spans},
    StatRow{"Low_Trace_Lvl_Span", &wft::SpanStats::low_trace_level},
};

void AppendStats(const char* prefix, const wft::SpanStats& stats, JsonValue* rows) {
  for (const StatRow& row : kStatRows) {
    JsonValue object = JsonValue::Object();
    object.Add("StatsName", std::string(prefix) + row.name).Add("Num", stats.*row.number);
    rows->Append(std::move(object));
  }
}

void GetStats(const CliArguments&, CliReply reply) {
  const wft::Stats stats = wft::WorkflowUtil::GetStats();
  JsonValue rows = JsonValue::Array();
  AppendStats("ChildSpan_", stats.child, &rows);
  AppendStats("RootSpan_", stats.root, &rows);
  reply.Ok(rows.Text());
}

void GetQueues(const CliArguments&, CliReply reply) {
  ZLOG_INFO("CliServer: getting queues");
  JsonValue queues = JsonValue::Array();
  for (const QueueGauge::Reading& reading : QueueGauge::ReadAll()) {
    const auto longest_wait = std::chrono::duration_cast<std::chrono::milliseconds>(reading.longest_wait);
    JsonValue queue = JsonValue::Object();
    queue.Add("QUEUE", reading.name)
        .Add("DEPTH", uint64_t{reading.depth})
        .Add("MOST", uint64_t{reading.most})
        .Add("LONGEST_WAIT_MS", int64_t{longest_wait.count()})
        .Add("DROPPED", reading.dropped)
        .Add("LIMIT", uint64_t{reading.limit});
    queues.Append(std::move(queue));
  }
  reply.Ok(queues.Text());
}

int64_t Micros(Duration duration) {
  return std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
}

void GetQueueFigures(const CliArguments&, CliReply reply) {
  JsonValue queues = JsonValue::Array();
  for (const QueueGauge::Reading& reading : QueueGauge::ReadAll()) {
    JsonValue queue = JsonValue::Object();
    queue.Add("name", reading.name)
        .Add("depth", uint64_t{reading.depth})
        .Add("limit", uint64_t{reading.limit})
        .Add("most", uint64_t{reading.most})
        .Add("oldest_us", int64_t{Micros(reading.oldest)})
        .Add("longest_wait_us", int64_t{Micros(reading.longest_wait)})
        .Add("dropped", reading.dropped);
    queues.Append(std::move(queue));
  }
  JsonValue answer = JsonValue::Object();
  answer.Add("queues", std::move(queues));
  reply.Ok(answer.Text());
}

const char* LoopWord(const LoopReading& loop) {
  if (!loop.busy) return "waiting";
  return loop.kind == LoopKind::kPrompt && loop.age >= kLoopPatience ? "stuck" : "busy";
}

// What each loop does, and the longest that it ever took.
void GetTasks(const CliArguments&, CliReply reply) {
  JsonValue loops = JsonValue::Array();
  for (const LoopReading& loop : LoopThread::ReadAll()) {
    JsonValue row = JsonValue::Object();
    row.Add("name", loop.name)
        .Add("kind", loop.kind == LoopKind::kPrompt ? "prompt" : "worker")
        .Add("state", LoopWord(loop))
        .Add("steps", loop.steps)
        .Add("step", loop.step)
        .Add("age_us", int64_t{Micros(loop.age)})
        .Add("longest_us", int64_t{Micros(loop.longest)})
        .Add("longest_step", loop.longest_step);
    loops.Append(std::move(row));
  }
  JsonValue answer = JsonValue::Object();
  answer.Add("tasks", std::move(loops));
  reply.Ok(answer.Text());
}

const char* ConnectionWord(int status) {
  switch (status) {
    case 1:
      return "DOWN";
    case 2:
      return "UP";
    default:
      return "UNKNOWN";
  }
}

}  // namespace

std::vector<CliCommand> BuiltinCommands() {
  std::vector<CliCommand> commands;
  for (const LevelRow& row : kLevelRows) {
    commands.push_back(
        {row.set_command, "LOG_LEVEL", 1, 1, [&row](const CliArguments& arguments, CliReply reply) {
           SetLevel(row, arguments[0], std::move(reply));
         }});
    commands.push_back({row.get_command, "", 0, 0,
                        [&row](const CliArguments&, CliReply reply) { GetLevel(row, std::move(reply)); }});
  }
  commands.push_back({"set/lib-wft/tracelevel", "TRACE_LEVEL", 1, 1, &SetTraceLevel});
  commands.push_back({"get/lib-wft/tracelevel", "", 0, 0, &GetTraceLevel});
  commands.push_back({"get/lib-wft/stats", "", 0, 0, &GetStats});
  commands.push_back({"get/queues", "", 0, 0, &GetQueues});
  commands.push_back({"get/queueFigures", "", 0, 0, &GetQueueFigures});
  commands.push_back({"get/tasks", "", 0, 0, &GetTasks});
  return commands;
}

CliCommand MpaClientCommand(std::function<std::vector<MpaClientRow>()> rows) {
  return {
      "get/mpaclient", "", 0, 0, [rows = std::move(rows)](const CliArguments&, CliReply reply) {
        JsonValue clients = JsonValue::Array();
        for (const MpaClientRow& row : rows()) {
          JsonValue client = JsonValue::Object();
          client.Add("APP", row.app).Add("STATUS", ConnectionWord(row.status)).Add("COOKIEID", row.cookie);
          clients.Append(std::move(client));
        }
        std::string text = clients.Text();
        ZLOG_INFO("CliServer: getting mpa connection %s", text.c_str());
        reply.Ok(std::move(text));
      }};
}

}  // namespace zem::Tarvik
