#include "sim/replay/replayer.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

#include "platform/core/thread.h"
#include "sim/control/json.h"
#include "sim/replay/answers.h"
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
// Commands within which a recorded daemon that was told to end has ended.
constexpr size_t kOrderedEnd = 5;
constexpr std::string_view kLogPlace = "log/find . 1";

std::string ResultMember(const std::string& answer, const char* name) {
  const Json parsed(cJSON_ParseWithLength(answer.data(), answer.size()));
  const cJSON* const result = cJSON_GetObjectItemCaseSensitive(parsed.get(), "result");
  const cJSON* const member = cJSON_GetObjectItemCaseSensitive(result, name);
  return cJSON_IsString(member) ? member->valuestring : cJSON_IsNumber(member) ? JsonText(member) : "";
}

void Replace(const std::string& name, const std::string& other, std::string* text) {
  for (size_t at = text->find(name); at != std::string::npos; at = text->find(name, at + other.size()))
    text->replace(at, name.size(), other);
}

std::string Short(const std::string& text) { return text.substr(0, kMostShown); }

}  // namespace

Replayer::Replayer(const Recording& recording, ControlClient& node, int clock_factor)
    : recording_(recording), node_(node), clock_factor_(clock_factor) {}

TimePoint Replayer::Patience(Duration least) const {
  if (ended_) return Clock::Process().Now();
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

// A daemon that has ended where the recorded one ran on for a while; it may end a little sooner or later by
// order.
bool Replayer::HasEnded(size_t next) {
  const auto& events = recording_.events;
  for (size_t i = next; i < std::min(next + kOrderedEnd, events.size()); ++i) {
    if (!events[i].daemon_ran) return false;
  }
  return !DaemonRuns(node_);
}

std::string Replayer::Translated(const std::string& command) const {
  std::string translated = command;
  for (const auto& [name, here] : names_) Replace(name, here, &translated);
  const size_t blank = command.rfind(' ');
  if (!command.starts_with("log/") || blank == std::string::npos || command == kLogPlace) return translated;
  const auto place = log_places_.find(command.substr(blank + 1));
  return place == log_places_.end() ? translated : command.substr(0, blank + 1) + place->second;
}

void Replayer::Learn(const Recording::Event& event, const std::string& answer) {
  const auto learn = [&](const char* member, std::map<std::string, std::string>* names) {
    const std::string recorded = ResultMember(event.answer, member);
    const std::string here = ResultMember(answer, member);
    if (!recorded.empty() && !here.empty()) (*names)[recorded] = here;
  };
  if (event.command == kLogPlace) learn("last_number", &log_places_);
  // A key cannot be made from a seed.
  if (event.command == "uploads state") learn("thumbprint", &names_);
}

std::string Replayer::Execute(const Recording::Event& event) {
  const std::string command = Translated(event.command);
  const AnswerPart recorded = ComparablePart(event.command, event.answer);
  // What came after it happened in the knowledge of this answer.
  const bool awaited = event.awaited || recorded.only_asks;
  const bool looks = OnlyLooks(event.command);
  const bool patient = looks || recorded.judged;
  const TimePoint latest = Patience(patient ? Duration(kCauseWork) : Duration(kAnswerWork));
  std::string answer = node_.Execute(command);
  const auto differs = [&] {
    if (looks) return WasTaken(event.answer) && !WasTaken(answer);
    return awaited && ComparablePart(event.command, answer).text != recorded.text;
  };
  while (differs() && Clock::Process().Now() < latest) {
    SleepFor(kLook);
    answer = node_.Execute(command);
  }
  return answer;
}

std::vector<Difference> Replayer::AtBorders(const Borders& recorded) {
  // What the last command set off may still be on its way, also what the recorded daemon did not do.
  for (const TimePoint latest = Patience(kCauseWork);;) {
    Borders whole = forgotten_;
    whole.TakeAtRest(node_, latest - Clock::Process().Now());
    std::vector<Difference> differences = recorded.Compare(whole, likeness_);
    if (differences.empty() || Clock::Process().Now() >= latest) return differences;
    SleepFor(kLook);
  }
}

std::vector<Difference> Replayer::Run() {
  begun_ = Clock::Process().Now();
  Borders recorded_answers;
  Borders answers;
  std::vector<Difference> differences;
  for (size_t i = 0; i < recording_.events.size(); ++i) {
    const Recording::Event& event = recording_.events[i];
    if (HasEnded(i)) {
      // Everything that follows from it would only be waited for.
      const std::string end = ResultMember(node_.Execute("daemon/wait 0"), "ended_by");
      differences.push_back(
          {"the daemon has ended", '+',
           (end.empty() ? "it cannot be started" : end) + ", before: " + Short(event.command)});
      ended_ = true;
      break;
    }
    Await(event);
    if (ForgetsBorders(event.command)) forgotten_.TakeForgotten(node_);
    likeness_.Give(Translated(event.command));
    const std::string answer = Execute(event);
    Learn(event, answer);
    if (OnlyLooks(event.command)) continue;
    const std::string group = "answer to: " + Short(event.command);
    const AnswerPart recorded = ComparablePart(event.command, event.answer);
    if (!recorded.judged && WasTaken(answer) == WasTaken(event.answer)) continue;
    recorded_answers.Add(group, recorded.text);
    answers.Add(group, ComparablePart(event.command, answer).text);
  }
  Borders recorded = recording_.borders;
  for (const auto& [name, here] : names_) {
    recorded.Rename(name, here);
    recorded_answers.Rename(name, here);
  }
  const std::vector<Difference> in_answers = recorded_answers.Compare(answers, likeness_);
  differences.insert(differences.end(), in_answers.begin(), in_answers.end());
  const std::vector<Difference> at_borders = AtBorders(recorded);
  differences.insert(differences.end(), at_borders.begin(), at_borders.end());
  return differences;
}

namespace {

// Lines hold bytes of any kind.
std::string Printable(const std::string& text) {
  std::string printable;
  for (const char c : text) {
    if (static_cast<unsigned char>(c) >= ' ' && c != 0x7f) {
      printable.push_back(c);
    } else if (c == '\n') {
      printable += "\\n";
    } else {
      char piece[sizeof("\\xff")];
      std::snprintf(piece, sizeof(piece), "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
      printable += piece;
    }
  }
  return printable;
}

}  // namespace

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
      out << Printable(each.group) << "\n";
    }
    if (++lines > kMostLines) continue;
    if (each.mark == '~') {
      out << "  the same, in another order\n";
    } else {
      out << "  " << each.mark << " " << Printable(each.line) << "\n";
    }
  }
  if (lines > kMostLines) out << "  and " << lines - kMostLines << " more\n";
  if (taken != 0) out << taken << " lines differ as expected\n";
  const std::vector<std::string> unseen = expected.Unseen();
  for (const std::string& text : unseen) out << "expected, and not there: " << text << "\n";
  return groups + unseen.size();
}

}  // namespace zem::sim
