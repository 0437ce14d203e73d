// The store's command table.  Types are names or numbers; "@VDB" after a type selects a vdb other than 1.

#include <algorithm>
#include <cctype>
#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>

#include "proto/covedb/runtime_objects.pb.h"
#include "sim/control/command_table.h"
#include "sim/control/hex.h"
#include "sim/control/number.h"
#include "sim/store/logical_switches.h"
#include "sim/store/store_daemon.h"

namespace zem::sim {
namespace {

namespace proto = orlane::zem::covedb;
using rpc::Status;

constexpr int64_t kMostKept = 100'000;

// The text of an exception becomes the error in the answer.
[[noreturn]] void Refuse(const std::string& text) { throw std::invalid_argument(text); }

int64_t ParseNumber(const std::string& text, int64_t least, int64_t most) {
  const auto number = NumberOf<int64_t>(text);
  if (!number || *number < least || *number > most) {
    Refuse("\"" + text + "\" is no number from " + std::to_string(least) + " to " + std::to_string(most));
  }
  return *number;
}

uint32_t ParseVDb(const std::string& text) { return static_cast<uint32_t>(ParseNumber(text, 1, UINT16_MAX)); }

struct Place {
  ObjectType type;
  uint32_t vdb_id;
};

ObjectType ParseType(const std::string& text) {
  const std::optional<ObjectType> type = ParseObjectType(text);
  if (!type || *type == ObjectType::OBJECT_TYPE_NONE) Refuse("no object type \"" + text + "\"");
  return *type;
}

Place ParsePlace(const std::string& text) {
  const size_t at = text.find('@');
  Place place{ParseType(text.substr(0, at)), ObjectStore::kDefaultVDb};
  if (at != std::string::npos) place.vdb_id = ParseVDb(text.substr(at + 1));
  return place;
}

void Answer(const Reply& reply, const Status& status) {
  if (status.ok()) {
    reply.Ok();
  } else {
    reply.Fail(status.ToString());
  }
}

class StoreCommands {
 public:
  StoreCommands(StoreDaemon& daemon, const ObjectRegistry& registry) : daemon_(daemon), registry_(registry) {}

