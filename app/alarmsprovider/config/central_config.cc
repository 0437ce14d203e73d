#include "app/alarmsprovider/config/central_config.h"

#include <unistd.h>

#include <chrono>
#include <utility>

#include "framework/log/log.h"
#include "framework/process/child_process.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

constexpr auto kScriptLimit = std::chrono::seconds(300);

// Empty when the script has taken the text and succeeded.
std::string FailureOf(const ChildResult& result) {
  switch (result.end) {
    case ChildEnd::kExited:
      if (result.value != 0) return "exit code " + std::to_string(result.value);
      return result.input_error != 0 ? "the input was not taken" : "";
    case ChildEnd::kSignalled:
      return "signal " + std::to_string(result.value);
    case ChildEnd::kStopped:
      return "stopped";
    case ChildEnd::kTimedOut:
      return "took too long";
    case ChildEnd::kNoPipe:
    case ChildEnd::kNotStarted:
      return "not started, errno " + std::to_string(result.value);
    default:
      return "ended in an unknown way";
  }
}

void LogOverride() { ZLOG_INFO("Local config override present, skipping central config update"); }

}  // namespace

CentralConfig::CentralConfig(AsioZemProvider& provider, Paths paths)
    : provider_(provider), paths_(std::move(paths)), override_present_(OverridePresent()) {}

bool CentralConfig::OverridePresent() const { return ::access(paths_.override_file.c_str(), F_OK) == 0; }

void CentralConfig::Set(const std::string& text) {
  const bool present = OverridePresent();
  {
    const std::lock_guard lock(mutex_);
    last_text_ = text;
    override_present_ = present;
    next_text_.clear();  // out of date
  }
  if (present) {
    LogOverride();
  } else if (!text.empty()) {
    ScheduleScript(text);
  }
}

void CentralConfig::CheckOverride() {
  const bool present = OverridePresent();
  std::string text;
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(override_present_, present) && !present) text = last_text_;
  }
  if (text.empty()) return;
  ZLOG_INFO("Central config enabled: triggering config sync");
  ScheduleScript(std::move(text));
}

void CentralConfig::Stop() { stopped_ = true; }

void CentralConfig::ScheduleScript(std::string text) {
  {
    const std::lock_guard lock(mutex_);
    next_text_ = std::move(text);
    if (std::exchange(scheduled_, true)) return;
  }
  provider_.dispatcher().Post([self = weak_from_this()] {
    if (const auto alive = self.lock()) alive->RunScripts();
  });
}

void CentralConfig::RunScripts() {
  for (;;) {
    // The text may have waited for minutes behind another one.
    const bool present = OverridePresent();
    std::string text;
    {
      const std::lock_guard lock(mutex_);
      text.swap(next_text_);
      if (text.empty() || stopped_) {
        scheduled_ = false;
        return;
      }
      if (present) override_present_ = true;
    }
    if (present) {
      LogOverride();
    } else {
      RunScript(text);
    }
  }
}

void CentralConfig::RunScript(const std::string& text) {
  ZLOG_DEBUG("Calling central config update script with input: %s", text.c_str());
  ChildProcess::Options options;
  options.argv = {paths_.script};
  options.input = text;
  options.stop = &stopped_;
  options.time_limit = kScriptLimit;
  const std::string failure = FailureOf(ChildProcess(std::move(options)).Run());
  if (!failure.empty()) ZLOG_WARN("Failed to call central config update script: %s", failure.c_str());
}

}  // namespace zem::Tarvik
