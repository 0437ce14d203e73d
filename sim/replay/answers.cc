#include "sim/replay/answers.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include "sim/control/json.h"

namespace zem::sim {
namespace {

struct Row {
  std::string_view command;
  bool judged;
  bool only_asks;
  /// Numbers count and measure.
  bool without_numbers;
  /// Of the result; without a first one the whole of it.
  std::array<const char*, 4> members;
};
// The first row whose command begins like it holds.
constexpr std::array kRows = {
    Row{"manager send", true, false, false, {"status", "answer"}},
    Row{"cli get/", true, true, true, {"text"}},
    Row{"cli ", true, false, true, {"text"}},
    Row{"tarvikctl", true, true, false, {"code"}},
    Row{"health/echo", true, true, false, {}},
    Row{"alarm full-sync", true, false, false, {}},
    Row{"alarm sync", true, false, false, {}},
    Row{"alarm status-full-sync", true, false, false, {}},
    Row{"alarm collector/state", false, true, false, {"open", "sources"}},
    Row{"alarm check", false, true, false, {}},
    Row{"inventory state", false, true, false, {"vms", "vnics"}},
    Row{"inventory diff", false, true, false, {}},
    Row{"manager received", false, true, false, {"count"}},
    Row{"uploads state", false, true, false, {"count"}},
    Row{"host networks", false, true, false, {}},
    Row{"host reloads", false, true, false, {}},
    Row{"store get", false, true, false, {}},
    Row{"file/read", false, true, false, {"text"}},
    Row{"host show", false, true, false, {}},
    Row{"switch/list", false, true, false, {}},
    Row{"diff", false, true, false, {}},
};

void DropNumbers(std::string* text) {
  std::string shorter;
  for (const char c : *text) {
    if (std::isdigit(static_cast<unsigned char>(c)) == 0) {
      shorter.push_back(c);
    } else if (shorter.empty() || shorter.back() != '#') {
      shorter.push_back('#');
    }
  }
  *text = std::move(shorter);
}

}  // namespace

bool WasTaken(const std::string& answer) { return answer.find("\"ok\":true") != std::string::npos; }

bool OnlyLooks(const std::string& command) {
  constexpr std::array<std::string_view, 4> kLooks = {"log", "expect", "show", "daemon/state"};
  return std::ranges::any_of(kLooks, [&](std::string_view begin) { return command.starts_with(begin); });
}

AnswerPart ComparablePart(const std::string& command, const std::string& answer) {
  const auto* const row =
      std::ranges::find_if(kRows, [&](const Row& each) { return command.starts_with(each.command); });
  AnswerPart part;
  part.text = WasTaken(answer) ? "taken" : "refused";
  if (row == kRows.end()) return part;
  part.judged = row->judged;
  part.only_asks = row->only_asks;
  const Json parsed(cJSON_ParseWithLength(answer.data(), answer.size()));
  const cJSON* const result = cJSON_GetObjectItemCaseSensitive(parsed.get(), "result");
  if (result == nullptr) {
    const char* const error = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(parsed.get(), "error"));
    if (error != nullptr) part.text += std::string(": ") + error;
  } else if (row->members[0] == nullptr) {
    part.text += " " + JsonText(result);
  } else {
    for (const char* const name : row->members) {
      if (name == nullptr) break;
      const cJSON* const member = cJSON_GetObjectItemCaseSensitive(result, name);
      if (member != nullptr) part.text += std::string(" ") + name + " " + JsonText(member);
    }
  }
  if (row->without_numbers) DropNumbers(&part.text);
  return part;
}

}  // namespace zem::sim
