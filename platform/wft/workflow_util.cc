#include "platform/wft/workflow_util.h"

#include <atomic>
#include <deque>
#include <mutex>

#include "platform/core/lib_log.h"
#include "platform/core/random.h"

namespace zem::wft {
namespace {

constexpr size_t kKeptSpans = 256;
constexpr size_t kMaxTags = 32;

struct AtomicSpanStats {
  std::atomic<uint64_t> total_requests{0};
  std::atomic<uint64_t> start_errors{0};
  std::atomic<uint64_t> no_parent_errors{0};
  std::atomic<uint64_t> invalid_context_errors{0};
  std::atomic<uint64_t> sampled_out{0};
  std::atomic<uint64_t> batch_spans{0};
  std::atomic<uint64_t> low_trace_level{0};

  SpanStats Read() const {
    return {total_requests, start_errors, no_parent_errors, invalid_context_errors,
            sampled_out,    batch_spans,  low_trace_level};
  }
};

struct Tracing {
  std::atomic<int> level{kTraceInfo};
  std::atomic<bool> started{false};
  AtomicSpanStats child;
  AtomicSpanStats root;
  std::mutex mutex;  // guards all below
  std::shared_ptr<void> store;
  std::string process;
  std::deque<SpanRecord> finished;
};

Tracing& TheTracing() {
  static Tracing* const tracing = new Tracing;  // never destroyed: spans end until the process does
  return *tracing;
}

thread_local Span* current_span = nullptr;

uint64_t NonZeroRandom() {
  uint64_t number = 0;
  while (number == 0) RandomBytes(&number, sizeof(number));
  return number;
}

// Nothing when the span is not wanted; the reason is counted.
std::optional<SpanRecord> MakeRecord(std::string_view name, TraceLevel level, bool batch,
                                     AtomicSpanStats& stats, const TraceContext& parent) {
  if (batch) ++stats.batch_spans;
  Tracing& tracing = TheTracing();
  if (!tracing.started) {
    ++stats.start_errors;
    return std::nullopt;
  }
  if (static_cast<int>(level) > tracing.level) {
    ++stats.low_trace_level;
    return std::nullopt;
  }
  SpanRecord record;
  record.name = name;
  record.context.trace_id = parent.valid() ? parent.trace_id : NonZeroRandom();
  record.context.span_id = NonZeroRandom();
  record.parent_id = parent.span_id;
  record.start = Clock::Process().Now();
  return record;
}

void Keep(SpanRecord record) {
  record.duration = Clock::Process().Now() - record.start;
  ZEM_LIB_LOG(
      Library::kWorkflow, kLogDebug, "span %s of trace %016llx took %lld us", record.name.c_str(),
      static_cast<unsigned long long>(record.context.trace_id),
      static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(record.duration).count()));
  Tracing& tracing = TheTracing();
  std::lock_guard lock(tracing.mutex);
  if (tracing.finished.size() == kKeptSpans) tracing.finished.pop_front();
  tracing.finished.push_back(std::move(record));
}

}  // namespace

Span::Span(std::string_view name, std::optional<SpanRecord> record)
    : record_(std::move(record)), outer_(current_span), step_(name) {
  current_span = this;
}

Span::~Span() {
  current_span = outer_;
  if (record_) Keep(std::move(*record_));
}

void WorkflowUtil::Init(std::shared_ptr<void> store, const std::string& process) {
  Tracing& tracing = TheTracing();
  std::lock_guard lock(tracing.mutex);
  tracing.store = std::move(store);
  tracing.process = process;
  tracing.started = true;
}

void WorkflowUtil::SetTraceLevel(int level) {
  if (level >= kTraceOff && level <= kTraceTrace) TheTracing().level = level;
}

int WorkflowUtil::GetTraceLevel() { return TheTracing().level; }

Stats WorkflowUtil::GetStats() { return {TheTracing().child.Read(), TheTracing().root.Read()}; }

Span WorkflowUtil::StartRootSpan(std::string_view name, TraceLevel level, bool batch) {
  AtomicSpanStats& stats = TheTracing().root;
  ++stats.total_requests;
  return Span(name, MakeRecord(name, level, batch, stats, TraceContext()));
}

Span WorkflowUtil::StartChildSpan(std::string_view name, TraceLevel level, bool batch) {
  AtomicSpanStats& stats = TheTracing().child;
  ++stats.total_requests;
  if (current_span == nullptr) {
    ++stats.no_parent_errors;
    return Span(name, std::nullopt);
  }
  if (!current_span->recorded()) {
    ++stats.sampled_out;
    return Span(name, std::nullopt);
  }
  return Span(name, MakeRecord(name, level, batch, stats, current_span->context()));
}

Span WorkflowUtil::StartChildSpan(std::string_view name, TraceLevel level, const TraceContext& parent) {
  AtomicSpanStats& stats = TheTracing().child;
  ++stats.total_requests;
  if (!parent.valid()) {
    ++stats.invalid_context_errors;
    return Span(name, std::nullopt);
  }
  return Span(name, MakeRecord(name, level, false, stats, parent));
}

void WorkflowUtil::SetCurSpanTag(std::string_view key, std::string_view value) {
  if (current_span == nullptr) return;
  if (key == tags::kErrorMessage) {
    current_span->step_.Result(value, true);
  } else if (key != tags::kError) {
    current_span->step_.Detail(key, value);
  }
  if (!current_span->record_) return;
  auto& tags = current_span->record_->tags;
  if (tags.size() < kMaxTags) tags.emplace_back(key, value);
}

std::vector<SpanRecord> WorkflowUtil::FinishedSpans() {
  Tracing& tracing = TheTracing();
  std::lock_guard lock(tracing.mutex);
  return {tracing.finished.begin(), tracing.finished.end()};
}

}  // namespace zem::wft
