#include "sim/replay/recording.h"

#include <cstdio>
#include <fstream>
#include <ostream>
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
      recording.events.push_back({NumberAt(line.get(), "at_ms"), command, TextAt(line.get(), "answer")});
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
    const std::string answer = node.Execute(event.command);
    if (OnlyLooks(event.command) || WasTaken(answer) == WasTaken(event.answer)) continue;
    ++differences;
    out << "answer to: " << event.command.substr(0, kMostShown) << "\n  - "
        << event.answer.substr(0, kMostShown) << "\n  + " << answer.substr(0, kMostShown) << "\n";
  }
  borders.Take(node);
  return differences + recording.borders.Compare(borders, out);
}

}  // namespace zem::sim
