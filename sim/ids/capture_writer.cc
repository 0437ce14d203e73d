#include "sim/ids/capture_writer.h"

#include <net/ethernet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <pcap/pcap.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <vector>

namespace zem::sim {
namespace {

constexpr int kSnapshot = 65535;
constexpr size_t kPayload = 200;
constexpr uint16_t kServerPort = 445;

struct Close {
  void operator()(pcap_t* capture) const { pcap_close(capture); }
  void operator()(pcap_dumper_t* file) const { pcap_dump_close(file); }
};

// One packet from the client or, every other one, from the server.
std::vector<u_char> Packet(uint64_t flow_id, uint32_t number) {
  const bool answer = number % 2 == 1;
  const auto client_port = static_cast<uint16_t>(1024 + flow_id % 60000);
  ether_header ethernet{};
  ethernet.ether_type = htons(ETHERTYPE_IP);
  ip network{};
  network.ip_v = IPVERSION;
  network.ip_hl = sizeof(network) / 4;
  network.ip_ttl = IPDEFTTL;
  network.ip_p = IPPROTO_TCP;
  network.ip_len = htons(static_cast<uint16_t>(sizeof(network) + sizeof(tcphdr) + kPayload));
  network.ip_src.s_addr = htonl(answer ? 0xC0A80709 : 0x0A010203);
  network.ip_dst.s_addr = htonl(answer ? 0x0A010203 : 0xC0A80709);
  tcphdr transport{};
  transport.th_sport = htons(answer ? kServerPort : client_port);
  transport.th_dport = htons(answer ? client_port : kServerPort);
  transport.th_seq = htonl(number * kPayload);
  transport.th_off = sizeof(transport) / 4;
  transport.th_flags = TH_ACK | TH_PUSH;
  std::vector<u_char> packet(sizeof(ethernet) + sizeof(network) + sizeof(transport) + kPayload,
                             static_cast<u_char>(flow_id + number));
  std::memcpy(packet.data(), &ethernet, sizeof(ethernet));
  std::memcpy(packet.data() + sizeof(ethernet), &network, sizeof(network));
  std::memcpy(packet.data() + sizeof(ethernet) + sizeof(network), &transport, sizeof(transport));
  return packet;
}

}  // namespace

std::string WriteCapture(const std::string& path, uint64_t flow_id, uint32_t packets) {
  {
    const std::unique_ptr<pcap_t, Close> capture(pcap_open_dead(DLT_EN10MB, kSnapshot));
    const std::unique_ptr<pcap_dumper_t, Close> file(pcap_dump_open(capture.get(), path.c_str()));
    if (file == nullptr) throw std::runtime_error(std::string("cannot write ") + pcap_geterr(capture.get()));
    for (uint32_t number = 0; number < packets; ++number) {
      const std::vector<u_char> packet = Packet(flow_id, number);
      pcap_pkthdr header{};
      header.ts.tv_sec = 1767225600 + number;
      header.caplen = header.len = static_cast<bpf_u_int32>(packet.size());
      pcap_dump(reinterpret_cast<u_char*>(file.get()), &header, packet.data());
    }
  }
  std::ifstream written(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(written), std::istreambuf_iterator<char>()};
}

}  // namespace zem::sim
