#include "sim/replay/recorder.h"

#include <utility>

#include "sim/replay/answers.h"
#include "sim/scenario/control_client.h"

namespace zem::sim {
namespace {

constexpr auto kLongestRest = std::chrono::seconds(10);

}  // namespace

Recorder::Recorder(ControlClient& client, ControlClient& looks, Recording recording)
    : client_(client), looks_(looks), recording_(std::move(recording)), begun_(Clock::Process().Now()) {
  client_.SetObserver([this](const std::string& command, const std::string& answer, bool again) {
    if (answer.empty()) {
      Before(command, again);
    } else {
      Behind(command, answer, again);
    }
  });
}

Recorder::~Recorder() { client_.SetObserver({}); }

void Recorder::Before(const std::string& command, bool again) {
  if (ForgetsBorders(command)) recording_.borders.TakeForgotten(looks_);
  // A look gives the daemon no cause, so it need not wait for one.
  if (!OnlyLooks(command) && !ComparablePart(command, {}).only_asks && !again) {
    Borders::Counts now = recording_.borders.Actions(looks_);
    for (const auto& [group, count] : now) {
      if (count != seen_[group]) more_[group] = count;
    }
    seen_ = std::move(now);
  }
  daemon_ran_ = DaemonRuns(looks_);
  at_ms_ = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::Process().Now() - begun_).count() *
           recording_.clock_factor;
}

void Recorder::Behind(const std::string& command, const std::string& answer, bool again) {
  // A command that is repeated until its answer is right has done its work the last time.
  if (again && !recording_.events.empty() && recording_.events.back().command == command) {
    more_ = std::move(recording_.events.back().seen);
    recording_.events.pop_back();
  }
  recording_.events.push_back({at_ms_, command, answer, again, daemon_ran_, std::move(more_)});
  more_.clear();
}

Recording Recorder::Finish() {
  client_.SetObserver({});
  recording_.borders.TakeAtRest(looks_, kLongestRest);
  return std::move(recording_);
}

}  // namespace zem::sim
