// A reply's way from its bytes to the manager's message, without sockets and queues.

#include <stdexcept>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "app/zemda/inventory/qub_inventory_parser.h"
#include "app/zemda/inventory/reply_reader.h"
#include "app/zemda/inventory/vm_records.h"
#include "bench/inventory/cases.h"
#include "proto/ida/ida.pb.h"
#include "sim/inventory/inventory_lines.h"

namespace zem::bench {
namespace {

constexpr int kRounds = 5;
constexpr uint32_t kChanges = 1000;
constexpr uint32_t kFew = 100;
constexpr uint32_t kFirstKey = 4000;

sim::VmFacts VmNumber(uint32_t number) {
  char text[64];
  sim::VmFacts vm;
  vm.mo_id = number + 1;
  vm.name = "vm-" + std::to_string(number);
  std::snprintf(text, sizeof(text), "50000000-0000-4000-8000-%012x", number);
  vm.uuid = vm.external_id = text;
  vm.on = true;
  vm.guest_host = vm.name + ".example.net";
  for (uint32_t device = 0; device < 2; ++device) {
    sim::VnicFacts& nic = vm.vnics[kFirstKey + device];
    std::snprintf(text, sizeof(text), "00:50:56:%02x:%02x:%02x", number >> 8 & 0x3f, number & 0xff, device);
    nic.mac = text;
    std::snprintf(text, sizeof(text), "f0000000-0000-4000-800%u-%012x", device, number);
    nic.attachment = text;
    nic.addresses = {"10." + std::to_string(number >> 8 & 0xff) + "." + std::to_string(number & 0xff) + ".1"};
  }
  return vm;
}

std::string TextOf(const sim::InventoryLines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

template <class Take>
void ForEachLine(const std::string& text, const Take& take) {
  for (size_t at = 0; at < text.size();) {
    const size_t end = text.find('\n', at);
    take(text.substr(at, end - at));
    at = end + 1;
  }
}

std::vector<ZemDa::ReplyLine> Split(const std::string& text) {
  std::vector<ZemDa::ReplyLine> lines;
  ForEachLine(text, [&lines](const std::string& line) { lines.push_back(ZemDa::SplitLine(line)); });
  return lines;
}

// What a program needs that only has the keys and values.
size_t BareSplit(const std::string& text) {
  std::vector<std::pair<std::string, std::string>> lines;
  ForEachLine(text, [&lines](const std::string& line) {
    const size_t at = line.find('=');
    lines.emplace_back(line.substr(0, at), at == std::string::npos ? std::string() : line.substr(at + 1));
  });
  return lines.size();
}

std::string Message(ZemDa::QubInventoryParser& parser, const std::string& reply, int type) {
  orlane::zem::ida::IdaMsg message;
  message.set_message_type(type);
  for (const ZemDa::InventoryUpdate& update : parser.Parse(Split(reply))) {
    for (auto& record : ZemDa::VmRecords(update.type, std::get<ZemDa::QubVM>(update.object)))
      *message.add_inventory_object() = std::move(record);
  }
  return message.SerializeAsString();
}

// Microseconds of one change of a VM, when the agent knows so many.
double ChangeAmong(uint32_t vms) {
  ZemDa::QubInventoryParser parser;
  if (Message(parser, ReplyAbout(vms), 0).empty()) throw std::runtime_error("no message");
  const sim::VmFacts before = VmNumber(vms / 2);
  sim::VmFacts now = before;
  now.name = "renamed";
  sim::InventoryLines lines;
  sim::AddVmChange(before, now, &lines);
  const std::string reply = TextOf(lines);
  size_t bytes = 0;
  const double seconds = Shortest(kRounds, [&] {
    for (uint32_t i = 0; i < kChanges; ++i) bytes += Message(parser, reply, 1).size();
  });
  if (bytes == 0) throw std::runtime_error("a change became nothing");
  return seconds / kChanges * 1e6;
}

}  // namespace

std::string ReplyAbout(uint32_t vms) {
  sim::InventoryLines lines;
  for (uint32_t i = 0; i < vms; ++i) sim::AddVmBlock(VmNumber(i), &lines);
  lines.emplace_back("done");
  return TextOf(lines);
}

void MeasureReplies(uint32_t vms) {
  const std::string reply = ReplyAbout(vms);
  size_t objects = 0;
  const double ours = Shortest(kRounds, [&] {
    ZemDa::QubInventoryParser parser;
    objects = parser.Parse(Split(reply)).size();
  });
  if (objects != vms) throw std::runtime_error("the reply was not understood");
  size_t lines = 0;
  const double bare = Shortest(kRounds, [&] { lines = BareSplit(reply); });
  if (lines < objects) throw std::runtime_error("the peer read nothing");
  Line("parse", "ms", ours * 1e3, bare * 1e3);

  std::string message;
  const double whole = Shortest(kRounds, [&] {
    ZemDa::QubInventoryParser parser;
    message = Message(parser, reply, 0);
  });
  // Reads the same bytes, and has the message's objects from somewhere.
  orlane::zem::ida::IdaMsg ready;
  if (!ready.ParseFromString(message)) throw std::runtime_error("the message is none");
  size_t bytes = 0;
  const double client = Shortest(kRounds, [&] {
    lines += BareSplit(reply);
    const orlane::zem::ida::IdaMsg copy(ready);
    bytes = copy.SerializeAsString().size();
  });
  if (bytes != message.size()) throw std::runtime_error("the peer's message is another");
  Line("message", "ms", whole * 1e3, client * 1e3);
  std::printf("inventory message-size bytes ours=%zu peer=%zu ratio=1\n", message.size(), bytes);

  Line("one-change", "us", ChangeAmong(vms), ChangeAmong(kFew));
}

}  // namespace zem::bench
