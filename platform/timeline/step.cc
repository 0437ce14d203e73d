#include "platform/timeline/step.h"

#include <cstdio>

#include "platform/timeline/segment.h"

namespace zem::timeline {

Step::Step(std::string_view name, std::string_view detail)
    : Step(name, CurrentSegment() == nullptr ? TimePoint() : Clock::Process().Now()) {
  if (!detail.empty()) Detail({}, detail);
}

Step::Step(std::string_view name, TimePoint start) : counted_(CurrentSegment()), start_(start) {
  if (counted_ == nullptr) return;
  depth_ = counted_->depth;
  if (counted_->Join(name)) {
    state_ = State::kJoined;
  } else if (counted_->Begin(name, start, false)) {
    state_ = State::kRecorded;
  }
  ++counted_->depth;
}

Step::~Step() {
  if (counted_ == nullptr) return;
  --counted_->depth;
  if (recorded() && !ended_) End(Clock::Process().Now());
}

void Step::End(TimePoint now) {
  if (state_ == State::kRecorded) counted_->End(depth_, start_, now);
  if (state_ == State::kJoined) counted_->EndJoined(depth_, now);
  ended_ = true;
}

void Step::Detail(std::string_view key, std::string_view value) {
  if (state_ == State::kRecorded) counted_->AddText(depth_, key, value);
}

void Step::Result(std::string_view text, bool failed) {
  if (state_ == State::kRecorded) return counted_->Result(depth_, text, failed, failed);
  // What failed is told even when the step has no record of its own.
  if (failed && counted_ != nullptr) Note("failed", text, true);
}

void Step::ResultCode(uint32_t code) {
  if (!recorded() && code == 0) return;
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
  if (!segment->Begin(name, now, true)) return;
  if (failed || !detail.empty()) segment->Result(segment->depth, detail, failed, true);
  segment->End(segment->depth, now, now);
}

void Waited(std::string_view name, TimePoint since, std::string_view detail) {
  Segment* const segment = CurrentSegment();
  if (segment == nullptr) return;
  if (!segment->Begin(name, since, true)) return;
  if (!detail.empty()) segment->AddText(segment->depth, {}, detail);
  segment->End(segment->depth, since, Clock::Process().Now());
}

}  // namespace zem::timeline
