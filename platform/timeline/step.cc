#include "platform/timeline/step.h"

#include <cstdio>

#include "platform/timeline/segment.h"

namespace zem::timeline {

Step::Step(std::string_view name, std::string_view detail)
    : Step(name, CurrentSegment() == nullptr ? TimePoint() : Clock::Process().Now()) {
  if (record_ != nullptr && !joined_ && !detail.empty()) counted_->AddText(record_, {}, detail);
}

Step::Step(std::string_view name, TimePoint start) : record_(nullptr), counted_(CurrentSegment()) {
  if (counted_ == nullptr) return;
  record_ = counted_->Join(name);
  joined_ = record_ != nullptr;
  if (!joined_) record_ = counted_->Begin(name, start, false);
  ++counted_->depth;
}

Step::~Step() {
  if (counted_ == nullptr) return;
  --counted_->depth;
  if (record_ != nullptr && !ended_) counted_->End(record_, Clock::Process().Now());
}

void Step::End(TimePoint now) {
  if (record_ != nullptr) counted_->End(record_, now);
  ended_ = true;
}

void Step::Detail(std::string_view key, std::string_view value) {
  if (record_ != nullptr && !joined_) counted_->AddText(record_, key, value);
}

void Step::Result(std::string_view text, bool failed) {
  if (record_ == nullptr || joined_) {
    // What failed is told even when the step has no record of its own.
    if (failed && counted_ != nullptr) Note("failed", text, true);
    return;
  }
  record_->result = counted_->Keep(text, failed);
  record_->failed = failed;
}

void Step::ResultCode(uint32_t code) {
  if (record_ == nullptr && code == 0) return;
  if (code == 0) return Result("0", false);
  char text[16];
  const int length = std::snprintf(text, sizeof(text), "0x%x", code);
  Result({text, static_cast<size_t>(length)}, true);
}

bool Recording() { return CurrentSegment() != nullptr; }

void Note(std::string_view name, std::string_view detail, bool failed) {
  Segment* const segment = CurrentSegment();
  if (segment == nullptr) return;
  const TimePoint now = Clock::Process().Now();
  StepRecord* const step = segment->Begin(name, now, true);
  if (step == nullptr) return;
  step->result = segment->Keep(detail, true);
  step->failed = failed;
  segment->End(step, now);
}

void Waited(std::string_view name, TimePoint since, std::string_view detail) {
  Segment* const segment = CurrentSegment();
  if (segment == nullptr) return;
  StepRecord* const step = segment->Begin(name, since, true);
  if (step == nullptr) return;
  if (!detail.empty()) segment->AddText(step, {}, detail);
  segment->End(step, Clock::Process().Now());
}

}  // namespace zem::timeline
