#include "sim/dataplane/packet_walk.h"

#include <net/ethernet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/udp.h>

#include <cstring>

#include "proto/traceflow/traceflow.pb.h"
#include "sim/switch/tree/json_file.h"
#include "sim/switch/tree/port_table.h"
#include "sim/switch/tree/state_tree.h"

namespace zem::sim {
namespace {

namespace traceflow = orlane::zem::traceflow;

constexpr const char* kBlock = "com.orlane.common.port.block";
constexpr const char* kNetwork = "com.orlane.port.extraConfig.opaqueNetwork.id";
constexpr std::string_view kPayload = "trace";
constexpr uint16_t kPort = 4789;

std::string Property(const std::string& dvs, const std::string& port, const char* name) {
  const auto property = tree::ReadProperty(ports::PropertyPath(dvs, port, name));
  return property ? property->bytes.substr(0, property->bytes.find('\0')) : std::string();
}

bool IsBlocked(const std::string& dvs, const std::string& port) {
  return Property(dvs, port, kBlock) == "true";
}

std::vector<std::string> PortsOf(const std::string& dvs) {
  return tree::List(tree::SwitchDir(dvs) + "/ports").value_or(std::vector<std::string>());
}

std::string FirstUplink(const cJSON* meta) {
  const cJSON* const pnics = cJSON_GetObjectItemCaseSensitive(meta, "pnics");
  std::string uplink = JsonString(cJSON_GetArrayItem(pnics, 0), "uplink");
  if (!uplink.empty()) return uplink;
  const cJSON* const first = cJSON_GetArrayItem(cJSON_GetObjectItemCaseSensitive(meta, "uplinks"), 0);
  return cJSON_IsString(first) ? first->valuestring : "";
}

}  // namespace

std::string PortMac(std::string_view port) {
  uint64_t hash = 14695981039346656037u;
  for (const char c : port) hash = (hash ^ static_cast<uint8_t>(c)) * 1099511628211u;
  std::string mac("\x02", 1);  // locally administered
  for (int shift = 32; shift >= 0; shift -= 8) mac += static_cast<char>(hash >> shift & 0xff);
  return mac;
}

std::string PacketBetween(std::string_view source_port, std::optional<std::string_view> destination_port) {
  const std::string source = PortMac(source_port);
  const std::string destination = destination_port ? PortMac(*destination_port) : PortMac("elsewhere/");
  const auto address = [](const std::string& mac) {
    return htonl(0x0a000000u | static_cast<uint8_t>(mac[3]) << 16 | static_cast<uint8_t>(mac[4]) << 8 |
                 static_cast<uint8_t>(mac[5]));
  };
  ip network{};
  network.ip_v = IPVERSION;
  network.ip_hl = sizeof(network) / 4;
  network.ip_ttl = IPDEFTTL;
  network.ip_p = IPPROTO_UDP;
  network.ip_len = htons(static_cast<uint16_t>(sizeof(network) + sizeof(udphdr) + kPayload.size()));
  network.ip_src.s_addr = address(source);
  network.ip_dst.s_addr = address(destination);
  udphdr transport{};
  transport.uh_sport = transport.uh_dport = htons(kPort);
  transport.uh_ulen = htons(static_cast<uint16_t>(sizeof(transport) + kPayload.size()));
  std::string frame = destination + source + std::string("\x08\x00", 2);
  frame.append(reinterpret_cast<const char*>(&network), sizeof(network));
  frame.append(reinterpret_cast<const char*>(&transport), sizeof(transport));
  return frame.append(kPayload);
}

std::vector<Hop> WalkPacket(const std::string& source_port, std::string_view frame) {
  if (!tree::GoodName(source_port)) return {};
  for (const std::string& dvs : tree::List(tree::SwitchesDir()).value_or(std::vector<std::string>())) {
    if (!ports::Has(dvs, source_port)) continue;
    if (IsBlocked(dvs, source_port)) return {{"port", source_port, traceflow::DROPPED}};
    std::vector<Hop> hops = {{"port", source_port, traceflow::RECEIVED}};
    const JsonFile meta = ReadJson(tree::SwitchDir(dvs) + "/meta.json");
    const std::string name = JsonString(meta.get(), "name");
    const std::string network = Property(dvs, source_port, kNetwork);
    const std::string_view destination = frame.substr(0, ETHER_ADDR_LEN);
    for (const std::string& port : PortsOf(dvs)) {
      if (port == source_port || PortMac(port) != destination) continue;
      if (Property(dvs, port, kNetwork) != network) continue;
      hops.push_back({"switch", name, traceflow::FORWARDED});
      hops.push_back({"port", port, IsBlocked(dvs, port) ? traceflow::DROPPED : traceflow::DELIVERED});
      return hops;
    }
    const std::string uplink = FirstUplink(meta.get());
    if (uplink.empty()) {
      hops.push_back({"switch", name, traceflow::DROPPED});
    } else {
      hops.push_back({"switch", name, traceflow::FORWARDED});
      hops.push_back({"uplink", uplink, traceflow::FORWARDED});
    }
    return hops;
  }
  return {};
}

}  // namespace zem::sim