  void Register(CommandTable& table) const {
    const StoreCommands& c = *this;
    using A = const Arguments&;
    using R = const Reply&;
    table.Register({"put", "TYPE[@VDB] OBJECT", "Sets an object.", 2, 2,
                    [c](A a, R r) { c.Change(&proto::ModifyMsg::mutable_put_msg, a, r); }, true});
    table.Register({"patch", "TYPE[@VDB] OBJECT", "Merges into an object, or makes it.", 2, 2,
                    [c](A a, R r) { c.Change(&proto::ModifyMsg::mutable_patch_msg, a, r); }, true});
    table.Register({"delete", "TYPE[@VDB] OBJECT", "Removes the object that has the key of OBJECT.", 2, 2,
                    [c](A a, R r) { c.Change(&proto::ModifyMsg::mutable_delete_msg, a, r); }, true});
    table.Register(
        {"flush", "TYPE[@VDB]", "Removes all objects of a type.", 1, 1, [c](A a, R r) { c.Flush(a, r); }});
    table.Register({"copy", "TYPE[@VDB] TO_VDB [OBJECT]",
                    "Copies all objects of a type, or one, to another vdb.", 2, 3,
                    [c](A a, R r) { c.Copy(a, r); }, true});
    table.Register({"modify", "REQUEST",
                    "Makes the changes of a ModifyRequestMsg (text format) as one batch.", 1, 1,
                    [c](A a, R r) { c.Modify(a, r); }, true});
    table.Register(
        {"transaction", "BARRIER [TYPE OBJECT]",
         "Sets an object and the controller's barrier as one batch; PROCESSED_BARRIER then tells how far the "
         "agent has come.",
         1, 3, [c](A a, R r) { c.Transaction(a, r); }, true});
    table.Register({"switches/put", "COUNT BARRIER [FIRST [ZONES [REVISION]]]",
                    "Sets the transport node, so many logical switches (\"ls-FIRST\" and on) and a barrier "
                    "as one batch.",
                    2, 5, [c](A a, R r) { c.PutSwitches(a, r); }});
    table.Register({"switches/delete", "COUNT BARRIER [FIRST]",
                    "Removes logical switches that switches/put has set, with a barrier, as one batch.", 2, 3,
                    [c](A a, R r) { c.DeleteSwitches(a, r); }});
    table.Register({"get", "TYPE[@VDB] [OBJECT]",
                    "Shows all objects of a type, or the one that has the key of OBJECT.", 1, 2,
                    [c](A a, R r) { c.Get(a, r); }, true});
    table.Register({"query", "TYPE[@VDB] PATH OPERATOR VALUE", "Shows the objects that meet a condition.", 4,
                    4, [c](A a, R r) { c.Query(a, r); }, true});
    table.Register(
        {"list", "", "Shows how many objects there are, by vdb and type.", 0, 0, [c](A, R r) { c.List(r); }});
    table.Register({"vdb/list", "", "Shows the vdbs.", 0, 0, [c](A, R r) { c.ListVDbs(r); }});
    table.Register({"vdb/create", "NAME", "Makes a vdb.", 1, 1, [c](A a, R r) { c.CreateVDb(a, r); }});
    table.Register({"vdb/delete", "NAME", "Deletes a vdb and ends its monitors with status 9.", 1, 1,
                    [c](A a, R r) { Answer(r, c.daemon_.store().DeleteVDb(a[0])); }});
    table.Register({"monitors", "", "Shows the monitor streams.", 0, 0, [c](A, R r) { c.ListMonitors(r); }});
    table.Register({"barrier", "[VDB]", "Sends the barrier mark alone to the monitors of a vdb.", 0, 1,
                    [c](A a, R r) { c.Barrier(a, r); }});
    table.Register(
        {"calls", "[METHOD [COUNT]]",
         "Shows how many calls came, by method; or the newest COUNT requests (10) of one that were kept, "
         "oldest first, as they came.",
         0, 2, [c](A a, R r) { a.empty() ? c.Calls(r) : c.CallsKept(a, r); }});
    table.Register(
        {"changes", "[COUNT]",
         "Shows the objects that the newest COUNT (100000) kept Modify requests change, oldest first.", 0, 1,
         [c](A a, R r) { c.Changes(a, r); }});
    table.Register({"reads", "[COUNT]",
                    "Shows what the newest COUNT (100000) kept requests of each reading call asked for.", 0,
                    1, [c](A a, R r) { c.Reads(a, r); }});
    table.Register({"calls/keep", "COUNT", "Keeps so many requests of each method from now on; 0 is none.", 1,
                    1, [c](A a, R r) { c.CallsKeep(a, r); }});
    table.Register({"schema", "[VERSION [LAST_TYPE]]", "Sets and shows what the schema calls tell.", 0, 2,
                    [c](A a, R r) { c.Schema(a, r); }});
    table.Register({"fault/status", "METHOD CODE [COUNT]",
                    "Ends the next COUNT calls (1; -1 is all) with a status; code 0 ends it.", 2, 3,
                    [c](A a, R r) { c.FaultStatus(a, r); }});
    table.Register({"fault/delay", "METHOD MILLISECONDS", "Serves calls so much later.", 2, 2,
                    [c](A a, R r) { c.FaultDelay(a, r); }});
    table.Register(
        {"fault/garbage", "Get|Query|Monitor [COUNT]",
         "Puts bytes that are no message in place of values: answers of Get and Query, updates of Monitor.",
         1, 2, [c](A a, R r) { c.FaultGarbage(a, r); }});
    table.Register({"fault/freeze", "on|off", "Takes calls and does not serve them.", 1, 1,
                    [c](A a, R r) { c.FaultFreeze(a, r); }});
    table.Register({"fault/end", "CODE [MONITOR]", "Ends the monitor streams, or one, with a status.", 1, 2,
                    [c](A a, R r) { c.EndStreams(a, r); }});
    table.Register({"fault/drop", "",
                    "Drops all connections; clients may come back at once, unless listening is off.", 0, 0,
                    [c](A, R r) {
                      c.daemon_.DropConnections();
                      r.Ok();
                    }});
    table.Register({"fault/listen", "on|off", "While off nobody reaches the store.", 1, 1,
                    [c](A a, R r) { c.FaultListen(a, r); }});
    table.Register({"fault/clear", "", "Ends all faults.", 0, 0, [c](A, R r) { c.FaultClear(r); }});
  }

