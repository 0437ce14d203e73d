// The peers keep what came over each border.  A row says which of their commands shows it, and how much of it
// two lives of a daemon have in common; what differs from life to life (times, process ids, how messages are
// put together into batches) is left out here, as far as it has a name.

#include "sim/replay/border_table.h"

#include <algorithm>
#include <array>
#include <map>
#include <utility>
#include <vector>

#include "sim/control/json.h"
#include "sim/scenario/control_client.h"

namespace zem::sim {
namespace {

using Kind = BorderKind;

struct Row {
  Kind kind;
  const char* command;
  /// The list in the answer; empty for the answer itself.  Members of an object are lines that begin with
  /// their names.
  const char* list;
  /// "{NAME}" stands for a member of the line's object.
  const char* group;
  /// Members, of the list or of its items, that differ in every life or that are in the group's name.
  std::vector<std::string_view> left_out;
};

const std::vector<Row>& Rows() {
  static const std::vector<Row> rows = {
      {Kind::kQuestion, "store reads", "", "store {call}", {"call"}},
      {Kind::kAction, "dataplane received", "frames", "dataplane", {"number"}},
      {Kind::kAction, "alarm collector/changes", "", "alarm {feature}/{type}", {"source", "feature", "type"}},
      {Kind::kState, "alarm collector/state", "open", "alarms that stand", {}},
      {Kind::kState, "alarm collector/state", "sources", "alarm sources", {}},
      {Kind::kState, "inventory state", "vms", "inventory of VMs", {}},
      {Kind::kState, "inventory state", "vnics", "inventory of vNICs", {}},
      {Kind::kQuestion, "inventory requests", "", "inventory daemon", {}},
      {Kind::kAction, "corvd/answers", "list", "host management {op_id}", {"op_id", "connection"}},
      {Kind::kAction, "host reloads 10000", "reloads", "controllers' file", {}},
      {Kind::kQuestion, "host resync-runs 10000", "runs", "resync script", {"start", "end"}},
      {Kind::kAction, "bundle runs", "runs", "script {script}", {"script", "pid"}},
      {Kind::kAction, "uploads state", "uploads", "uploads", {"file"}},
      {Kind::kState, "mux show", "configurations", "guests' multiplexer", {}},
      {Kind::kState, "fw show", "connections", "firewall connections", {}},
      {Kind::kState, "fw show", "memberships", "firewall memberships", {}},
      {Kind::kState,
       "ids received",
       "",
       "intrusion detection",
       {"messages", "entries", "pcap_messages", "newest"}},
      {Kind::kAction, "ids logger/lines 10000", "", "external log", {}},
      {Kind::kState, "violations", "", "rules broken", {}},
  };
  return rows;
}

// Messages of one kind that need not come in an order, and those that follow the pace.
struct MessageRow {
  std::string_view vertical;
  std::string_view type;
  enum class Use {
    kOrderIn,  // order means something among those with the same `member`
    kOnce,     // they come again and again
    kOff,      // their number and content follow the pace
  } use;
  std::string_view member;
};
constexpr std::array kMessages = {
    // One each for a port; ports are attached side by side.
    MessageRow{"SwitchingVertical", "VifMsg", MessageRow::Use::kOrderIn, "vif_id"},
    // Each observation is told several times, by a timer of its own.
    MessageRow{"Traceflow", "TraceflowPacketInRequestMsg", MessageRow::Use::kOrderIn, "sequence"},
    MessageRow{"ZEM-IpReputationEventService", "IpReputationEventRequestMsg", MessageRow::Use::kOnce, ""},
    // Events wait for a batch; "alarm ..." has each of them.
    MessageRow{"AlarmsProvider", "CollectorMpMsg", MessageRow::Use::kOff, ""},
    // Logons and alerts, too: "logons ..." and "intrusion detection".
    MessageRow{"IDFW-Vertical", "LoginLogoffEventMsg", MessageRow::Use::kOff, ""},
    MessageRow{"ZEM-IntrusionServices", "EventInfoMsg", MessageRow::Use::kOff, ""},
    MessageRow{"ZEM-IdsPcapService", "PcapInfoMsg", MessageRow::Use::kOff, ""},
    // Changes wait for a batch; "inventory ..." has what they come to.
    MessageRow{"INVENTORY_DISCOVERY_APPLICATION", "IdaMessage", MessageRow::Use::kOff, ""},
};

// A full sync writes these again, and how often there is one depends on the pace.
constexpr std::array<std::string_view, 2> kWrittenAgain = {"VM_CONFIG", "DA_VIF"};

constexpr std::array kFolders = {"/etc/orlane/zema", "/var/run/orlane/zem-monitoring",
                                 "/var/run/orlane/zem-central-config"};
constexpr std::array kFiles = {"/etc/orlane/zem/controller-info.xml"};
// Names and times of one life.
constexpr std::array<std::string_view, 1> kOtherFiles = {".tmp"};
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

std::string GroupOf(const char* form, const cJSON* item) {
  std::string group;
  std::string_view left = form;
  for (size_t begin = left.find('{'); begin != std::string_view::npos; begin = left.find('{')) {
    const size_t end = left.find('}', begin);
    const std::string name(left.substr(begin + 1, end - begin - 1));
    group.append(left.substr(0, begin)).append(TextOf(item, name.c_str()));
    left.remove_prefix(end + 1);
  }
  return group.append(left);
}

void ReadRow(ControlClient& node, const Row& row, const BorderReader& read) {
  const Json result = Ask(node, row.command);
  const cJSON* const list =
      *row.list == '\0' ? result.get() : cJSON_GetObjectItemCaseSensitive(result.get(), row.list);
  const cJSON* item = nullptr;
  cJSON_ArrayForEach(item, list) {
    if (item->string != nullptr &&
        std::ranges::find(row.left_out, std::string_view(item->string)) != row.left_out.end())
      continue;
    const Json copy(cJSON_Duplicate(item, true));
    const std::string group = GroupOf(row.group, copy.get());
    for (const std::string_view name : row.left_out)
      cJSON_DeleteItemFromObjectCaseSensitive(copy.get(), std::string(name).c_str());
    std::string line = cJSON_IsString(copy.get()) ? copy->valuestring : JsonText(copy.get());
    if (item->string != nullptr) line = std::string(item->string) + " " + line;
    read(row.kind, group, std::move(line));
  }
}

void ReadCommands(ControlClient& node, const BorderReader& read) {
  const Json frames = Ask(node, "host frames 100000");
  const cJSON* frame = nullptr;
  cJSON_ArrayForEach(frame, frames.get()) {
    const std::string data = TextOf(frame, "data");
    std::string line = TextOf(frame, "operation") + " " + data + " -> " + TextOf(frame, "status") + " " +
                       TextOf(frame, "reply");
    // Different commands come from different threads.
    const std::string name = data.substr(0, data.find('('));
    const std::string group = "script " + (name.size() < data.size() ? name : TextOf(frame, "operation"));
    read(IsQuestionOfScript(data) ? Kind::kQuestion : Kind::kAction, group, std::move(line));
  }
}

// The first member of this name, wherever it is.
const cJSON* Find(const cJSON* object, const std::string& name) {
  if (cJSON_IsObject(object)) {
    if (const cJSON* const member = cJSON_GetObjectItemCaseSensitive(object, name.c_str())) return member;
  }
  const cJSON* item = nullptr;
  cJSON_ArrayForEach(item, object) {
    if (const cJSON* const member = Find(item, name)) return member;
  }
  return nullptr;
}

// Messages of different kinds come from different threads.
void ReadMessages(ControlClient& node, const BorderReader& read) {
  const Json received = Ask(node, "manager received all");
  const cJSON* message = nullptr;
  cJSON_ArrayForEach(message, cJSON_GetObjectItemCaseSensitive(received.get(), "messages")) {
    const std::string vertical = TextOf(message, "vertical");
    const std::string whole = TextOf(message, "type");
    const std::string type = whole.substr(whole.find_last_of('.') + 1);
    std::string group = "manager " + vertical + " " + type;
    const auto* const row = std::ranges::find_if(
        kMessages, [&](const MessageRow& each) { return each.vertical == vertical && each.type == type; });
    if (row != kMessages.end()) {
      if (row->use == MessageRow::Use::kOff) continue;
      const cJSON* const member = Find(message, std::string(row->member));
      if (member != nullptr)
        group += " " + (cJSON_IsString(member) ? std::string(member->valuestring) : JsonText(member));
    }
    const bool once = row != kMessages.end() && row->use == MessageRow::Use::kOnce;
    read(once ? Kind::kQuestion : Kind::kAction, group,
         TextOf(message, "kind") + " " + TextOf(message, "message"));
  }
}

// How the events of a guest are put together into batches depends on the pace.
void ReadLogons(ControlClient& node, const BorderReader& read) {
  const Json batches = Ask(node, "idfw batches 100000");
  const cJSON* batch = nullptr;
  cJSON_ArrayForEach(batch, batches.get()) {
    const cJSON* event = nullptr;
    cJSON_ArrayForEach(event, cJSON_GetObjectItemCaseSensitive(batch, "events")) {
      const Json copy(cJSON_Duplicate(event, true));
      cJSON_DeleteItemFromObjectCaseSensitive(copy.get(), "timestamp");
      read(Kind::kAction, "logons " + TextOf(event, "vm"), JsonText(copy.get()));
    }
  }
}

void ReadStoreChanges(ControlClient& node, const BorderReader& read) {
  std::map<std::string, std::string> last;
  const Json changes = Ask(node, "store changes");
  const cJSON* change = nullptr;
  cJSON_ArrayForEach(change, changes.get()) {
    const std::string type = TextOf(change, "type");
    const std::string group = "store changes " + type + " " + TextOf(change, "key");
    const std::string vdbs = TextOf(change, "vdbs");
    std::string line =
        TextOf(change, "change") + " " + (vdbs == "[]" ? "" : vdbs + " ") + TextOf(change, "object");
    if (std::ranges::find(kWrittenAgain, type) != kWrittenAgain.end() &&
        std::exchange(last[group], line) == line)
      continue;
    read(Kind::kAction, group, std::move(line));
  }
}

void ReadObjects(ControlClient& node, const BorderReader& read) {
  const Json types = Ask(node, "store list");
  const cJSON* type = nullptr;
  cJSON_ArrayForEach(type, types.get()) {
    const std::string vdb = TextOf(type, "vdb");
    const Json objects = Ask(node, "store get " + TextOf(type, "type") + "@" + vdb);
    const std::string group = "store " + TextOf(type, "name") + (vdb == "1" ? "" : " of vdb " + vdb);
    const cJSON* object = nullptr;
    cJSON_ArrayForEach(object, objects.get()) read(Kind::kState, group, TextOf(object, "object"));
  }
}

void ReadFile(ControlClient& node, const std::string& path, const BorderReader& read) {
  const Json content = Ask(node, "file/read --hex " + path);
  if (content) read(Kind::kState, "file " + path, JsonText(content.get()));
}

void ReadFiles(ControlClient& node, const BorderReader& read) {
  for (const char* const folder : kFolders) {
    const Json names = Ask(node, std::string("file/list ") + folder);
    const cJSON* name = nullptr;
    cJSON_ArrayForEach(name, names.get()) {
      if (!cJSON_IsString(name)) continue;
      const std::string_view text = name->valuestring;
      if (std::ranges::any_of(kOtherFiles, [&](std::string_view end) { return text.ends_with(end); }))
        continue;
      ReadFile(node, std::string(folder) + "/" + name->valuestring, read);
    }
  }
  for (const char* const file : kFiles) ReadFile(node, file, read);
}

}  // namespace

bool ForgetsBorders(std::string_view command) {
  return command.starts_with("switch/clear-logs") || command.starts_with("switch/reboot");
}

void KeepBorders(ControlClient& node) { node.Execute("store calls/keep 100000"); }

void ReadLibraryCalls(ControlClient& node, const BorderReader& read) {
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
      read(Kind::kQuestion, group, std::move(line));
    } else {
      read(Kind::kAction, group, line + ", " + TextOf(call, "length") + " bytes");
    }
  }
}

void ReadBorders(ControlClient& node, bool actions_alone, const BorderReader& read) {
  const BorderReader wanted = [&](Kind kind, const std::string& group, std::string line) {
    if (!actions_alone || kind == Kind::kAction) read(kind, group, std::move(line));
  };
  ReadLibraryCalls(node, wanted);
  ReadCommands(node, wanted);
  ReadMessages(node, wanted);
  ReadStoreChanges(node, wanted);
  ReadLogons(node, wanted);
  for (const Row& row : Rows()) {
    if (!actions_alone || row.kind == Kind::kAction) ReadRow(node, row, wanted);
  }
  if (actions_alone) return;
  ReadObjects(node, wanted);
  ReadFiles(node, wanted);
}

}  // namespace zem::sim
