#include "sim/guest/library/socket_link.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cstring>

namespace zem::sim::guest {
namespace {

constexpr std::chrono::milliseconds kRetry{100};

}  // namespace

std::string MuxSocketPath(const std::string& port) { return "/var/run/orlane/zem-context-mux/" + port; }

SocketLink::SocketLink(std::string path, uint32_t timeout_ms)
    : path_(std::move(path)), timeout_ms_(timeout_ms) {}

SocketLink::~SocketLink() { Stop(); }

UniqueFd SocketLink::Connect(bool timed) const {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!fd || path_.size() >= sizeof(address.sun_path)) return UniqueFd();
  std::memcpy(address.sun_path, path_.data(), path_.size());
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    return UniqueFd();
  if (timed) {
    const timeval patience{static_cast<time_t>(timeout_ms_ / 1000),
                           static_cast<suseconds_t>(timeout_ms_ % 1000 * 1000)};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  }
  return fd;
}

void SocketLink::Start(uint64_t instance, uint32_t most_undelivered, std::function<void(const Event&)> sink) {
  receiver_ = NativeThread({.name = "endvat-events"}, [this, instance, most_undelivered, sink] {
    while (!stop_.stopped()) {
      ReceiveEvents(instance, most_undelivered, sink);
      (void)stop_.WaitFor(kRetry);
    }
  });
}

void SocketLink::ReceiveEvents(uint64_t instance, uint32_t most_undelivered,
                               const std::function<void(const Event&)>& sink) {
  const UniqueFd fd = Connect(false);
  if (!fd) return;
  {
    std::lock_guard lock(mutex_);
    if (stop_.stopped()) return;
    events_ = fd.get();
  }
  Question hello;
  hello.operation = Operation::kEvents;
  hello.number = instance;
  hello.number2 = most_undelivered;
  bool connected = false;
  if (WriteMessage(fd.get(), Encode(hello))) {
    while (const auto bytes = ReadMessage(fd.get())) {
      const auto event = DecodeEvent(*bytes);
      if (!event) break;
      connected = true;
      sink(*event);
    }
  }
  {
    std::lock_guard lock(mutex_);
    events_ = -1;
    idle_.clear();
  }
  if (connected && !stop_.stopped()) sink({.kind = Event::Kind::kMux, .type = 1});
}

void SocketLink::Stop() {
  {
    std::lock_guard lock(mutex_);
    stop_.Stop();
    if (events_ >= 0) ::shutdown(events_, SHUT_RDWR);
  }
  if (receiver_.joinable()) receiver_.Join();
}

std::optional<Answer> SocketLink::Ask(const Question& question) {
  const bool one_way = question.operation == Operation::kDone || question.operation == Operation::kViolation;
  // A connection that waited since before a loss is dead: the second try takes a new one.
  for (int attempt = 0; attempt < 2; ++attempt) {
    UniqueFd fd;
    {
      std::lock_guard lock(mutex_);
      if (!idle_.empty()) {
        fd = std::move(idle_.back());
        idle_.pop_back();
      }
    }
    const bool fresh = !fd;
    if (fresh) fd = Connect(true);
    if (!fd) return std::nullopt;
    if (!WriteMessage(fd.get(), Encode(question))) continue;
    std::optional<Answer> answer(Answer{});
    if (!one_way) {
      const auto bytes = ReadMessage(fd.get());
      answer = bytes ? DecodeAnswer(*bytes) : std::nullopt;
      if (!answer && fresh) return std::nullopt;
      if (!answer) continue;
    }
    std::lock_guard lock(mutex_);
    idle_.push_back(std::move(fd));
    return answer;
  }
  return std::nullopt;
}

}  // namespace zem::sim::guest