 private:
  std::string Object(ObjectType type, const std::string& text) const {
    std::string error;
    std::optional<std::string> object = registry_.FromText(type, text, &error);
    if (!object) Refuse("the object does not read: " + error);
    return std::move(*object);
  }

  // Put, patch and delete differ only in the member that they set.
  template <class Message>
  void Change(Message* (proto::ModifyMsg::*member)(), const Arguments& arguments, const Reply& reply) const {
    const Place place = ParsePlace(arguments[0]);
    proto::ModifyRequestMsg request;
    Message& message = *(request.add_modify_msg()->*member)();
    message.set_object_type(place.type);
    message.set_object(Object(place.type, arguments[1]));
    message.add_vdb_id(place.vdb_id);
    Answer(reply, daemon_.store().Modify({request}));
  }

  void Flush(const Arguments& arguments, const Reply& reply) const {
    const Place place = ParsePlace(arguments[0]);
    proto::ModifyRequestMsg request;
    proto::FlushMsg& flush = *request.add_modify_msg()->mutable_flush_msg();
    flush.set_object_type(place.type);
    flush.add_vdb_id(place.vdb_id);
    Answer(reply, daemon_.store().Modify({request}));
  }

  void Copy(const Arguments& arguments, const Reply& reply) const {
    const Place source = ParsePlace(arguments[0]);
    proto::ModifyRequestMsg request;
    proto::CopyMsg& copy = *request.add_modify_msg()->mutable_copy_msg();
    copy.set_object_type(source.type);
    copy.set_source_vdb_id(source.vdb_id);
    copy.add_vdb_id(ParseVDb(arguments[1]));
    if (arguments.size() > 2) copy.set_object(Object(source.type, arguments[2]));
    Answer(reply, daemon_.store().Modify({request}));
  }

  void Modify(const Arguments& arguments, const Reply& reply) const {
    proto::ModifyRequestMsg request;
    std::string error;
    if (!ParseMessageText(arguments[0], &request, &error)) Refuse("no ModifyRequestMsg: " + error);
    Answer(reply, daemon_.store().Modify({request}));
  }

  // Writes an object, followed by the controller's barrier, in one transaction.
  void Transaction(const Arguments& arguments, const Reply& reply) const {
    proto::ModifyRequestMsg request;
    const auto add = [&request](ObjectType type, std::string object) {
      proto::PutMsg& put = *request.add_modify_msg()->mutable_put_msg();
      put.set_object_type(type);
      put.set_object(std::move(object));
    };
    proto::BarrierMsg barrier;
    barrier.set_value(static_cast<uint64_t>(ParseNumber(arguments[0], 0, INT64_MAX)));
    if (arguments.size() == 2) Refuse("an object needs its type and its text");
    if (arguments.size() > 2) {
      const ObjectType type = ParseType(arguments[1]);
      add(type, Object(type, arguments[2]));
    }
    add(ObjectType::BARRIER, barrier.SerializeAsString());
    Answer(reply, daemon_.store().Modify({request}));
  }

  static SwitchRange ParseRange(const Arguments& arguments) {
    SwitchRange range;
    const auto number = [&arguments](size_t i, uint32_t otherwise, int64_t least) {
      return arguments.size() > i ? static_cast<uint32_t>(ParseNumber(arguments[i], least, 1'000'000))
                                  : otherwise;
    };
    range.count = number(0, 0, 1);
    range.first = number(2, range.first, 1);
    range.zones = number(3, range.zones, 1);
    range.revision = static_cast<int32_t>(number(4, 1, 0));
    return range;
  }
  static uint64_t ParseBarrier(const Arguments& arguments) {
    return static_cast<uint64_t>(ParseNumber(arguments[1], 0, INT64_MAX));
  }

  void PutSwitches(const Arguments& arguments, const Reply& reply) const {
    Answer(reply, daemon_.store().Modify(
                      {PutLogicalSwitches(ParseRange(arguments), ParseBarrier(arguments), true)}));
  }

