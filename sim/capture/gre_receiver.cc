#include "sim/capture/gre_receiver.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string_view>

#include "platform/core/poll.h"
#include "sim/capture/frame.h"

namespace zem::sim::capture {
namespace {

constexpr size_t kHeader = 8;
constexpr std::string_view kKeyedEthernet("\x20\x00\x65\x58", 4);

}  // namespace

GreReceiver::GreReceiver()
    : socket_(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      wake_(::eventfd(0, EFD_CLOEXEC)) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(kPort);
  const int off = 0;
  constexpr int kBuffer = 8 << 20;
  // Both families; a burst must not be lost here.
  ::setsockopt(socket_.get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off));
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kBuffer, sizeof(kBuffer));
  if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::runtime_error(std::strerror(errno));
  }
  thread_ = NativeThread([this] { Run(); });
}

GreReceiver::~GreReceiver() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t woken = ::write(wake_.get(), &one, sizeof(one));
  thread_.Join();
}

GreReceiver::State GreReceiver::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

void GreReceiver::Run() {
  char bytes[65536];
  for (;;) {
    pollfd waits[] = {{socket_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    PollIdle(waits, std::size(waits), -1);
    if (waits[1].revents != 0) return;
    const ssize_t got = ::recv(socket_.get(), bytes, sizeof(bytes), 0);
    if (got >= 0) Take(bytes, static_cast<size_t>(got));
  }
}

void GreReceiver::Take(const char* bytes, size_t size) {
  const std::lock_guard lock(mutex_);
  ++state_.datagrams;
  if (size < kHeader || std::string_view(bytes, kKeyedEthernet.size()) != kKeyedEthernet) {
    ++state_.malformed;
    return;
  }
  uint32_t key = 0;
  std::memcpy(&key, bytes + kKeyedEthernet.size(), sizeof(key));
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08x", ntohl(key));
  ++state_.keys[text];
  const auto number = NumberIn({bytes + kHeader, size - kHeader});
  state_.numbers.push_back(number ? static_cast<int64_t>(*number) : -1);
}

}  // namespace zem::sim::capture
