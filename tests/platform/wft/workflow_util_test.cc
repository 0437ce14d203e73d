#include "platform/wft/workflow_util.h"

#include <gtest/gtest.h>

#include "platform/core/virtual_clock.h"

namespace zem::wft {
namespace {

// One story, because the tracing is one for the process: each request moves exactly the counter that says
// why.
TEST(WorkflowUtilTest, EveryRequestIsRecordedOrCounted) {
  VirtualClock clock;
  { const Span early = WorkflowUtil::StartRootSpan("early", kTraceInfo); }
  EXPECT_EQ(WorkflowUtil::GetStats().root.start_errors, 1u);
  EXPECT_TRUE(WorkflowUtil::FinishedSpans().empty());

  WorkflowUtil::Init(nullptr, "test");
  { const Span orphan = WorkflowUtil::StartChildSpan("orphan", kTraceInfo); }
  EXPECT_EQ(WorkflowUtil::GetStats().child.no_parent_errors, 1u);
  { const Span foreign = WorkflowUtil::StartChildSpan("foreign", kTraceInfo, TraceContext{1, 0}); }
  EXPECT_EQ(WorkflowUtil::GetStats().child.invalid_context_errors, 1u);

  {
    const Span root = WorkflowUtil::StartRootSpan("attach", kTraceInfo, true);
    WorkflowUtil::SetCurSpanTag(tags::kVif, "vif-1");
    {
      const Span child = WorkflowUtil::StartChildSpan("port", kTraceInfo);
      WorkflowUtil::SetCurSpanTag(tags::kError, "true");
      clock.RunFor(std::chrono::seconds(2));
    }
    const Span low = WorkflowUtil::StartChildSpan("detail", kTraceDebug);
    WorkflowUtil::SetCurSpanTag(tags::kError, "lost with its span");
    const Span below = WorkflowUtil::StartChildSpan("below", kTraceInfo);
  }
  const Stats stats = WorkflowUtil::GetStats();
  EXPECT_EQ(stats.root.total_requests, 2u);
  EXPECT_EQ(stats.root.batch_spans, 1u);
  EXPECT_EQ(stats.child.total_requests, 5u);
  EXPECT_EQ(stats.child.low_trace_level, 1u);
  EXPECT_EQ(stats.child.sampled_out, 1u);

  const std::vector<SpanRecord> spans = WorkflowUtil::FinishedSpans();
  ASSERT_EQ(spans.size(), 2u);
  EXPECT_EQ(spans[0].name, "port");
  EXPECT_EQ(spans[0].duration, std::chrono::seconds(2));
  EXPECT_EQ(spans[0].parent_id, spans[1].context.span_id);
  EXPECT_EQ(spans[0].context.trace_id, spans[1].context.trace_id);
  EXPECT_EQ(spans[1].tags, (std::vector<std::pair<std::string, std::string>>{{"VIF", "vif-1"}}));
}

TEST(WorkflowUtilTest, TraceLevelKeepsItsRange) {
  WorkflowUtil::SetTraceLevel(4);
  WorkflowUtil::SetTraceLevel(5);
  WorkflowUtil::SetTraceLevel(-1);
  EXPECT_EQ(WorkflowUtil::GetTraceLevel(), 4);
  WorkflowUtil::SetTraceLevel(2);
}

}  // namespace
}  // namespace zem::wft