  void DeleteSwitches(const Arguments& arguments, const Reply& reply) const {
    Answer(reply,
           daemon_.store().Modify({DeleteLogicalSwitches(ParseRange(arguments), ParseBarrier(arguments))}));
  }

  void Get(const Arguments& arguments, const Reply& reply) const {
    const Place place = ParsePlace(arguments[0]);
    proto::GetRequestMsg request;
    proto::GetResponseMsg response;
    request.set_vdb_id(place.vdb_id);
    proto::ObjectRequestMsg& wanted = *request.add_object_request();
    wanted.set_object_type(place.type);
    if (arguments.size() > 1) wanted.set_object(Object(place.type, arguments[1]));
    ShowObjects(daemon_.store().Get(request, &response), response, reply);
  }

  void Query(const Arguments& arguments, const Reply& reply) const {
    const Place place = ParsePlace(arguments[0]);
    proto::QueryRequestMsg request;
    proto::QueryResponseMsg response;
    request.set_vdb_id(place.vdb_id);
    request.mutable_statement()->set_object_type(place.type);
    proto::WhereMsg& where = *request.mutable_statement()->add_where();
    where.set_path(arguments[1]);
    proto::WhereMsg::Operator op;
    if (!proto::WhereMsg::Operator_Parse(arguments[2], &op)) {
      Refuse("no operator \"" + arguments[2] + "\": EQUAL, NOT_EQUAL, LESS, GREATER or PREFIX");
    }
    where.set_op(op);
    where.set_value(arguments[3]);
    ShowObjects(daemon_.store().Query(request, &response), response, reply);
  }

  template <class Response>
  void ShowObjects(const Status& status, const Response& response, const Reply& reply) const {
    if (!status.ok()) return reply.Fail(status.ToString());
    Json list = JsonArray();
    for (const proto::TypedObjectMsg& object : response.object()) {
      Json entry = JsonObject();
      AddMember(entry.get(), "type", static_cast<int>(object.object_type()));
      AddMember(entry.get(), "name", ObjectType_Name(object.object_type()));
      AddMember(entry.get(), "object", registry_.ToText(object.object_type(), object.object()));
      AddItem(list.get(), std::move(entry));
    }
    reply.Ok(std::move(list));
  }

  void List(const Reply& reply) const {
    Json list = JsonArray();
    for (const Store::TypeCount& count : daemon_.store().Counts()) {
      Json entry = JsonObject();
      AddMember(entry.get(), "vdb", static_cast<int>(count.vdb_id));
      AddMember(entry.get(), "type", static_cast<int>(count.type));
      AddMember(entry.get(), "name", ObjectType_Name(count.type));
      AddMember(entry.get(), "objects", static_cast<uint64_t>(count.objects));
      AddItem(list.get(), std::move(entry));
    }
    reply.Ok(std::move(list));
  }

  void ListVDbs(const Reply& reply) const {
    Json list = JsonArray();
    for (const auto& [id, name] : daemon_.store().VDbs()) {
      Json entry = JsonObject();
      AddMember(entry.get(), "vdb", static_cast<int>(id));
      AddMember(entry.get(), "name", name);
      AddItem(list.get(), std::move(entry));
    }
    reply.Ok(std::move(list));
  }

  void CreateVDb(const Arguments& arguments, const Reply& reply) const {
    uint16_t vdb_id = 0;
    const Status status = daemon_.store().CreateVDb(arguments[0], &vdb_id);
    if (!status.ok()) return reply.Fail(status.ToString());
    Json result = JsonObject();
    AddMember(result.get(), "vdb", static_cast<int>(vdb_id));
    reply.Ok(std::move(result));
  }

  void ListMonitors(const Reply& reply) const {
    Json list = JsonArray();
    for (const MonitorInfo& info : daemon_.store().streams().List()) {
      Json entry = JsonObject();
      AddMember(entry.get(), "monitor", info.monitor_id);
      AddMember(entry.get(), "client", info.client_id);
      AddMember(entry.get(), "vdb", static_cast<int>(info.vdb_id));
      Json types = JsonArray();
      for (const ObjectType type : info.types) AddItem(types.get(), ObjectType_Name(type));
      AddMember(entry.get(), "types", std::move(types));
      AddMember(entry.get(), "updates", info.updates);
      AddMember(entry.get(), "behind_bytes", static_cast<uint64_t>(info.behind_bytes));
      AddItem(list.get(), std::move(entry));
    }
    reply.Ok(std::move(list));
  }

