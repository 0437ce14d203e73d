#include <google/protobuf/stubs/logging.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "app/zemda/inventory/host_records.h"
#include "app/zemda/inventory/qub_inventory_parser.h"
#include "app/zemda/inventory/reply_reader.h"
#include "app/zemda/inventory/vm_records.h"
#include "proto/ida/ida.pb.h"
#include "tests/support/silent_log.h"

namespace {

using orlane::zem::ida::InventoryObjectMsg;

// Text that is no UTF-8 is only logged where it is written, and refused where it is read.
void EndOnForeignText(google::protobuf::LogLevel level, const char*, int, const std::string&) {
  if (level >= google::protobuf::LOGLEVEL_ERROR) std::abort();
}

void Check(const InventoryObjectMsg& record) {
  InventoryObjectMsg read;
  if (!read.ParseFromString(record.SerializeAsString())) std::abort();
}

void CheckVm(const ZemDa::InventoryUpdate& update, const ZemDa::QubVM& vm) {
  const std::string id = ZemDa::ValueOf(vm.properties, "vmExternalId");
  if (id.empty() || ZemDa::ValueOf(vm.properties, "MoId").empty()) std::abort();
  const auto records = ZemDa::VmRecords(update.type, vm);
  if (records.size() != 1 + vm.devices.size()) std::abort();
  for (const InventoryObjectMsg& record : records) {
    Check(record);
    if (record.has_virtual_network_interface() &&
        !record.virtual_network_interface().id().starts_with(id + "-")) {
      std::abort();
    }
  }
}

}  // namespace

// A full sync and an update of the inventory daemon, cut at the first byte 0, and the tables of the host's
// tools behind the next ones.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zem::test::SilenceLog();
  google::protobuf::SetLogHandler(&EndOnForeignText);
  std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
  std::string full;
  std::string update;
  std::string table;
  std::getline(input, full, '\0');
  std::getline(input, update, '\0');
  std::getline(input, table, '\0');
  ZemDa::QubInventoryParser parser;
  ZemDa::HostRecords host(ZemDa::HostTables(
      [&table](const ZemDa::shellCommand&, std::string* output) {
        *output = table;
        return 0;
      },
      "/nonexistent"));
  for (const std::string& reply : {full, update}) {
    std::vector<ZemDa::ReplyLine> lines;
    std::istringstream text(reply);
    for (std::string line; std::getline(text, line);) lines.push_back(ZemDa::SplitLine(line));
    const size_t most = lines.size();
    const auto objects = parser.Parse(lines);
    if (&reply == &full && objects.size() > most) std::abort();
    for (const ZemDa::InventoryUpdate& each : objects) {
      if (const auto* const vm = std::get_if<ZemDa::QubVM>(&each.object)) {
        CheckVm(each, *vm);
      } else {
        Check(host.Full(each.type, std::get<ZemDa::QubHost>(each.object)));
        if (const auto changed = host.Update(each.type, std::get<ZemDa::QubHost>(each.object)))
          Check(*changed);
      }
    }
  }
  return 0;
}
