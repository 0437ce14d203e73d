#include "sim/kafka/flow_records.h"

#include <arpa/inet.h>

#include <array>

#include "platform/core/uuid.h"
#include "proto/context/pace.pb.h"

namespace zem::sim {
namespace {

namespace pace = orlane::zem::pace;

// A broker's own limit for a message, with what the protocol adds to it.
constexpr size_t kMostBytes = 1000000;
constexpr std::array kServiceTypes = {"?", "start", "stop"};
constexpr std::array kUserTypes = {"?", "logon", "logoff", "connect", "disconnect"};

std::string AddressText(const pace::IpAddressMsg& address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (address.has_ipv4()) {
    const in_addr v4{address.ipv4()};
    return ::inet_ntop(AF_INET, &v4, text.data(), text.size());
  }
  if (address.ipv6().size() == sizeof(in6_addr)) {
    return ::inet_ntop(AF_INET6, address.ipv6().data(), text.data(), text.size());
  }
  return "no address";
}

class Judge {
 public:
  explicit Judge(FlowRecords& records) : records_(records) {}

  void Take(const std::string& bytes) {
    ++records_.messages;
    records_.bytes += bytes.size();
    if (bytes.size() > kMostBytes) Complain("a message of " + std::to_string(bytes.size()) + " bytes");
    pace::PaceContextInfoMsg message;
    if (!message.ParseFromString(bytes)) return Complain("a message that is none");
    if (message.has_site_id() && message.site_id().first() == 0 && message.site_id().second() == 0) {
      Complain("a site that is 0");
    }
    records_.sites.insert(message.has_site_id() ? zem::UuidText(message.site_id()) : "");
    if (message.guest_info().vm_map_entry_size() == 0) ++records_.empty;
    for (const auto& entry : message.guest_info().vm_map_entry()) {
      if (!entry.has_vm_vc_uuid()) Complain("a guest without an id");
      Take(zem::UuidText(entry.vm_vc_uuid()), entry.vm_info());
    }
  }

  void CheckKeys() {
    for (const auto& [id, guest] : records_.guests) {
      for (const std::string& service : guest.services) {
        const std::string key = service.substr(service.rfind(' ') + 1);
        if (guest.processes.count(key) == 0) Complain(id + ": nobody has told of the process " + key);
      }
      for (const std::string& session : guest.sessions) {
        const std::string key = session.substr(session.find(' ') + 1);
        if (guest.users.count(key) == 0) Complain(id + ": nobody has told of the user " + key);
      }
    }
  }

 private:
  void Complain(std::string text) { records_.violations.push_back("flow record: " + std::move(text)); }

  template <size_t n>
  std::string Name(const std::array<const char*, n>& names, uint32_t type) {
    if (type != 0 && type < n) return names[type];
    Complain("an event of type " + std::to_string(type));
    return names[0];
  }

  void Take(const std::string& id, const pace::VmInfoMsg& info) {
    FlowRecords::Guest& guest = records_.guests[id];
    for (const auto& event : info.vm_event()) {
      if (event.event_type() < 1 || event.event_type() > 3 || event.timestamp() == 0) {
        Complain(id + ": " + event.ShortDebugString());
      }
      guest.vm_events.push_back(event.event_type());
    }
    for (const auto& event : info.service_event()) {
      if (event.timestamp() == 0) Complain(id + ": " + event.ShortDebugString());
      guest.services.push_back(Name(kServiceTypes, event.event_type()) + " " + AddressText(event.dest_ip()) +
                               ":" + std::to_string(event.dest_port()) + " " + event.process_map_key());
    }
    for (const auto& event : info.user_event()) {
      guest.sessions.push_back(Name(kUserTypes, event.event_type()) + " " + event.user_map_key());
    }
    for (const auto& entry : info.user_entry()) {
      if (entry.user_info().dfw_key() != entry.key()) Complain(id + ": " + entry.ShortDebugString());
      guest.users[entry.key()] = entry.user_info().name();
    }
    for (const auto& entry : info.process_entry()) {
      const auto& process = entry.process_info();
      if (process.name().empty() || entry.key() != std::to_string(process.process_dfw_key()) +
                                                       process.user_id() + std::to_string(process.uid())) {
        Complain(id + ": " + entry.ShortDebugString());
      }
      guest.processes[entry.key()] = process.name();
    }
  }

  FlowRecords& records_;
};

}  // namespace

FlowRecords JudgeFlowRecords(const std::vector<std::string>& messages) {
  FlowRecords records;
  Judge judge(records);
  for (const std::string& bytes : messages) judge.Take(bytes);
  judge.CheckKeys();
  return records;
}

}  // namespace zem::sim