  static void ReplyCount(const Reply& reply, size_t streams) {
    Json result = JsonObject();
    AddMember(result.get(), "streams", static_cast<uint64_t>(streams));
    reply.Ok(std::move(result));
  }

  void Barrier(const Arguments& arguments, const Reply& reply) const {
    const uint32_t vdb = arguments.empty() ? ObjectStore::kDefaultVDb : ParseVDb(arguments[0]);
    ReplyCount(reply, daemon_.store().streams().SendBarrier(static_cast<uint16_t>(vdb)));
  }

  void EndStreams(const Arguments& arguments, const Reply& reply) const {
    const int code = static_cast<int>(ParseNumber(arguments[0], 1, UINT16_MAX));
    const std::string monitor = arguments.size() > 1 ? arguments[1] : std::string();
    ReplyCount(reply, daemon_.store().streams().End(monitor, Status(code, "as the fault says")));
  }

  void FaultStatus(const Arguments& arguments, const Reply& reply) const {
    const int code = static_cast<int>(ParseNumber(arguments[1], 0, UINT16_MAX));
    const int count = arguments.size() > 2 ? static_cast<int>(ParseNumber(arguments[2], -1, INT32_MAX)) : 1;
    daemon_.faults().SetStatus(arguments[0], code, count);
    reply.Ok();
  }

  void FaultDelay(const Arguments& arguments, const Reply& reply) const {
    daemon_.faults().SetDelay(arguments[0],
                              std::chrono::milliseconds(ParseNumber(arguments[1], 0, 86'400'000)));
    reply.Ok();
  }

  void FaultGarbage(const Arguments& arguments, const Reply& reply) const {
    const int count = arguments.size() > 1 ? static_cast<int>(ParseNumber(arguments[1], 0, INT32_MAX)) : 1;
    if (arguments[0] == "Monitor") {
      daemon_.store().streams().SetGarbage(count);
    } else if (arguments[0] == "Get" || arguments[0] == "Query") {
      daemon_.faults().SetGarbage(arguments[0], count);
    } else {
      Refuse("only Get, Query and Monitor carry objects");
    }
    reply.Ok();
  }

  void FaultFreeze(const Arguments& arguments, const Reply& reply) const {
    if (arguments[0] != "on" && arguments[0] != "off") Refuse("on or off");
    daemon_.faults().SetFrozen(arguments[0] == "on");
    reply.Ok();
  }

  void FaultListen(const Arguments& arguments, const Reply& reply) const {
    if (arguments[0] != "on" && arguments[0] != "off") Refuse("on or off");
    if (arguments[0] == "on") {
      daemon_.Listen();
    } else {
      daemon_.StopListening();
    }
    reply.Ok();
  }

  void FaultClear(const Reply& reply) const {
    daemon_.faults().Clear();
    daemon_.store().streams().SetGarbage(0);
    daemon_.Listen();
    reply.Ok();
  }

  void Calls(const Reply& reply) const {
    Json result = JsonObject();
    for (const StoreFaults::Seen& seen : daemon_.faults().Calls()) {
      Json entry = JsonObject();
      AddMember(entry.get(), "calls", seen.calls);
      AddMember(entry.get(), "failed", seen.failed);
      AddMember(result.get(), seen.method.c_str(), std::move(entry));
    }
    reply.Ok(std::move(result));
  }

  void CallsKept(const Arguments& arguments, const Reply& reply) const {
    const size_t count = arguments.size() > 1 ? ParseNumber(arguments[1], 1, 10000) : 10;
    Json result = JsonArray();
    for (const std::string& text : daemon_.faults().Requests(arguments[0], count)) {
      cJSON_AddItemToArray(result.get(), cJSON_CreateString(text.c_str()));
    }
    reply.Ok(std::move(result));
  }

  template <class Request>
  std::vector<Request> Kept(const char* method, const Arguments& arguments) const {
    const size_t count = arguments.empty() ? kMostKept : ParseNumber(arguments[0], 1, kMostKept);
    std::vector<Request> requests;
    for (const std::string& text : daemon_.faults().Requests(method, count)) {
      std::string error;
      if (!ParseMessageText(text, &requests.emplace_back(), &error)) Refuse("a kept request: " + error);
    }
    return requests;
  }

