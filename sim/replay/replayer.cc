#include "sim/replay/replayer.h"

#include <algorithm>
#include <ostream>

#include "platform/core/thread.h"
#include "sim/control/json.h"
#include "sim/scenario/control_client.h"

namespace zem::sim {
namespace {

constexpr size_t kMostLines = 20;
constexpr size_t kMostShown = 300;
// Of the node's time: how much later than in the recording something may come.
constexpr auto kLater = std::chrono::seconds(5);
// Of the machine's time: work does not become faster with the clock.
constexpr auto kAnswerWork = std::chrono::seconds(1);
constexpr auto kCauseWork = std::chrono::seconds(10);
constexpr auto kLook = std::chrono::milliseconds(20);
constexpr std::string_view kLogPlace = "log/find . 1";

std::string LastNumber(const std::string& answer) {
  const Json parsed(cJSON_ParseWithLength(answer.data(), answer.size()));
  const cJSON* const result = cJSON_GetObjectItemCaseSensitive(parsed.get(), "result");
  const cJSON* const number = cJSON_GetObjectItemCaseSensitive(result, "last_number");
  return cJSON_IsNumber(number) ? JsonText(number) : "";
}

std::string Short(const std::string& text) { return text.substr(0, kMostShown); }

}  // namespace

Replayer::Replayer(const Recording& recording, ControlClient& node, int clock_factor)
    : recording_(recording), node_(node), clock_factor_(clock_factor) {}

TimePoint Replayer::Patience(Duration least) const {
  return Clock::Process().Now() + std::max<Duration>(least, Duration(kLater) / clock_factor_);
}

void Replayer::Await(const Recording::Event& event) {
  const TimePoint due = begun_ + Duration(std::chrono::milliseconds(event.at_ms)) / clock_factor_;
  if (const TimePoint now = Clock::Process().Now(); now < due) SleepFor(due - now);
  if (event.seen.empty()) return;
  for (const TimePoint latest = Patience(kCauseWork);;) {
    Borders::Counts now = forgotten_.Actions(node_);
    const auto lacks = [&](const auto& wanted) {
      return now[wanted.first] + owed_[wanted.first] < wanted.second;
    };
    if (std::ranges::none_of(event.seen, lacks)) return;
    if (Clock::Process().Now() >= latest) {
      for (const auto& [group, count] : event.seen) {
        owed_[group] = std::max(owed_[group], count - std::min(count, now[group]));
      }
      return;
    }
    SleepFor(kLook);
  }
}

std::string Replayer::Translated(const std::string& command) const {
  const size_t blank = command.rfind(' ');
  if (!command.starts_with("log/") || blank == std::string::npos) return command;
  const auto place = log_places_.find(command.substr(blank + 1));
  return place == log_places_.end() || command == kLogPlace ? command
                                                            : command.substr(0, blank + 1) + place->second;
}

void Replayer::LearnLogPlace(const Recording::Event& event, const std::string& answer) {
  if (event.command != kLogPlace) return;
  const std::string recorded = LastNumber(event.answer);
  const std::string here = LastNumber(answer);
  if (!recorded.empty() && !here.empty()) log_places_[recorded] = here;
}

std::string Replayer::Execute(const Recording::Event& event) {
  const std::string command = Translated(event.command);
  // What came after it happened in the knowledge of this answer.
  const bool awaited = event.awaited || ShowsState(event.command);
  const bool looks = OnlyLooks(event.command);
  const TimePoint latest = Patience(looks ? Duration(kCauseWork) : Duration(kAnswerWork));
  std::string answer = node_.Execute(command);
  const auto differs = [&] {
    if (looks) return WasTaken(event.answer) && !WasTaken(answer);
    return awaited && answer != event.answer;
  };
  while (differs() && Clock::Process().Now() < latest) {
    SleepFor(kLook);
    answer = node_.Execute(command);
  }
  return answer;
}

std::vector<Difference> Replayer::AtBorders() {
  // What the last command set off may still be on its way.
  for (const TimePoint latest = Patience(kCauseWork);;) {
    Borders whole = forgotten_;
    whole.Take(node_);
    std::vector<Difference> differences = recording_.borders.Compare(whole);
    if (differences.empty() || Clock::Process().Now() >= latest) return differences;
    SleepFor(kLook);
  }
}

std::vector<Difference> Replayer::Run() {
  begun_ = Clock::Process().Now();
  std::vector<Difference> differences;
  for (const Recording::Event& event : recording_.events) {
    Await(event);
    if (ForgetsBorders(event.command)) forgotten_.TakeForgotten(node_);
    const std::string answer = Execute(event);
    LearnLogPlace(event, answer);
    if (OnlyLooks(event.command) || WasTaken(answer) == WasTaken(event.answer)) continue;
    const std::string group = "answer to: " + Short(event.command);
    differences.push_back({group, '-', Short(event.answer)});
    differences.push_back({group, '+', Short(answer)});
  }
  const std::vector<Difference> at_borders = AtBorders();
  differences.insert(differences.end(), at_borders.begin(), at_borders.end());
  return differences;
}

size_t Judge(const std::vector<Difference>& differences, ExpectedDifferences expected, std::ostream& out) {
  size_t groups = 0;
  size_t lines = 0;
  size_t taken = 0;
  const std::string* group = nullptr;
  for (const Difference& each : differences) {
    if (expected.Takes(each)) {
      ++taken;
      continue;
    }
    if (group == nullptr || *group != each.group) {
      if (lines > kMostLines) out << "  and " << lines - kMostLines << " more\n";
      group = &each.group;
      lines = 0;
      ++groups;
      out << each.group << "\n";
    }
    if (++lines > kMostLines) continue;
    if (each.mark == '~') {
      out << "  the same, in another order\n";
    } else {
      out << "  " << each.mark << " " << each.line << "\n";
    }
  }
  if (lines > kMostLines) out << "  and " << lines - kMostLines << " more\n";
  if (taken != 0) out << taken << " lines differ as expected\n";
  const std::vector<std::string> unseen = expected.Unseen();
  for (const std::string& text : unseen) out << "expected, and not there: " << text << "\n";
  return groups + unseen.size();
}

}  // namespace zem::sim
