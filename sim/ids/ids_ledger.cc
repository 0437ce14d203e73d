#include "sim/ids/ids_ledger.h"

#include <arpa/inet.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "proto/context/ids.pb.h"

namespace zem::sim {
namespace {

using orlane::zem::context::ids::EventInfo;
using orlane::zem::context::ids::EventInfoMsg;
using orlane::zem::context::ids::PcapInfoMsg;
using orlane::zem::context::ids::PcapMsg;

constexpr size_t kMostAlerts = 200000;
constexpr size_t kMostCaptures = 100000;
constexpr size_t kViolationsKept = 100;
constexpr uint32_t kVersion = 1;

std::string AddressText(const orlane::zem::IpAddressMsg& address) {
  char text[INET6_ADDRSTRLEN] = "";
  if (address.has_ipv6() && address.ipv6().size() == sizeof(in6_addr)) {
    ::inet_ntop(AF_INET6, address.ipv6().data(), text, sizeof(text));
  } else {
    const in_addr v4{htonl(address.ipv4())};
    ::inet_ntop(AF_INET, &v4, text, sizeof(text));
  }
  return text;
}

// The sides change places on the way, so they have no order here.
std::string KeyOf(uint32_t signature_id, const std::string& vm_uuid, const std::string& address,
                  const std::string& other_address) {
  const auto [low, high] = std::minmax(address, other_address);
  return std::to_string(signature_id) + " at " + vm_uuid + " between " + low + " and " + high;
}

}  // namespace

void IdsLedger::AnnounceAlert(uint32_t signature_id, const std::string& vm_uuid, const std::string& address,
                              const std::string& other_address) {
  const std::lock_guard lock(mutex_);
  const std::string key = KeyOf(signature_id, vm_uuid, address, other_address);
  if (alerts_.size() >= kMostAlerts && !alerts_.contains(key)) {
    alerts_full_ = true;
    return;
  }
  ++alerts_[key].count;
}

void IdsLedger::AnnounceCapture(uint64_t flow_id, uint64_t snip_ts_us, const std::string& bytes) {
  const std::lock_guard lock(mutex_);
  const CaptureKey key(flow_id, snip_ts_us);
  if (captures_.size() >= kMostCaptures && !captures_.contains(key)) {
    captures_full_ = true;
    return;
  }
  Capture& capture = captures_[key];
  ++capture.announced.count;
  capture.size = bytes.size();
  capture.hash = std::hash<std::string>()(bytes);
}

void IdsLedger::Take(const EventInfoMsg& message) {
  const std::lock_guard lock(mutex_);
  if (message.event_info_size() == 0) Violation("a message without alerts");
  if (!message.has_site_uuid() || message.version() != kVersion)
    Violation("a message without site or version");
  if (message.has_node_id()) Violation("a node id where none belongs");
  ++arrived_.messages;
  for (const EventInfo& info : message.event_info()) Judge(info);
}

void IdsLedger::Judge(const EventInfo& info) {
  ++arrived_.entries;
  arrived_.alerts += info.count();
  if (info.count() == 0) Violation("an entry that counts no alert");
  if (info.event_metadata_size() > 0) Violation("metadata for the manager");
  const std::string key =
      KeyOf(info.signature_id(), info.vm_uuid(), AddressText(info.src_ip()), AddressText(info.dest_ip()));
  const auto found = alerts_.find(key);
  if (found == alerts_.end()) {
    if (!alerts_full_) Violation("an alert that nobody sent: " + key);
    return;
  }
  found->second.arrived += info.count();
  if (found->second.arrived > found->second.count) Violation("more alerts than were sent: " + key);
}

void IdsLedger::Take(const PcapInfoMsg& message) {
  const std::lock_guard lock(mutex_);
  if (message.pcap_size() == 0) Violation("a message without captures");
  if (!message.has_site_uuid() || message.version() != kVersion)
    Violation("a message of captures without site or version");
  ++arrived_.pcap_messages;
  for (const PcapMsg& pcap : message.pcap()) Judge(pcap);
}

void IdsLedger::Judge(const PcapMsg& pcap) {
  Arrived& arrived = arrived_;
  ++arrived.captures;
  if (pcap.has_data()) ++arrived.captures_with_bytes;
  arrived.bytes += pcap.data().size();
  const auto found = captures_.find({pcap.pcap_id().first(), pcap.pcap_id().second()});
  const std::string name =
      std::to_string(pcap.pcap_id().first()) + "." + std::to_string(pcap.pcap_id().second());
  if (found == captures_.end()) {
    if (!captures_full_) Violation("a capture that nobody announced: " + name);
    return;
  }
  Capture& capture = found->second;
  if (pcap.has_data() &&
      (pcap.length() != capture.size || std::hash<std::string>()(pcap.data()) != capture.hash))
    Violation("other bytes than the file's: " + name);
  if (++capture.announced.arrived > capture.announced.count)
    Violation("a capture more often than it was announced: " + name);
}

void IdsLedger::TakeGarbage(const std::string& what) {
  const std::lock_guard lock(mutex_);
  Violation(what);
}

void IdsLedger::Violation(const std::string& text) {
  if (violations_.size() < kViolationsKept) violations_.push_back("intrusion alerts: " + text);
}

IdsLedger::Arrived IdsLedger::arrived() const {
  const std::lock_guard lock(mutex_);
  return arrived_;
}

std::vector<std::string> IdsLedger::violations() const {
  const std::lock_guard lock(mutex_);
  return violations_;
}

}  // namespace zem::sim
