#include "sim/replay/recording.h"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include "sim/control/json.h"

namespace zem::sim {
namespace {

constexpr const char* kKind = "zem-node recording";
constexpr int kVersion = 2;
constexpr int kFastest = 100;
constexpr int64_t kLongestMs = int64_t{31} * 24 * 3600 * 1000;

std::string TextAt(const cJSON* object, const char* name) {
  const cJSON* const member = cJSON_GetObjectItemCaseSensitive(object, name);
  return cJSON_IsString(member) ? member->valuestring : "";
}

// -1 for what is no number of the range.
int64_t NumberOf(const cJSON* member, int64_t most) {
  const bool good =
      cJSON_IsNumber(member) && member->valuedouble >= 0 && member->valuedouble <= static_cast<double>(most);
  return good ? static_cast<int64_t>(member->valuedouble) : -1;
}

int64_t NumberAt(const cJSON* object, const char* name, int64_t most) {
  return NumberOf(cJSON_GetObjectItemCaseSensitive(object, name), most);
}

bool BeginsWithOneOf(const std::string& command, std::initializer_list<const char*> begins) {
  for (const char* const begin : begins) {
    if (command.starts_with(begin)) return true;
  }
  return false;
}

Recording::Event ReadEvent(const cJSON* line) {
  Recording::Event event;
  event.at_ms = NumberAt(line, "at_ms", kLongestMs);
  if (event.at_ms < 0) throw std::runtime_error("\"at_ms\" is no time");
  event.command = TextAt(line, "command");
  event.answer = TextAt(line, "answer");
  event.awaited = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(line, "awaited")) != 0;
  const cJSON* count = nullptr;
  cJSON_ArrayForEach(count, cJSON_GetObjectItemCaseSensitive(line, "seen")) {
    const int64_t number = NumberOf(count, INT32_MAX);
    if (number < 0 || count->string == nullptr) throw std::runtime_error("\"seen\" has no counts");
    event.seen[count->string] = static_cast<size_t>(number);
  }
  return event;
}

}  // namespace

bool WasTaken(const std::string& answer) { return answer.find("\"ok\":true") != std::string::npos; }

bool ShowsState(const std::string& command) {
  return BeginsWithOneOf(command, {"host networks", "store get", "switch/list", "diff"});
}

bool OnlyLooks(const std::string& command) {
  return BeginsWithOneOf(command, {"log", "expect", "show", "daemon/state"});
}

void Recording::Write(const std::string& path) const {
  const std::string draft = path + ".tmp";
  std::ofstream out(draft, std::ios::trunc);
  int64_t lines = 0;
  const auto write = [&](const Json& line) {
    out << JsonText(line.get()) << "\n";
    ++lines;
  };
  Json head = JsonObject();
  AddMember(head.get(), "kind", kKind);
  AddMember(head.get(), "version", kVersion);
  AddMember(head.get(), "clock_factor", clock_factor);
  AddMember(head.get(), "daemon_options", daemon_options);
  AddMember(head.get(), "realization_options", realization_options);
  write(head);
  for (const Event& event : events) {
    Json line = JsonObject();
    AddMember(line.get(), "at_ms", event.at_ms);
    AddMember(line.get(), "command", event.command);
    AddMember(line.get(), "answer", event.answer);
    AddMember(line.get(), "awaited", event.awaited);
    if (!event.seen.empty()) {
      Json seen = JsonObject();
      for (const auto& [group, count] : event.seen)
        AddMember(seen.get(), group.c_str(), static_cast<uint64_t>(count));
      AddMember(line.get(), "seen", std::move(seen));
    }
    write(line);
  }
  for (const auto& [group, texts] : borders.groups()) {
    for (const std::string& text : texts) {
      Json line = JsonObject();
      AddMember(line.get(), "border", group);
      AddMember(line.get(), "line", text);
      write(line);
    }
  }
  Json end = JsonObject();
  AddMember(end.get(), "end", lines);
  write(end);
  out.close();
  if (!out || std::rename(draft.c_str(), path.c_str()) != 0)
    throw std::runtime_error(path + " cannot be written");
}

Recording Recording::Read(const std::string& path) {
  std::ifstream in(path);
  std::string text;
  if (!in || !std::getline(in, text)) throw std::runtime_error(path + " cannot be read");
  const Json head(cJSON_ParseWithLength(text.data(), text.size()));
  if (TextAt(head.get(), "kind") != kKind || NumberAt(head.get(), "version", INT32_MAX) != kVersion) {
    throw std::runtime_error(path + " is no recording of version " + std::to_string(kVersion));
  }
  Recording recording;
  recording.clock_factor = static_cast<int>(NumberAt(head.get(), "clock_factor", kFastest));
  if (recording.clock_factor < 1) throw std::runtime_error(path + " has no clock factor");
  recording.daemon_options = TextAt(head.get(), "daemon_options");
  recording.realization_options = TextAt(head.get(), "realization_options");
  for (int64_t number = 2; std::getline(in, text); ++number) {
    try {
      const Json line(cJSON_ParseWithLength(text.data(), text.size()));
      if (const std::string border = TextAt(line.get(), "border"); !border.empty()) {
        recording.borders.Add(border, TextAt(line.get(), "line"));
      } else if (!TextAt(line.get(), "command").empty()) {
        recording.events.push_back(ReadEvent(line.get()));
      } else if (NumberAt(line.get(), "end", INT32_MAX) == number - 1) {
        if (std::getline(in, text)) throw std::runtime_error("something stands behind the end");
        return recording;
      } else if (cJSON_HasObjectItem(line.get(), "end") != 0) {
        throw std::runtime_error("the end counts another number of lines");
      } else {
        throw std::runtime_error("neither a command nor a border");
      }
    } catch (const std::runtime_error& error) {
      throw std::runtime_error(path + ":" + std::to_string(number) + ": " + error.what());
    }
  }
  throw std::runtime_error(path + " is cut off: its last line is missing");
}

}  // namespace zem::sim
