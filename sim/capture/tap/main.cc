// The simulated host's capturing tool: asks the switch for a tap at a capture point, and writes the packets
// that pass there as a pcap stream into a named pipe, each at once.
//
//     pktcap-uw KIND NAME in|out|inout PIPE [COUNT]
//
// The tap is a socket that the switch has opened, so the tool needs no right to take packets from the
// network, and works with the daemon's own.  What passes until the pipe has a reader waits in the tap.  The
// tool ends after COUNT packets, with an interrupt, or when nobody reads.

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/unique_fd.h"
#include "sim/capture/tap/tap.h"

namespace zem::sim::capture {
namespace {

constexpr size_t kSnapLength = 9216;
constexpr size_t kAddresses = 2 * ETH_ALEN;
constexpr size_t kTag = 4;
constexpr uint32_t kMagic = 0xa1b2c3d4;
constexpr uint32_t kEthernet = 1;

volatile std::sig_atomic_t interrupted = 0;
void OnInterrupt(int) { interrupted = 1; }

struct Packet {
  timeval time{};
  bool outgoing = false;
  size_t length = 0;        // as it passed
  std::vector<char> bytes;  // at most the snap length
};

UniqueFd AskForTap(const std::string& kind, const std::string& name) {
  const UniqueFd taps(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, kTapSocket, sizeof(address.sun_path) - 1);
  const std::string request = kind + "\n" + name;
  if (!taps || ::connect(taps.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::send(taps.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
    std::fprintf(stderr, "pktcap-uw: %s: %s\n", kTapSocket, std::strerror(errno));
    return UniqueFd();
  }
  char text[kMostTapText];
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  iovec part{text, sizeof(text)};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t size = ::recvmsg(taps.get(), &message, MSG_CMSG_CLOEXEC);
  const cmsghdr* const header = size < 0 ? nullptr : CMSG_FIRSTHDR(&message);
  int tap = -1;
  if (header != nullptr && header->cmsg_type == SCM_RIGHTS) std::memcpy(&tap, CMSG_DATA(header), sizeof(tap));
  if (tap < 0) std::fprintf(stderr, "pktcap-uw: %.*s\n", size < 0 ? 0 : static_cast<int>(size), text);
  return UniqueFd(tap);
}

// The kernel has taken a packet's VLAN tag out of it, and tells it beside the packet.
void PutBackTag(const tpacket_auxdata& beside, Packet* packet) {
  if ((beside.tp_status & TP_STATUS_VLAN_VALID) == 0 || packet->bytes.size() < kAddresses) return;
  const bool known = (beside.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0;
  const uint16_t tag[] = {htons(known ? beside.tp_vlan_tpid : ETHERTYPE_VLAN), htons(beside.tp_vlan_tci)};
  const auto* const bytes = reinterpret_cast<const char*>(tag);
  packet->bytes.insert(packet->bytes.begin() + kAddresses, bytes, bytes + kTag);
  packet->bytes.resize(std::min(packet->bytes.size(), kSnapLength));
  packet->length += kTag;
}

bool Take(int tap, Packet* packet) {
  packet->bytes.resize(kSnapLength);
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(tpacket_auxdata)) + CMSG_SPACE(sizeof(timeval))];
  sockaddr_ll from{};
  iovec part{packet->bytes.data(), packet->bytes.size()};
  msghdr message{};
  message.msg_name = &from;
  message.msg_namelen = sizeof(from);
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t length = ::recvmsg(tap, &message, MSG_DONTWAIT | MSG_TRUNC);
  if (length < 0) return false;
  packet->length = static_cast<size_t>(length);
  packet->bytes.resize(std::min(packet->length, kSnapLength));
  packet->outgoing = from.sll_pkttype == PACKET_OUTGOING;
  packet->time = {};
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_TIMESTAMP) {
      std::memcpy(&packet->time, CMSG_DATA(header), sizeof(packet->time));
    } else if (header->cmsg_level == SOL_PACKET && header->cmsg_type == PACKET_AUXDATA) {
      tpacket_auxdata beside;
      std::memcpy(&beside, CMSG_DATA(header), sizeof(beside));
      PutBackTag(beside, packet);
    }
  }
  return true;
}

bool WriteWhole(int file, const std::vector<char>& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t part = ::write(file, bytes.data() + done, bytes.size() - done);
    if (part <= 0) return false;
    done += static_cast<size_t>(part);
  }
  return true;
}

void Append(const uint32_t* fields, size_t count, std::vector<char>* record) {
  const auto* const bytes = reinterpret_cast<const char*>(fields);
  record->insert(record->end(), bytes, bytes + count * sizeof(*fields));
}

bool WriteHeader(int pipe) {
  const uint32_t fields[] = {kMagic, 2 | 4 << 16, 0, 0, kSnapLength, kEthernet};
  std::vector<char> header;
  Append(fields, std::size(fields), &header);
  return WriteWhole(pipe, header);
}

bool WritePacket(int pipe, const Packet& packet) {
  const uint32_t fields[] = {
      static_cast<uint32_t>(packet.time.tv_sec), static_cast<uint32_t>(packet.time.tv_usec),
      static_cast<uint32_t>(packet.bytes.size()), static_cast<uint32_t>(packet.length)};
  std::vector<char> record;
  Append(fields, std::size(fields), &record);
  record.insert(record.end(), packet.bytes.begin(), packet.bytes.end());
  return WriteWhole(pipe, record);
}

// Interrupts come in the wait alone, so that no packet is written in part.
int Capture(int tap, int pipe, std::string_view way, unsigned long count) {
  sigset_t interrupts;
  sigset_t others;
  sigemptyset(&interrupts);
  sigaddset(&interrupts, SIGINT);
  sigaddset(&interrupts, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &interrupts, &others);
  if (!WriteHeader(pipe)) return 1;
  Packet packet;
  for (unsigned long taken = 0; count == 0 || taken < count;) {
    pollfd wait{tap, POLLIN, 0};
    const int ready = ::ppoll(&wait, 1, nullptr, &others);
    if (interrupted != 0) return 0;
    if (ready < 0 && errno != EINTR) return 1;
    if (ready <= 0 || !Take(tap, &packet)) continue;
    if (way == (packet.outgoing ? "in" : "out")) continue;
    if (!WritePacket(pipe, packet)) return 1;
    ++taken;
  }
  return 0;
}

}  // namespace
}  // namespace zem::sim::capture

int main(int argc, char** argv) {
  using namespace zem::sim::capture;
  if (argc < 5) {
    std::fprintf(stderr, "usage: pktcap-uw KIND NAME in|out|inout PIPE [COUNT]\n");
    return 2;
  }
  const zem::UniqueFd tap = AskForTap(argv[1], argv[2]);
  if (!tap) return 1;
  struct sigaction action {};
  action.sa_handler = &OnInterrupt;  // without SA_RESTART: it ends the opening of the pipe
  ::sigaction(SIGINT, &action, nullptr);
  ::sigaction(SIGTERM, &action, nullptr);
  const zem::UniqueFd pipe(::open(argv[4], O_WRONLY | O_CLOEXEC));
  if (!pipe) return interrupted != 0 ? 0 : 1;
  return Capture(tap.get(), pipe.get(), argv[3], argc > 5 ? std::strtoul(argv[5], nullptr, 10) : 0);
}
