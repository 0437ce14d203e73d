#include "sim/capture/tap_server.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string>

#include "platform/core/poll.h"
#include "sim/capture/capture_point.h"
#include "sim/capture/tap/tap.h"

namespace zem::sim::capture {
namespace {

constexpr int kBacklog = 16;
constexpr int kBuffer = 8 << 20;
// A tool that is stopped before it has asked holds the others for no longer.
constexpr int kRequestMs = 1000;

[[noreturn]] void Throw(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

UniqueFd Listen() {
  const std::filesystem::path path(kTapSocket);
  std::filesystem::create_directories(path.parent_path());
  std::filesystem::remove(path);
  UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, kTapSocket, sizeof(address.sun_path) - 1);
  if (!socket || ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::chmod(kTapSocket, 0600) != 0 || ::listen(socket.get(), kBacklog) != 0) {
    Throw(kTapSocket);
  }
  return socket;
}

UniqueFd OpenTap(const std::string& device) {
  // Without a protocol it takes nothing from other devices before it is bound to this one.
  UniqueFd tap(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
  const int on = 1;
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_ALL);
  address.sll_ifindex = static_cast<int>(::if_nametoindex(device.c_str()));
  if (!tap || address.sll_ifindex == 0 ||
      ::setsockopt(tap.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kBuffer, sizeof(kBuffer)) != 0 ||
      ::setsockopt(tap.get(), SOL_SOCKET, SO_TIMESTAMP, &on, sizeof(on)) != 0 ||
      ::setsockopt(tap.get(), SOL_PACKET, PACKET_AUXDATA, &on, sizeof(on)) != 0 ||
      ::bind(tap.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    Throw(device);
  }
  return tap;
}

// "KIND\nNAME" to a point's name.
std::string PointOf(std::string request) {
  const size_t line = request.find('\n');
  if (line == std::string::npos) throw std::runtime_error("a kind and a name are needed");
  request[line] = ':';
  return request;
}

// Without a tap the text goes alone.  A tool that has gone needs no answer.
void Answer(int tool, std::string text, int tap) {
  iovec part{text.data(), text.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  if (tap >= 0) {
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &tap, sizeof(tap));
  }
  [[maybe_unused]] const ssize_t gone = ::sendmsg(tool, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

void Serve(int tool) {
  pollfd wait{tool, POLLIN, 0};
  if (PollIdle(&wait, 1, kRequestMs) <= 0) return;
  char text[kMostTapText];
  const ssize_t size = ::recv(tool, text, sizeof(text), MSG_DONTWAIT);
  if (size <= 0) return;
  try {
    const std::string point = PointOf({text, static_cast<size_t>(size)});
    const UniqueFd tap = OpenTap(ResolvePoint(point).host);
    Answer(tool, kTapGranted, tap.get());
  } catch (const std::runtime_error& error) {
    Answer(tool, std::string(error.what()).substr(0, kMostTapText), -1);
  }
}

}  // namespace

TapServer::TapServer() : socket_(Listen()), wake_(::eventfd(0, EFD_CLOEXEC)) {
  thread_ = NativeThread([this] { Run(); });
}

TapServer::~TapServer() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t woken = ::write(wake_.get(), &one, sizeof(one));
  thread_.Join();
}

void TapServer::Run() {
  for (;;) {
    pollfd waits[] = {{socket_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    PollIdle(waits, std::size(waits), -1);
    if (waits[1].revents != 0) return;
    const UniqueFd tool(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (tool) Serve(tool.get());
  }
}

}  // namespace zem::sim::capture
