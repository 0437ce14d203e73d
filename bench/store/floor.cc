// The cost of the operating system alone: a process that forwards each message and answers it, over the same
// kind of sockets, without objects or frames.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "bench/store/spawned.h"
#include "bench/store/subject.h"
#include "platform/core/unique_fd.h"

namespace zem::bench {
namespace {

// As long as one update of the store; the answer is as long as the store's.
struct Message {
  int64_t number = 0;
  char rest[147] = {};
};
using Answer = std::array<char, 16>;

template <class T>
bool Receive(int fd, T* message) {
  return ::recv(fd, message, sizeof(*message), MSG_WAITALL) == static_cast<ssize_t>(sizeof(*message));
}
template <class T>
bool Send(int fd, const T& message) {
  return ::send(fd, &message, sizeof(message), MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(message));
}

void NoDelay(int fd) {
  const int on = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

UniqueFd Connect(const std::string& port) {
  UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(std::stoi(port)));
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::runtime_error("the relay does not listen");
  }
  NoDelay(socket.get());
  return socket;
}

// Waits as an event loop does.  The kernel wakes a thread that waits with epoll on another processor if it
// can, and one that waits on the socket itself on the same processor.
class Waiter {
 public:
  explicit Waiter(int fd) : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    epoll_event wanted{};
    wanted.events = EPOLLIN | EPOLLET;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &wanted) != 0) std::_Exit(1);
  }
  bool Wait() {
    epoll_event event{};
    return ::epoll_wait(epoll_.get(), &event, 1, -1) == 1;
  }

 private:
  const UniqueFd epoll_;
};

class Floor final : public Subject {
 public:
  Floor() : port_(relay_.Line()), writer_(Connect(port_)) {}
  std::string address() const override { return port_; }
  void Put(Object first, uint32_t) override {
    Message message;
    message.number = first.number;
    if (!Send(writer_.get(), message)) throw std::runtime_error("the relay has gone");
    ++under_way_;
  }
  void Flush() override {
    for (Answer answer; under_way_ > 0; --under_way_) {
      if (!Receive(writer_.get(), &answer)) throw std::runtime_error("the relay has gone");
    }
  }

 private:
  Spawned relay_{{"/proc/self/exe", "--relay"}};
  const std::string port_;
  const UniqueFd writer_;
  int under_way_ = 0;
};

}  // namespace

std::unique_ptr<Subject> MakeFloor() { return std::make_unique<Floor>(); }

// The first client to connect writes, the second reads.
void Relay() {
  const UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      ::listen(listener.get(), 2) != 0 ||
      ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    std::_Exit(1);
  }
  std::printf("%u\n", static_cast<unsigned>(ntohs(address.sin_port)));
  std::fflush(stdout);
  const UniqueFd writer(::accept(listener.get(), nullptr, nullptr));
  const UniqueFd reader(::accept(listener.get(), nullptr, nullptr));
  NoDelay(writer.get());
  NoDelay(reader.get());
  Waiter waiter(writer.get());
  for (Message message; waiter.Wait() && Receive(writer.get(), &message);) {
    if (!Send(reader.get(), message) || !Send(writer.get(), Answer())) break;
  }
  std::_Exit(0);
}

void WatchFloor(const std::string& address, const Watcher& watcher) {
  const UniqueFd socket = Connect(address);
  watcher.complete(0);
  Waiter waiter(socket.get());
  for (Message message; waiter.Wait() && Receive(socket.get(), &message);) watcher.told(message.number);
  std::_Exit(0);
}

}  // namespace zem::bench
