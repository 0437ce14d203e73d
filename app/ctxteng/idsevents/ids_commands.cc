#include "app/ctxteng/idsevents/ids_commands.h"

#include <string>
#include <utility>

#include "app/ctxteng/idsevents/ids_counters.h"
#include "app/ctxteng/idsqueue/node_records.h"
#include "framework/cli/json_writer.h"
#include "framework/log/log.h"

namespace IdsEvtEng {
namespace {

using zem::JsonValue;
using zem::Tarvik::CliArguments;
using zem::Tarvik::CliReply;

constexpr zem::LogSource kLog{"tarvik", "framework"};

std::string Statistics(IdsCounters& counters) {
  JsonValue object = JsonValue::Object();
  counters.ForEach([&object](std::string_view name, Counter& counter) {
    object.Add(std::string(name).c_str(), uint64_t{counter});
  });
  return object.Text();
}

std::string RecordsOf(const NodeRecords& nodes) {
  JsonValue rows = JsonValue::Array();
  for (const auto& [node, record] : nodes.All()) {
    ZLOG_INFO("CliServer: Getting IDS stats for the node %s", node.c_str());
    JsonValue row = JsonValue::Object();
    row.Add("Node-UUID", node)
        .Add("send_seq", record.send_seq)
        .Add("old_seq", record.old_seq)
        .Add("drop_count", record.drop_count)
        .Add("rcv_count", record.rcv_count)
        .Add("oop_count", record.oop_count);
    rows.Append(std::move(row));
  }
  return rows.Text();
}

}  // namespace

std::vector<zem::Tarvik::CliCommand> IdsStatisticsCommands(IdsCounters& counters, NodeRecords& nodes) {
  return {{"get/idsStats", "", 0, 0,
           [&counters](const CliArguments&, CliReply reply) {
             ZLOG_INFO("CliServer: Getting IDS stats");
             reply.Ok(Statistics(counters));
           }},
          {"clear/idsStats", "", 0, 0,
           [&counters](const CliArguments&, CliReply reply) {
             ZLOG_INFO("CliServer: Clearing IDS stats");
             counters.Clear();
             reply.Ok("Status OK");
           }},
          {"get/idsRPCFwderStats", "", 0, 0,
           [&nodes](const CliArguments&, CliReply reply) { reply.Ok(RecordsOf(nodes)); }},
          {"clear/idsRPCFwderStats", "", 0, 0, [&nodes](const CliArguments&, CliReply reply) {
             nodes.Clear();
             reply.Ok("Status OK");
           }}};
}

}  // namespace IdsEvtEng
