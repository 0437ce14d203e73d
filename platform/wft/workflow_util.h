#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/core/clock.h"
#include "platform/timeline/step.h"

/// Workflow tracing: which step of which workflow touched which object, as spans kept in memory and logged
/// when they end.
namespace zem::wft {

/// Spans of a higher level than the one set are not recorded.
enum TraceLevel : int { kTraceOff = 0, kTraceWarn = 1, kTraceInfo = 2, kTraceDebug = 3, kTraceTrace = 4 };

/// Key words of span tags.
namespace tags {
inline constexpr const char* kLogicalSwitch = "LS-ID";
inline constexpr const char* kLogicalSwitchPort = "LSP-ID";
inline constexpr const char* kLogicalRouter = "LR-ID";
inline constexpr const char* kLogicalRouterPort = "LRP-ID";
inline constexpr const char* kOperation = "operation";
inline constexpr const char* kVif = "VIF";
inline constexpr const char* kTransportNode = "TN-ID";
inline constexpr const char* kTransportZone = "TZ-ID";
inline constexpr const char* kHostSwitch = "HS-ID";
inline constexpr const char* kVni = "VNI";
inline constexpr const char* kVlan = "VLAN";
inline constexpr const char* kWorkflow = "workflow";
inline constexpr const char* kError = "error";
inline constexpr const char* kErrorMessage = "error-msg";
inline constexpr const char* kException = "exception";
}  // namespace tags

/// What was asked of the tracing, for child and for root spans in this order of fields.
struct SpanStats {
  uint64_t total_requests = 0;
  uint64_t start_errors = 0;            ///< before Init
  uint64_t no_parent_errors = 0;        ///< a child on a thread without current span
  uint64_t invalid_context_errors = 0;  ///< a parent context from outside that is none
  uint64_t sampled_out = 0;             ///< children of a parent that was not recorded
  uint64_t batch_spans = 0;             ///< spans that stand for several requests
  uint64_t low_trace_level = 0;         ///< of a level that is not wanted
};
struct Stats {
  SpanStats child;
  SpanStats root;
};

/// How a span is named across processes; zero is no context.
struct TraceContext {
  uint64_t trace_id = 0;
  uint64_t span_id = 0;
  bool valid() const { return trace_id != 0 && span_id != 0; }
};

/// A span that has ended.
struct SpanRecord {
  std::string name;
  TraceContext context;
  uint64_t parent_id = 0;
  TimePoint start;
  Duration duration{0};
  std::vector<std::pair<std::string, std::string>> tags;
};

/// A step under way; the current span of its thread from construction to destruction, which must be in the
/// order of a stack.  When the tracing does not want it, it is empty and costs nothing more.  It is a step of
/// the thread's operation as well (platform/timeline), whatever the trace level; so its name has to live
/// forever.
class Span {
 public:
  ~Span();
  Span(const Span&) = delete;
  Span& operator=(const Span&) = delete;

  bool recorded() const { return record_.has_value(); }
  /// How it ended; only the timeline keeps that.
  void Result(std::string_view text, bool failed) { step_.Result(text, failed); }
  TraceContext context() const { return record_ ? record_->context : TraceContext(); }

 private:
  friend class WorkflowUtil;
  Span(std::string_view name, std::optional<SpanRecord> record);

  std::optional<SpanRecord> record_;
  Span* outer_;
  timeline::Step step_;
};

/// Threads: all operations from any thread.
class WorkflowUtil {
 public:
  /// `store` is kept for the life of the process; spans start from now on.
  static void Init(std::shared_ptr<void> store, const std::string& process);

  /// A value outside 0..4 is ignored.
  static void SetTraceLevel(int level);
  static int GetTraceLevel();

  static Stats GetStats();

  static Span StartRootSpan(std::string_view name, TraceLevel level, bool batch = false);
  /// Under the thread's current span.
  static Span StartChildSpan(std::string_view name, TraceLevel level, bool batch = false);
  /// Under a span of another thread or process.
  static Span StartChildSpan(std::string_view name, TraceLevel level, const TraceContext& parent);

  /// Tags the current span of this thread, if there is one.
  static void SetCurSpanTag(std::string_view key, std::string_view value);

  /// The last spans that ended, oldest first; at most 256.
  static std::vector<SpanRecord> FinishedSpans();
};

}  // namespace zem::wft
