#include "sim/replay/recording.h"

#include <cstdio>
#include <fstream>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "platform/core/clock.h"
#include "platform/core/thread.h"
#include "sim/control/json.h"
#include "sim/scenario/control_client.h"

namespace zem::sim {
namespace {

constexpr const char* kKind = "zem-node recording";
constexpr int kVersion = 1;
constexpr size_t kMostShown = 300;
// Of the node's time: how much later than in the recording an awaited answer may come.
constexpr auto kLater = std::chrono::seconds(5);
constexpr auto kLook = std::chrono::milliseconds(20);

std::string TextAt(const cJSON* object, const char* name) {
  const cJSON* const member = cJSON_GetObjectItemCaseSensitive(object, name);
  return cJSON_IsString(member) ? member->valuestring : "";
}

int64_t NumberAt(const cJSON* object, const char* name) {
  const cJSON* const member = cJSON_GetObjectItemCaseSensitive(object, name);
  return cJSON_IsNumber(member) ? static_cast<int64_t>(member->valuedouble) : 0;
}

// Answers hold times and numbers of their life; whether a command was taken does not.
bool WasTaken(const std::string& answer) { return answer.find("\"ok\":true") != std::string::npos; }

// Looks at what the daemon has done by then; the answers have no times in them.
bool ShowsState(const std::string& command) {
  for (const char* const begin : {"host networks", "store get", "switch/list", "diff"}) {
    if (command.starts_with(begin)) return true;
  }
  return false;
}

// What only looks, and is compared at the borders anyway.
bool OnlyLooks(const std::string& command) {
  for (const char* const begin : {"log", "expect", "show", "daemon/state"}) {
    if (command.starts_with(begin)) return true;
  }
  return false;
}

}  // namespace

void Recording::Write(const std::string& path) const {
  const std::string draft = path + ".tmp";
  std::ofstream out(draft, std::ios::trunc);
  Json head = JsonObject();
  AddMember(head.get(), "kind", kKind);
  AddMember(head.get(), "version", kVersion);
  AddMember(head.get(), "clock_factor", clock_factor);
  AddMember(head.get(), "daemon_options", daemon_options);
  AddMember(head.get(), "realization_options", realization_options);
  out << JsonText(head.get()) << "\n";
  for (const Event& event : events) {
    Json line = JsonObject();
    AddMember(line.get(), "at_ms", event.at_ms);
    AddMember(line.get(), "command", event.command);
    AddMember(line.get(), "answer", event.answer);
    AddMember(line.get(), "awaited", event.awaited);
    out << JsonText(line.get()) << "\n";
  }
  for (const auto& [group, lines] : borders.groups()) {
    for (const std::string& text : lines) {
      Json line = JsonObject();
      AddMember(line.get(), "border", group);
      AddMember(line.get(), "line", text);
      out << JsonText(line.get()) << "\n";
    }
  }
  out.close();
  if (!out || std::rename(draft.c_str(), path.c_str()) != 0)
    throw std::runtime_error(path + " cannot be written");
}

Recording Recording::Read(const std::string& path) {
  std::ifstream in(path);
  std::string text;
  if (!in || !std::getline(in, text)) throw std::runtime_error(path + " cannot be read");
  const Json head(cJSON_Parse(text.c_str()));
  if (TextAt(head.get(), "kind") != kKind || NumberAt(head.get(), "version") != kVersion) {
    throw std::runtime_error(path + " is no recording of this version");
  }
  Recording recording;
  recording.clock_factor = static_cast<int>(NumberAt(head.get(), "clock_factor"));
  recording.daemon_options = TextAt(head.get(), "daemon_options");
  recording.realization_options = TextAt(head.get(), "realization_options");
  for (size_t number = 2; std::getline(in, text); ++number) {
    const Json line(cJSON_Parse(text.c_str()));
    if (const std::string command = TextAt(line.get(), "command"); !command.empty()) {
      recording.events.push_back(
          {NumberAt(line.get(), "at_ms"), command, TextAt(line.get(), "answer"),
           cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(line.get(), "awaited")) != 0});
    } else if (const std::string border = TextAt(line.get(), "border"); !border.empty()) {
      recording.borders.Add(border, TextAt(line.get(), "line"));
    } else {
      throw std::runtime_error(path + ":" + std::to_string(number) + " is neither a command nor a border");
    }
  }
  return recording;
}

size_t Replay(const Recording& recording, ControlClient& node, int clock_factor, std::ostream& out) {
  const TimePoint begun = Clock::Process().Now();
  size_t differences = 0;
  Borders borders;
  for (const Recording::Event& event : recording.events) {
    const TimePoint due = begun + std::chrono::milliseconds(event.at_ms) / clock_factor;
    if (const TimePoint now = Clock::Process().Now(); now < due) SleepFor(due - now);
    if (ForgetsBorders(event.command)) borders.Take(node);
    std::string answer = node.Execute(event.command);
    // What came after it happened in the knowledge of this answer.
    const TimePoint latest = Clock::Process().Now() + Duration(kLater) / clock_factor;
    while ((event.awaited || ShowsState(event.command)) && answer != event.answer &&
           Clock::Process().Now() < latest) {
      SleepFor(kLook);
      answer = node.Execute(event.command);
    }
    if (OnlyLooks(event.command) || WasTaken(answer) == WasTaken(event.answer)) continue;
    ++differences;
    out << "answer to: " << event.command.substr(0, kMostShown) << "\n  - "
        << event.answer.substr(0, kMostShown) << "\n  + " << answer.substr(0, kMostShown) << "\n";
  }
  // What the last command set off may still be on its way.
  std::ostringstream found;
  size_t at_borders = 0;
  const TimePoint latest = Clock::Process().Now() + Duration(kLater) / clock_factor;
  for (;;) {
    Borders whole = borders;
    whole.Take(node);
    found.str("");
    at_borders = recording.borders.Compare(whole, found);
    if (at_borders == 0 || Clock::Process().Now() >= latest) break;
    SleepFor(kLook);
  }
  out << found.str();
  return differences + at_borders;
}

}  // namespace zem::sim