  Json ChangeJson(const char* change, ObjectType type, const std::string* object,
                  const google::protobuf::RepeatedField<uint32_t>& vdbs) const {
    Json entry = JsonObject();
    std::string key;
    if (object == nullptr || !registry_.Key(type, *object, &key).ok()) key.clear();
    const bool shown = std::ranges::all_of(key, [](unsigned char c) { return std::isprint(c) != 0; });
    AddMember(entry.get(), "key", shown ? key : ToHex(key));
    AddMember(entry.get(), "change", change);
    AddMember(entry.get(), "type", ObjectType_Name(type));
    Json numbers = JsonArray();
    for (const uint32_t vdb : vdbs) cJSON_AddItemToArray(numbers.get(), cJSON_CreateNumber(vdb));
    AddMember(entry.get(), "vdbs", std::move(numbers));
    if (object != nullptr) AddMember(entry.get(), "object", registry_.ToText(type, *object));
    return entry;
  }

  void Changes(const Arguments& arguments, const Reply& reply) const {
    Json list = JsonArray();
    for (const auto& request : Kept<proto::ModifyRequestMsg>("Modify", arguments)) {
      for (const proto::ModifyMsg& each : request.modify_msg()) {
        const auto add = [&](const char* change, const auto& message, const std::string* object) {
          AddItem(list.get(), ChangeJson(change, message.object_type(), object, message.vdb_id()));
        };
        if (each.has_put_msg()) add("put", each.put_msg(), &each.put_msg().object());
        if (each.has_patch_msg()) add("patch", each.patch_msg(), &each.patch_msg().object());
        if (each.has_delete_msg()) add("delete", each.delete_msg(), &each.delete_msg().object());
        if (each.has_flush_msg()) add("flush", each.flush_msg(), nullptr);
        if (each.has_copy_msg()) {
          const proto::CopyMsg& copy = each.copy_msg();
          add("copy", copy, copy.has_object() ? &copy.object() : nullptr);
        }
      }
    }
    reply.Ok(std::move(list));
  }

  void Reads(const Arguments& arguments, const Reply& reply) const {
    Json list = JsonArray();
    const auto add = [&](const char* call, const google::protobuf::Message& request) {
      Json entry = JsonObject();
      AddMember(entry.get(), "call", call);
      AddMember(entry.get(), "request", request.ShortDebugString());
      AddItem(list.get(), std::move(entry));
    };
    for (const auto& each : Kept<proto::GetRequestMsg>("Get", arguments)) add("Get", each);
    for (const auto& each : Kept<proto::QueryRequestMsg>("Query", arguments)) add("Query", each);
    for (const auto& each : Kept<proto::MonitorRequestMsg>("Monitor", arguments)) add("Monitor", each);
    for (const auto& each : Kept<proto::ConfigureMonitorRequestMsg>("ConfigureMonitor", arguments))
      add("ConfigureMonitor", each);
    reply.Ok(std::move(list));
  }

  void CallsKeep(const Arguments& arguments, const Reply& reply) const {
    daemon_.faults().KeepRequests(ParseNumber(arguments[0], 0, kMostKept));
    reply.Ok();
  }

  void Schema(const Arguments& arguments, const Reply& reply) const {
    if (!arguments.empty()) {
      daemon_.store().SetSchema(arguments[0], arguments.size() > 1
                                                  ? ParseType(arguments[1])
                                                  : static_cast<ObjectType>(proto::ObjectType_MAX));
    }
    Json result = JsonObject();
    AddMember(result.get(), "version", daemon_.store().SchemaVersion());
    AddMember(result.get(), "schema", daemon_.store().Schema());
    reply.Ok(std::move(result));
  }

  StoreDaemon& daemon_;
  const ObjectRegistry& registry_;
};

}  // namespace

void RegisterStoreCommands(CommandTable& table, StoreDaemon& daemon, const ObjectRegistry& registry) {
  StoreCommands(daemon, registry).Register(table);
}

}  // namespace zem::sim
