#include "sim/replay/borders.h"

#include <algorithm>
#include <array>
#include <utility>

#include "sim/control/json.h"
#include "sim/scenario/control_client.h"

namespace zem::sim {
namespace {

constexpr const char* kStateFolder = "/etc/orlane/zema";
// Names and times of one life.
constexpr std::array<std::string_view, 1> kOtherFiles = {".tmp"};
constexpr std::array kVerticals = {"SwitchingVertical", "ControllerMgmtVertical"};
constexpr std::array kStoreTypes = {"112", "116", "123", "125"};
constexpr std::string_view kQuestionGroup = ", questions";
constexpr std::array<std::string_view, 7> kQuestions = {"Get", "get", "Is", "Check", "check", "ping", "VM"};

std::string TextOf(const cJSON* object, const char* name) {
  const cJSON* const member = cJSON_GetObjectItemCaseSensitive(object, name);
  if (member == nullptr) return "";
  return cJSON_IsString(member) ? member->valuestring : JsonText(member);
}

Json Ask(ControlClient& node, const std::string& command) {
  Json answer(cJSON_Parse(node.Execute(command).c_str()));
  if (!answer || !cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(answer.get(), "ok"))) return nullptr;
  return Json(cJSON_DetachItemFromObjectCaseSensitive(answer.get(), "result"));
}

bool IsQuestionOfLibrary(const std::string& function) {
  return function.find("Get") != std::string::npos || function.find("Find") != std::string::npos ||
         function.find("List") != std::string::npos;
}

bool IsQuestionOfScript(const std::string& data) {
  return std::ranges::any_of(kQuestions, [&](std::string_view begin) { return data.starts_with(begin); });
}

// The lines of `left` that `right` has not as often.
std::vector<std::string> Missing(const std::vector<std::string>& left,
                                 const std::vector<std::string>& right) {
  std::map<std::string, long> counts;
  for (const std::string& line : right) ++counts[line];
  std::vector<std::string> missing;
  for (const std::string& line : left) {
    if (--counts[line] < 0) missing.push_back(line);
  }
  return missing;
}

}  // namespace

bool ForgetsBorders(std::string_view command) {
  return command.starts_with("switch/clear-logs") || command.starts_with("switch/reboot");
}

void Borders::Take(ControlClient& node) {
  TakeActions(node);
  TakeObjects(node);
  TakeFiles(node);
}

void Borders::TakeActions(ControlClient& node) {
  TakeCalls(node);
  TakeCommands(node);
  TakeMessages(node);
}

void Borders::TakeForgotten(ControlClient& node) { TakeCalls(node); }

Borders::Counts Borders::Actions(ControlClient& node) const {
  Borders now;
  now.TakeActions(node);
  Counts counts;
  for (const Groups* const groups : {&groups_, &std::as_const(now.groups_)}) {
    for (const auto& [group, lines] : *groups) {
      if (!group.ends_with(kQuestionGroup)) counts[group] += lines.size();
    }
  }
  return counts;
}

void Borders::AddQuestion(const std::string& group, std::string line) {
  std::vector<std::string>& lines = groups_[group + std::string(kQuestionGroup)];
  if (std::ranges::find(lines, line) == lines.end()) lines.push_back(std::move(line));
}

void Borders::TakeCalls(ControlClient& node) {
  const Json calls = Ask(node, "switch/calls");
  const cJSON* call = nullptr;
  cJSON_ArrayForEach(call, calls.get()) {
    const std::string function = TextOf(call, "function");
    const std::string property = TextOf(call, "prop");
    const std::string group = "library " + TextOf(call, "sw") + " " + TextOf(call, "port");
    std::string line = function + (property.empty() ? "" : " " + property) + " -> " + TextOf(call, "result");
    // Objects in memory alone; those on the node have a switch.
    if (TextOf(call, "sw").empty()) continue;
    if (IsQuestionOfLibrary(function)) {
      AddQuestion(group, std::move(line));
    } else {
      Add(group, line + ", " + TextOf(call, "length") + " bytes");
    }
  }
}

void Borders::TakeCommands(ControlClient& node) {
  const Json frames = Ask(node, "host frames 100000");
  const cJSON* frame = nullptr;
  cJSON_ArrayForEach(frame, frames.get()) {
    const std::string data = TextOf(frame, "data");
    std::string line = TextOf(frame, "operation") + " " + data + " -> " + TextOf(frame, "status") + " " +
                       TextOf(frame, "reply");
    // Different commands come from different threads.
    const std::string name = data.substr(0, data.find('('));
    const std::string group = "script " + (name.size() < data.size() ? name : TextOf(frame, "operation"));
    if (IsQuestionOfScript(data)) {
      AddQuestion(group, std::move(line));
    } else {
      Add(group, std::move(line));
    }
  }
}

void Borders::TakeMessages(ControlClient& node) {
  for (const char* const vertical : kVerticals) {
    const Json received = Ask(node, std::string("manager received ") + vertical);
    const cJSON* message = nullptr;
    cJSON_ArrayForEach(message, cJSON_GetObjectItemCaseSensitive(received.get(), "messages")) {
      Add(std::string("manager ") + vertical, TextOf(message, "type") + " " + TextOf(message, "message"));
    }
  }
}

void Borders::TakeObjects(ControlClient& node) {
  for (const char* const type : kStoreTypes) {
    const Json objects = Ask(node, std::string("store get ") + type);
    const cJSON* object = nullptr;
    cJSON_ArrayForEach(object, objects.get()) Add(std::string("store ") + type, TextOf(object, "object"));
  }
}

void Borders::TakeFiles(ControlClient& node) {
  const Json names = Ask(node, std::string("file/list ") + kStateFolder);
  const cJSON* name = nullptr;
  cJSON_ArrayForEach(name, names.get()) {
    if (!cJSON_IsString(name)) continue;
    const std::string_view text = name->valuestring;
    if (std::ranges::any_of(kOtherFiles, [&](std::string_view end) { return text.ends_with(end); })) continue;
    std::string path = kStateFolder;
    path.append("/").append(name->valuestring);
    const Json content = Ask(node, "file/read --hex " + path);
    if (content) Add("file " + path, JsonText(content.get()));
  }
}

std::vector<Difference> Borders::Compare(const Borders& other) const {
  Groups all = groups_;
  for (const auto& [name, lines] : other.groups_) all.try_emplace(name);
  std::vector<Difference> differences;
  for (const auto& [name, unused] : all) {
    static const std::vector<std::string> kNone;
    const auto mine = groups_.find(name);
    const auto theirs = other.groups_.find(name);
    const std::vector<std::string>& left = mine == groups_.end() ? kNone : mine->second;
    const std::vector<std::string>& right = theirs == other.groups_.end() ? kNone : theirs->second;
    const std::vector<std::string> gone = Missing(left, right);
    const std::vector<std::string> added = Missing(right, left);
    for (const std::string& line : gone) differences.push_back({name, '-', line});
    for (const std::string& line : added) differences.push_back({name, '+', line});
    if (gone.empty() && added.empty() && !name.ends_with(kQuestionGroup) && left != right) {
      differences.push_back({name, '~', {}});
    }
  }
  return differences;
}

}  // namespace zem::sim
